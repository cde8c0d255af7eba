#pragma once

#include "dataflow/RunOutcome.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace H5 {
class DataSet;
class Attribute;
} // namespace H5

namespace quarvel {

// What a recording's attributes say about where it came from.
struct RecordingDescription {
    std::string scheme;
    std::string device;
    uint32_t srcAddr = 0;
    uint32_t dataBytes = 0;
    uint8_t dataRate = 0;
};

// How a recording ended, as its "state" attribute says.
enum class RecordingState { Recording, Complete, Stopped, Failed };

// The recording's self-description: the dataset's attributes, which say where the data came
// from, how far it goes ("recorded_values") and how the recording ended ("state", "failure"),
// and when the next checkpoint is due. Only the file's writer calls it.
class RecordingAttributes {
public:
    static constexpr std::chrono::milliseconds kCheckpointPeriod{1000};

    explicit RecordingAttributes(std::chrono::milliseconds checkpointPeriod = kCheckpointPeriod);
    ~RecordingAttributes();
    RecordingAttributes(const RecordingAttributes&) = delete;
    RecordingAttributes& operator=(const RecordingAttributes&) = delete;

    // Every attribute, "state" "recording" and no value recorded.
    void create(H5::DataSet& dataSet, const RecordingDescription& description);
    bool checkpointDue() const;
    // How the run ends, from the job's thread, at any time; the first word counts.
    void runEnding(RunOutcome outcome, const std::string& reason);
    // The file's own writing failed; the first reason counts. False when one was already told.
    bool writeFailed(const std::string& reason);
    bool hasWriteFailed() const { return !mWriteFailure.empty(); }
    // The state the file ends in: failed by its own write, complete, or as the run said; failure
    // then holds why.
    RecordingState stateAtEnd(bool complete, std::string& failure);
    // Before the file is flushed: it will hold values from index 0 on.
    void checkpoint(uint64_t values);
    // The last words; fixed-size values written in place, so that a full disk takes them.
    void finish(RecordingState state, uint64_t values, const std::string& failure);
    // Closes the attributes; all are tried, and the first failure is thrown.
    void close();
    // Lets go of the attributes without closing them first.
    void release();

private:
    H5::DataSet* mDataSet = nullptr;
    std::unique_ptr<H5::Attribute> mRecordedValues;
    std::unique_ptr<H5::Attribute> mState;
    std::unique_ptr<H5::Attribute> mEndTime;
    const std::chrono::milliseconds mCheckpointPeriod;
    std::chrono::steady_clock::time_point mNextCheckpoint{};
    std::mutex mOutcomeMutex;
    bool mOutcomeTold = false;
    RunOutcome mOutcome = RunOutcome::Stopped;
    std::string mOutcomeReason;
    std::string mWriteFailure;
};

} // namespace quarvel
