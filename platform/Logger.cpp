#include "platform/Logger.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <vector>

#include <unistd.h>

namespace morvik::pellum::log {

std::atomic<int> gThreshold{static_cast<int>(Severity::Error)};

void setThreshold(int value) {
    gThreshold.store(value, std::memory_order_relaxed);
}

int threshold() {
    return gThreshold.load(std::memory_order_relaxed);
}

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

// The formatted text, then what the context function adds, if anything.
std::string composeMessage(const std::string_view& format,
                           const std::function<std::string()>& context, va_list args) {
    std::string message = formatMessage(format, args);
    if (context) {
        const std::string extra = context();
        if (!extra.empty()) {
            message += " | ";
            message += extra;
        }
    }
    return message;
}

void emitToDefault(Severity severity, const std::string& name, const std::string& second,
                   std::string_view message) {
    static LoggerImpl impl;
    impl.emit(severity, name, second, message);
}

} // namespace

void LoggerImpl::emit(Severity severity, const std::string& name, const std::string& second,
                      std::string_view message) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts{};
    const time_t seconds = now.tv_sec;
    gmtime_r(&seconds, &parts);
    char stamp[64];
    std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ", parts.tm_year + 1900,
                  parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                  static_cast<long>(now.tv_nsec / 1000));

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

void Logger::pellumDoLog(Severity severity, const std::string_view& format,
                         const std::function<std::string()>& context, ...) const {
    if (!isEnabled(severity)) {
        return;
    }
    va_list args;
    va_start(args, context);
    const std::string message = composeMessage(format, context, args);
    va_end(args);
    if (mImpl) {
        mImpl->emit(severity, mName, mSecond, message);
    } else {
        emitToDefault(severity, mName, mSecond, message);
    }
}

void pellumDoLog(Severity severity, const std::string_view& format,
                 const std::function<std::string()>& context, ...) {
    if (!isEnabled(severity)) {
        return;
    }
    va_list args;
    va_start(args, context);
    const std::string message = composeMessage(format, context, args);
    va_end(args);
    emitToDefault(severity, "quarvel", std::string(), message);
}

} // namespace morvik::pellum::log
