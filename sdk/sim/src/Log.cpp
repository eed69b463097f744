#include <halden/sensor/Log.h>

#include <cstdio>
#include <string>
#include <type_traits>

namespace halden::sensor {

// Its destruction at exit does nothing: threads may still log while the process exits, as
// a fatal signal's exit runs beside them.
static_assert(std::is_trivially_destructible_v<Log>);

namespace {

constexpr char kLetters[] = {'-', 'E', 'W', 'I', 'D'};

}  // namespace

void Log::setLogLevel(LogLevel level) {
    const int clamped = level < LOG_NONE ? LOG_NONE : level > LOG_DEBUG ? LOG_DEBUG : level;
    instance().mLevel.store(clamped, std::memory_order_relaxed);
}

Log::LogLevel Log::getLogLevel() { return static_cast<LogLevel>(instance().mLevel.load(std::memory_order_relaxed)); }

#define LUMORA_LOG_AT(LEVEL)                                                 \
    if (instance().mLevel.load(std::memory_order_relaxed) < (LEVEL)) return; \
    va_list args;                                                            \
    va_start(args, format);                                                  \
    instance().print((LEVEL), tag, format, args);                            \
    va_end(args)

void Log::e(const LogTag& tag, const char* format, ...) { LUMORA_LOG_AT(LOG_ERROR); }
void Log::w(const LogTag& tag, const char* format, ...) { LUMORA_LOG_AT(LOG_WARNING); }
void Log::i(const LogTag& tag, const char* format, ...) { LUMORA_LOG_AT(LOG_INFO); }
void Log::d(const LogTag& tag, const char* format, ...) { LUMORA_LOG_AT(LOG_DEBUG); }

#undef LUMORA_LOG_AT

void Log::print(LogLevel level, const LogTag& tag, const char* format, va_list args) {
    char text[1024];
    std::vsnprintf(text, sizeof text, format, args);
    char prefix[160];
    std::snprintf(prefix, sizeof prefix, "\r%c/%s:%d: ", kLetters[level], tag.file != nullptr ? tag.file : "?",
                  tag.line);
    // Each line of the text starts at the left margin, also in raw mode.
    std::string entry = prefix;
    for (const char* c = text; *c != '\0'; ++c) {
        entry += *c;
        if (*c == '\n' && c[1] != '\0') entry += '\r';
    }
    if (entry.back() != '\n') entry += '\n';
    std::lock_guard<std::mutex> lock(mMutex);
    std::fwrite(entry.data(), 1, entry.size(), stdout);
    std::fflush(stdout);
}

}  // namespace halden::sensor
