#include "platform/Logger.h"

#include "platform/UtcTime.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <vector>

#include <unistd.h>

namespace morvik::pellum::log {

std::atomic<int> gThreshold{static_cast<int>(Severity::Error)};

namespace {

std::atomic<std::int64_t> gRepeatWindowMs{10000};

const char* severityName(Severity severity) {
    switch (severity) {
    case Severity::Fatal:
        return "FATAL";
    case Severity::Error:
        return "ERROR";
    case Severity::Warning:
        return "WARNING";
    case Severity::Info:
        return "INFO";
    case Severity::Debug:
        return "DEBUG";
    }
    return "NOTICE";
}

} // namespace

void setThreshold(int value) {
    gThreshold.store(value, std::memory_order_relaxed);
}

int threshold() {
    return gThreshold.load(std::memory_order_relaxed);
}

void setRepeatWindow(std::chrono::milliseconds window) {
    gRepeatWindowMs.store(window.count(), std::memory_order_relaxed);
}

std::chrono::milliseconds repeatWindow() {
    return std::chrono::milliseconds(gRepeatWindowMs.load(std::memory_order_relaxed));
}

RepeatFilter& RepeatFilter::operator=(const RepeatFilter& other) {
    if (this != &other) {
        std::lock_guard<std::mutex> lock(mMutex);
        for (Entry& entry : mEntries) {
            entry.used = false;
        }
    }
    return *this;
}

bool RepeatFilter::admit(Severity severity, std::string_view text, std::uint64_t& held,
                         std::chrono::steady_clock::duration& span) {
    const std::chrono::milliseconds window = repeatWindow();
    std::lock_guard<std::mutex> lock(mMutex);
    // Read under the lock so that the times an entry is shown never go backwards.
    const auto now = std::chrono::steady_clock::now();
    ++mTick;
    Entry* stalest = &mEntries[0];
    for (Entry& entry : mEntries) {
        if (entry.used && entry.severity == severity && entry.text == text) {
            entry.lastSeen = mTick;
            if (now - entry.shown < window) {
                ++entry.held;
                return false;
            }
            held = entry.held;
            span = now - entry.shown;
            entry.held = 0;
            entry.shown = now;
            return true;
        }
        if (!entry.used || (stalest->used && entry.lastSeen < stalest->lastSeen)) {
            stalest = &entry;
        }
    }
    // A count still held by the entry given up is lost; the alternative is unbounded memory.
    stalest->text.assign(text.data(), text.size());
    stalest->severity = severity;
    stalest->used = true;
    stalest->held = 0;
    stalest->lastSeen = mTick;
    stalest->shown = now;
    held = 0;
    span = {};
    return true;
}

bool parseThreshold(std::string_view text, int& value) {
    static const char* const names[] = {"fatal", "error", "warning", "notice", "info", "debug"};
    for (int i = 0; i < 6; ++i) {
        if (text == names[i] || (text.size() == 1 && text[0] == static_cast<char>('0' + i))) {
            value = i;
            return true;
        }
    }
    return false;
}

namespace {

std::mutex gOutputMutex;

// Formats a printf-style message; the format view need not be NUL-terminated.
std::string formatMessage(const std::string_view& format, va_list args) {
    char fmtStack[256];
    std::vector<char> fmtHeap;
    char* fmt = fmtStack;
    if (format.size() >= sizeof fmtStack) {
        fmtHeap.resize(format.size() + 1);
        fmt = fmtHeap.data();
    }
    format.copy(fmt, format.size());
    fmt[format.size()] = '\0';

    char out[512];
    va_list again;
    va_copy(again, args);
    const int n = std::vsnprintf(out, sizeof out, fmt, args);
    std::string message;
    if (n < 0) {
        message.assign(fmt);
    } else if (static_cast<size_t>(n) < sizeof out) {
        message.assign(out, static_cast<size_t>(n));
    } else {
        message.resize(static_cast<size_t>(n) + 1);
        std::vsnprintf(message.data(), message.size(), fmt, again);
        message.resize(static_cast<size_t>(n));
    }
    va_end(again);
    return message;
}

// What the context function adds, if anything; only asked for messages that are shown.
void appendContext(std::string& message, const std::function<std::string()>& context) {
    if (context) {
        const std::string extra = context();
        if (!extra.empty()) {
            message += " | ";
            message += extra;
        }
    }
}

// Tells the reader that this message was dropped before, and how often.
void appendHeldBack(std::string& message, std::uint64_t held,
                    std::chrono::steady_clock::duration span) {
    if (held == 0) {
        return;
    }
    const double seconds = std::chrono::duration<double>(span).count();
    char note[96];
    std::snprintf(note, sizeof note, " (%llu repeat%s suppressed in the last %.1f s)",
                  static_cast<unsigned long long>(held), held == 1 ? "" : "s", seconds);
    message += note;
}

// Never destroyed, so that a destructor of some other static object may still log.
RepeatFilter& freeFunctionRepeats() {
    static RepeatFilter* const repeats = new RepeatFilter;
    return *repeats;
}

void emitToDefault(Severity severity, const std::string& name, const std::string& second,
                   std::string_view message) {
    static LoggerImpl impl;
    impl.emit(severity, name, second, message);
}

// The message of one enabled call, unless repeats holds it back, goes to impl, or to the
// default back end when there is none.
void logWith(RepeatFilter& repeats, LoggerImplInterface* impl, const std::string& name,
             const std::string& second, Severity severity, const std::string_view& format,
             const std::function<std::string()>& context, va_list args) {
    std::string message = formatMessage(format, args);
    std::uint64_t held = 0;
    std::chrono::steady_clock::duration span{};
    if (!repeats.admit(severity, message, held, span)) {
        return;
    }
    appendContext(message, context);
    appendHeldBack(message, held, span);
    if (impl) {
        impl->emit(severity, name, second, message);
    } else {
        emitToDefault(severity, name, second, message);
    }
}

} // namespace

void LoggerImpl::emit(Severity severity, const std::string& name, const std::string& second,
                      std::string_view message) {
    const std::string stamp = quarvel::utcTimestamp(6);

    std::string line;
    line.reserve(message.size() + name.size() + second.size() + 64);
    line += stamp;
    line += ' ';
    line += severityName(severity);
    line += " [";
    line += name;
    if (!second.empty()) {
        line += '/';
        line += second;
    }
    line += "] ";
    line += message;
    line += '\n';

    // One write per line under a lock: concurrent lines never interleave.
    std::lock_guard<std::mutex> lock(gOutputMutex);
    const char* p = line.data();
    size_t left = line.size();
    while (left > 0) {
        const ssize_t written = ::write(STDERR_FILENO, p, left);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return; // nowhere left to report a broken standard error
        }
        p += written;
        left -= static_cast<size_t>(written);
    }
}

Logger::Logger(std::string name, std::string second, std::shared_ptr<LoggerImplInterface> impl)
    : mName(std::move(name)), mSecond(std::move(second)), mImpl(std::move(impl)) {}

// Each entry point only gathers its arguments; the threshold is checked before any formatting.
void Logger::pellumDoLog(Severity severity, const std::string_view& format,
                         const std::function<std::string()>& context, ...) const {
    va_list args;
    va_start(args, context);
    logArguments(severity, format, context, args);
    va_end(args);
}

void Logger::pellumDoLog(Severity severity, const char* format,
                         const std::function<std::string()>& context, ...) const {
    va_list args;
    va_start(args, context);
    logArguments(severity, format, context, args);
    va_end(args);
}

void Logger::logArguments(Severity severity, std::string_view format,
                          const std::function<std::string()>& context, va_list args) const {
    if (isEnabled(severity)) {
        logWith(mRepeats, mImpl.get(), mName, mSecond, severity, format, context, args);
    }
}

namespace {

void logFreeArguments(Severity severity, std::string_view format,
                      const std::function<std::string()>& context, va_list args) {
    if (isEnabled(severity)) {
        logWith(freeFunctionRepeats(), nullptr, "quarvel", std::string(), severity, format, context,
                args);
    }
}

} // namespace

void pellumDoLog(Severity severity, const std::string_view& format,
                 const std::function<std::string()>& context, ...) {
    va_list args;
    va_start(args, context);
    logFreeArguments(severity, format, context, args);
    va_end(args);
}

void pellumDoLog(Severity severity, const char* format, const std::function<std::string()>& context,
                 ...) {
    va_list args;
    va_start(args, context);
    logFreeArguments(severity, format, context, args);
    va_end(args);
}

} // namespace morvik::pellum::log

namespace quarvel {

morvik::pellum::log::Logger makeLogger(std::string name) {
    return morvik::pellum::log::Logger(std::move(name), std::string(),
                                       std::make_shared<morvik::pellum::log::LoggerImpl>());
}

} // namespace quarvel
