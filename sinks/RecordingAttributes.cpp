#include "sinks/RecordingAttributes.h"

#include "platform/UtcTime.h"
#include "platform/Version.h"

#include <H5Cpp.h>

#include <exception>
#include <vector>

#include <unistd.h>

namespace quarvel {

namespace {

std::string hostName() {
    char name[256] = {};
    if (::gethostname(name, sizeof name - 1) != 0) {
        return {};
    }
    return name;
}

// Fixed-length strings: a later value of the same size is written in place, needing no new
// room in the file. "state" fits its longest value, "recording".
constexpr size_t kStateSize = sizeof "recording";

H5::StrType fixedString(size_t size) {
    H5::StrType type(H5::PredType::C_S1, size);
    type.setStrpad(H5T_STR_NULLTERM);
    type.setCset(H5T_CSET_UTF8);
    return type;
}

void writeString(H5::Attribute& attribute, const std::string& value) {
    const H5::StrType type = attribute.getStrType();
    std::vector<char> bytes(type.getSize(), '\0');
    value.copy(bytes.data(), bytes.size() - 1);
    attribute.write(type, bytes.data());
}

// size 0: just the value's own size.
std::unique_ptr<H5::Attribute> createString(H5::DataSet& dataSet, const char* name, size_t size,
                                            const std::string& value) {
    const H5::StrType type = fixedString(size == 0 ? value.size() + 1 : size);
    auto attribute = std::make_unique<H5::Attribute>(
        dataSet.createAttribute(name, type, H5::DataSpace(H5S_SCALAR)));
    writeString(*attribute, value);
    return attribute;
}

std::unique_ptr<H5::Attribute> createNumber(H5::DataSet& dataSet, const char* name,
                                            const H5::PredType& fileType,
                                            const H5::PredType& memoryType, const void* value) {
    auto attribute = std::make_unique<H5::Attribute>(
        dataSet.createAttribute(name, fileType, H5::DataSpace(H5S_SCALAR)));
    attribute->write(memoryType, value);
    return attribute;
}

} // namespace

RecordingAttributes::RecordingAttributes(std::chrono::milliseconds checkpointPeriod)
    : mCheckpointPeriod(checkpointPeriod) {}
RecordingAttributes::~RecordingAttributes() = default;

void RecordingAttributes::create(H5::DataSet& dataSet, const RecordingDescription& description) {
    mDataSet = &dataSet;
    mWriteFailure.clear();
    const uint64_t none = 0;
    mRecordedValues = createNumber(dataSet, "recorded_values", H5::PredType::STD_U64LE,
                                   H5::PredType::NATIVE_UINT64, &none);
    mState = createString(dataSet, "state", kStateSize, "recording");
    createString(dataSet, "scheme", 0, description.scheme);
    createString(dataSet, "device", 0, description.device);
    createNumber(dataSet, "src_addr", H5::PredType::STD_U32LE, H5::PredType::NATIVE_UINT32,
                 &description.srcAddr);
    createNumber(dataSet, "data_bytes", H5::PredType::STD_U32LE, H5::PredType::NATIVE_UINT32,
                 &description.dataBytes);
    createNumber(dataSet, "data_rate", H5::PredType::STD_U8LE, H5::PredType::NATIVE_UINT8,
                 &description.dataRate);
    const std::string now = utcTimestamp(3);
    createString(dataSet, "start_time", 0, now);
    // While recording: the time of the last checkpoint.
    mEndTime = createString(dataSet, "end_time", now.size() + 1, now);
    createString(dataSet, "software", 0, std::string("quarvel ") + version());
    createString(dataSet, "host", 0, hostName());
}

// Time alone: HDF5's metadata stays in memory until a checkpoint, so no index node can reach the
// disk ahead of the end of file that covers it, however many chunks come in between. What is held
// grows with the chunks of one period only (some 100 KiB for a second at full speed).
bool RecordingAttributes::checkpointDue() const {
    return std::chrono::steady_clock::now() >= mNextCheckpoint;
}

void RecordingAttributes::runEnding(RunOutcome outcome, const std::string& reason) {
    std::lock_guard<std::mutex> lock(mOutcomeMutex);
    if (!mOutcomeTold) {
        mOutcomeTold = true;
        mOutcome = outcome;
        mOutcomeReason = reason;
    }
}

bool RecordingAttributes::writeFailed(const std::string& reason) {
    if (hasWriteFailed()) {
        return false;
    }
    mWriteFailure = reason;
    return true;
}

RecordingState RecordingAttributes::stateAtEnd(bool complete, std::string& failure) {
    if (hasWriteFailed()) {
        failure = mWriteFailure;
        return RecordingState::Failed;
    }
    if (complete) {
        return RecordingState::Complete;
    }
    std::lock_guard<std::mutex> lock(mOutcomeMutex);
    if (mOutcomeTold && mOutcome == RunOutcome::Failed) {
        failure = mOutcomeReason;
        return RecordingState::Failed;
    }
    return RecordingState::Stopped;
}

void RecordingAttributes::checkpoint(uint64_t values) {
    mRecordedValues->write(H5::PredType::NATIVE_UINT64, &values);
    writeString(*mEndTime, utcTimestamp(3));
    mNextCheckpoint = std::chrono::steady_clock::now() + mCheckpointPeriod;
}

void RecordingAttributes::finish(RecordingState state, uint64_t values,
                                 const std::string& failure) {
    mRecordedValues->write(H5::PredType::NATIVE_UINT64, &values);
    writeString(*mEndTime, utcTimestamp(3));
    const char* const names[] = {"recording", "complete", "stopped", "failed"};
    writeString(*mState, names[static_cast<int>(state)]);
    if (state == RecordingState::Failed) {
        createString(*mDataSet, "failure", 0, failure.empty() ? "unknown" : failure);
    }
}

void RecordingAttributes::close() {
    std::exception_ptr failure;
    for (auto* attribute : {&mRecordedValues, &mState, &mEndTime}) {
        try {
            if (*attribute) {
                (*attribute)->close();
            }
        } catch (const H5::Exception&) {
            if (!failure) {
                failure = std::current_exception();
            }
        }
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
}

void RecordingAttributes::release() {
    mRecordedValues.reset();
    mState.reset();
    mEndTime.reset();
    mDataSet = nullptr;
}

} // namespace quarvel
