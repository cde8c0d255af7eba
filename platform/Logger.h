#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace morvik::pellum::log {

// Lower values are more severe; 3 is "notice", a threshold only: no message has that severity.
enum class Severity : int { Fatal = 0, Error = 1, Warning = 2, Info = 4, Debug = 5 };

// Messages more verbose than the threshold are dropped before any formatting.
void setThreshold(int threshold);
int threshold();

extern std::atomic<int> gThreshold;

inline bool isEnabled(Severity severity) {
    return static_cast<int>(severity) <= gThreshold.load(std::memory_order_relaxed);
}

// A message a logger already showed at the same severity less than this long ago is only
// counted; the next one shown after that says how many were held back. Zero shows all.
void setRepeatWindow(std::chrono::milliseconds window);
std::chrono::milliseconds repeatWindow();

// Parses "fatal", "error", "warning", "notice", "info", "debug" (0 to 5 in this order) or "0".."5";
// false for anything else.
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

// Remembers the messages one source showed last, so that repeats can be held back. Keyed on the
// formatted text, not the format: one format often serves different facts (which setting was
// written, which mover started), and those must all be seen; a failing device repeats the very
// same text. Only a few messages are kept, the least recently seen one making room, so memory
// stays fixed however many different messages come by.
class RepeatFilter {
public:
    RepeatFilter() = default;
    // A copy, made or assigned, is a new source of messages and starts with nothing held back.
    RepeatFilter(const RepeatFilter&) {}
    RepeatFilter& operator=(const RepeatFilter& other);

    // False if the message is to be dropped. Otherwise `held` is how many were dropped since the
    // same message was last shown and `span` how long ago that was.
    bool admit(Severity severity, std::string_view text, std::uint64_t& held,
               std::chrono::steady_clock::duration& span);

private:
    struct Entry {
        std::string text;
        Severity severity = Severity::Fatal;
        bool used = false;
        std::uint64_t held = 0;
        std::uint64_t lastSeen = 0; // mTick when last met, to find the stalest entry
        std::chrono::steady_clock::time_point shown;
    };

    std::mutex mMutex;
    std::array<Entry, 8> mEntries;
    std::uint64_t mTick = 0;
};

// A literal format is checked against its arguments by the compiler.
#if defined(__GNUC__)
#define PELLUM_PRINTF(formatIndex, firstArgument)                                                  \
    __attribute__((format(printf, formatIndex, firstArgument)))
#else
#define PELLUM_PRINTF(formatIndex, firstArgument)
#endif

class Logger {
public:
    Logger(std::string name, std::string second, std::shared_ptr<LoggerImplInterface> impl);

    void pellumDoLog(Severity severity, const std::string_view& format,
                     const std::function<std::string()>& context, ...) const;
    // The same, chosen for a literal format, which the compiler then checks.
    void pellumDoLog(Severity severity, const char* format,
                     const std::function<std::string()>& context, ...) const PELLUM_PRINTF(3, 5);

private:
    void logArguments(Severity severity, std::string_view format,
                      const std::function<std::string()>& context, va_list args) const;

    std::string mName;
    std::string mSecond;
    std::shared_ptr<LoggerImplInterface> mImpl;
    mutable RepeatFilter mRepeats;
};

void pellumDoLog(Severity severity, const std::string_view& format,
                 const std::function<std::string()>& context, ...);
void pellumDoLog(Severity severity, const char* format, const std::function<std::string()>& context,
                 ...) PELLUM_PRINTF(2, 4);

} // namespace morvik::pellum::log

namespace quarvel {

// The logger of the program's classes: their name, no second name, lines on standard error.
morvik::pellum::log::Logger makeLogger(std::string name);

} // namespace quarvel
