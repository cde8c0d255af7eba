#include "app/RunEnd.h"

#include "dataflow/DataMover.h"
#include "platform/Logger.h"
#include "sinks/SinkHDF5.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>

namespace quarvel {

using morvik::pellum::log::pellumDoLog;
using morvik::pellum::log::Severity;

namespace {

const char* const kStopText = "transfer abort requested by user (sigterm)";

// Returns once the mover has finished, or false at until.
bool waitForFinish(AbstractDataMover& mover, std::chrono::steady_clock::time_point until) {
    for (;;) {
        const uint64_t seen = moverEndings(); // before the look, so that no ending is missed
        if (mover.isFinished()) {
            return true;
        }
        const auto now = std::chrono::steady_clock::now();
        if (now >= until) {
            return false;
        }
        waitForMoverEnding(seen, until - now);
    }
}

} // namespace

RunEnd::RunEnd(std::function<bool()> stopRequested)
    : mStopRequested(std::move(stopRequested)),
      mDeadline(mStopRequested, 1, kStopText, kStopLimit,
                [] { RecordingFile::discardEmptyRecordings(); }) {}

void RunEnd::optionsUnusable() {
    mWay = Way::OptionsUnusable;
}

void RunEnd::schemeUnknown() {
    mWay = Way::SchemeUnknown;
    std::cerr << "The requested configuration doesn't exist. Available configurations are: "
              << std::endl
              << mPieces.registry << std::endl;
}

void RunEnd::watch() {
    const Movers& movers = mPieces.movers;
    for (;;) {
        const uint64_t seen = moverEndings(); // before the look, so that no ending is missed
        if (mStopRequested()) {
            mWay = Way::Stopped;
            return;
        }
        bool allFinished = true;
        for (const auto& mover : movers) {
            if (mover->failed()) {
                pellumDoLog(Severity::Error,
                            "Data mover %s failed, aborting all others and breaking loop", {},
                            mover->name().c_str());
                mWay = Way::Failed;
                return;
            }
            allFinished = allFinished && mover->isFinished();
        }
        if (allFinished) {
            pellumDoLog(Severity::Info, "All data movers finished their job, breaking loop", {});
            mWay = Way::Finished;
            return;
        }
        std::cout << "Transfer: ";
        movers.front()->printProgress(std::cout);
        std::cout << '\r' << std::flush;
        // Sleeps until the next progress line, but wakes when a mover ends or fails, and within
        // a glance for a stop signal: a run ends when its work ends.
        constexpr std::chrono::milliseconds kGlance{10};
        const auto next = std::chrono::steady_clock::now() + kProgressPeriod;
        for (auto now = std::chrono::steady_clock::now();
             now < next && moverEndings() == seen && !mStopRequested();
             now = std::chrono::steady_clock::now()) {
            waitForMoverEnding(seen,
                               std::min<std::chrono::steady_clock::duration>(kGlance, next - now));
        }
    }
}

void RunEnd::exceptionThrown(const std::exception* error) {
    mWay = Way::Exception;
    mExceptionCode = error != nullptr ? 42 : 43;
    mExceptionText = error != nullptr ? error->what() : std::string();
}

// The file's writer, last in the chain, stops (and closes the file) first: whatever the movers
// before it do, the file is then complete with what reached it.
void RunEnd::abortMovers(const Movers& movers) {
    for (auto mover = movers.rbegin(); mover != movers.rend(); ++mover) {
        if (!(*mover)->failed()) {
            (*mover)->abort();
        }
    }
}

std::string RunEnd::collectErrors(const Movers& movers) {
    std::string errors;
    for (const auto& mover : movers) {
        if (mover->failed()) {
            errors += mover->errorText();
            errors += '\n';
        }
    }
    return errors;
}

// The first word counts: a file told nothing before its release was stopped.
void RunEnd::tellFile(RunOutcome outcome, const std::string& reason) const {
    for (const auto& element : mPieces.chain) {
        if (element && element->isSink()) {
            if (auto file =
                    std::dynamic_pointer_cast<AbstractOutcomeRecorder>(element->getSink())) {
                file->runEnding(outcome, reason);
            }
        }
    }
}

// The recorder's mover stops reading, but hands on what it has read; then each mover behind a
// decoder moves what the decoder holds and ends when it is dry, so that the file gets every
// whole word read from the device. A recorder's mover stuck in the kernel is not waited for
// long: the others drain without it, and the deadline ends the process.
bool RunEnd::stopDraining() {
    const Movers& movers = mPieces.movers;
    auto until = std::chrono::steady_clock::now() + kSourceStopWait;
    for (size_t i = 0; i < movers.size(); ++i) {
        movers[i]->requestStop(i > 0);
        if (!waitForFinish(*movers[i], until)) {
            movers[i]->requestStop(false);
        }
        if (i == 0) {
            // However long the recorder's mover took, the others get their own time to drain.
            until = std::chrono::steady_clock::now() + kDrainLimit;
        }
    }
    const bool all = std::all_of(movers.begin(), movers.end(),
                                 [](const auto& mover) { return mover->movedAll(); });
    // An abort marks even a finished mover failed; movers that moved everything are left to
    // their release.
    if (!all) {
        abortMovers(movers);
    }
    return all;
}

void RunEnd::printTransferred() const {
    std::cout << "\rTransfered: ";
    mPieces.movers.front()->printProgress(std::cout);
    std::cout << std::string(31, ' ') << std::flush;
}

void RunEnd::release() {
    tellFile(RunOutcome::Stopped, std::string());
    // Movers last to first, so that the file's writer closes the file first.
    while (!mPieces.movers.empty()) {
        mPieces.movers.pop_back();
    }
    mPieces.chain.clear();
    mPieces.scheme.reset();
    mPieces.registry.clear();
}

int RunEnd::finish() {
    if (mWay == Way::Failed) {
        mDeadline.arm(2);
        std::string errors = collectErrors(mPieces.movers);
        errors.pop_back(); // each text ends in a newline
        tellFile(RunOutcome::Failed, errors);
        abortMovers(mPieces.movers);
    }
    // A stop signal that came while a failure ended the run is still the run's end.
    if (mWay == Way::Failed && mStopRequested()) {
        mWay = Way::Stopped;
    }

    int exitCode = 0;
    switch (mWay) {
    case Way::OptionsUnusable:
        exitCode = 1;
        break;
    case Way::SchemeUnknown:
        exitCode = 2;
        break;
    case Way::Stopped:
        mDeadline.arm(1, kStopText);
        tellFile(RunOutcome::Stopped, std::string());
        if (stopDraining()) {
            // Nothing was left to stop: the file is complete, and the run says so.
            mWay = Way::Finished;
            mDeadline.arm(0);
            return finish();
        }
        pellumDoLog(Severity::Error, "GOT SIGTERM", {});
        std::cerr << kStopText << std::endl;
        exitCode = 1;
        break;
    case Way::Finished:
    case Way::Failed: {
        pellumDoLog(Severity::Debug, "went out of data mover monitoring loop", {});
        printTransferred();
        const std::string errors = collectErrors(mPieces.movers);
        if (errors.empty()) {
            std::cout << "Transfer successful" << std::endl;
        } else {
            std::cerr << "Transfer to file failed, error = " << errors << std::endl;
            exitCode = 2;
        }
        break;
    }
    case Way::Exception: {
        exitCode = mExceptionCode;
        const std::string farewell =
            exitCode == 42 ? "EXCPETION THROWN" + mExceptionText : "UNKNOWN EXCEPTION THROWN";
        tellFile(RunOutcome::Failed, exitCode == 42 ? mExceptionText : "unknown exception");
        mDeadline.arm(exitCode, farewell);
        release();
        if (exitCode == 42) {
            pellumDoLog(Severity::Fatal, "EXCPETION THROWN: %s", {}, mExceptionText.c_str());
        } else {
            pellumDoLog(Severity::Fatal, "UNKNOWN EXCEPTION THROWN", {});
        }
        std::cerr << farewell << std::endl;
        break;
    }
    }
    release();
    if (SinkHDF5::hasAbandonedFiles()) {
        leaveNow(exitCode);
    }
    return exitCode;
}

// Only for a file that failed to close: HDF5's exit handlers would crash on it.
void RunEnd::leaveNow(int exitCode) const {
    std::fflush(stdout);
    std::fflush(stderr);
    std::_Exit(exitCode);
}

} // namespace quarvel
