#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace morvik::pellum::log {

// Lower values are more severe; 3 is reserved and never emitted by the program.
enum class Severity : int { Fatal = 0, Error = 1, Warning = 2, Info = 4, Debug = 5 };

const char* severityName(Severity severity);

// Messages more verbose than the threshold are dropped before any formatting.
void setThreshold(int threshold);
int threshold();

extern std::atomic<int> gThreshold;

inline bool isEnabled(Severity severity) {
    return static_cast<int>(severity) <= gThreshold.load(std::memory_order_relaxed);
}

// Parses "fatal", "error", "warning", "info", "debug" or "0".."5"; false for anything else.
bool parseThreshold(std::string_view text, int& threshold);

class LoggerImplInterface {
public:
    virtual ~LoggerImplInterface() = default;
    // One complete message; the back end adds time, severity and names.
    virtual void emit(Severity severity, const std::string& name, const std::string& second,
                      std::string_view message) = 0;
};

// Writes one line per message to standard error; lines of concurrent callers never mix.
class LoggerImpl : public LoggerImplInterface {
public:
    void emit(Severity severity, const std::string& name, const std::string& second,
              std::string_view message) override;
};

class Logger {
public:
    Logger(std::string name, std::string second, std::shared_ptr<LoggerImplInterface> impl);

    void pellumDoLog(Severity severity, const std::string_view& format,
                     const std::function<std::string()>& context, ...) const;

    const std::string& loggerName() const { return mName; }

private:
    std::string mName;
    std::string mSecond;
    std::shared_ptr<LoggerImplInterface> mImpl;
};

void pellumDoLog(Severity severity, const std::string_view& format,
                 const std::function<std::string()>& context, ...);

} // namespace morvik::pellum::log
