// The library's process-wide log; programs built on the library log through it too.
//
// An entry is printed to standard output as "E/FrameDumpSink:120: text" (the level's
// letter, the tag's file name and line, the formatted text). Every line of an entry
// begins with a carriage return, so entries read well while the terminal is in raw mode,
// and an entry is written in one piece, so entries of different threads never interleave.
#pragma once

#include <atomic>
#include <cstdarg>
#include <mutex>

#include "Singleton.h"

namespace halden::sensor {

// Where an entry comes from: a source file name (without path) and a line.
struct LogTag {
    const char* file;
    int line;
};

// Tags an entry with the given file name and the current line.
#define LUMORA_LOG_TAG(file) \
    ::halden::sensor::LogTag { (file), __LINE__ }

class Log : public Singleton<Log> {
public:
    // An entry is printed when its level is at or below the log level. LOG_NONE prints
    // nothing; LOG_ERROR (the default) only failures; LOG_WARNING also conditions that
    // were worked around; LOG_INFO also life-cycle events; LOG_DEBUG also accepted
    // requests and per-operation detail.
    enum LogLevel : int {
        LOG_NONE = 0,
        LOG_ERROR = 1,
        LOG_WARNING = 2,
        LOG_INFO = 3,
        LOG_DEBUG = 4,
    };

    // Levels below LOG_NONE are taken as LOG_NONE, above LOG_DEBUG as LOG_DEBUG.
    static void setLogLevel(LogLevel level);
    static LogLevel getLogLevel();

    // printf-style entries at each level.
    static void e(const LogTag& tag, const char* format, ...) __attribute__((format(printf, 2, 3)));
    static void w(const LogTag& tag, const char* format, ...) __attribute__((format(printf, 2, 3)));
    static void i(const LogTag& tag, const char* format, ...) __attribute__((format(printf, 2, 3)));
    static void d(const LogTag& tag, const char* format, ...) __attribute__((format(printf, 2, 3)));

private:
    friend class Singleton<Log>;
    Log() = default;
    void print(LogLevel level, const LogTag& tag, const char* format, va_list args);

    std::mutex mMutex;
    std::atomic<int> mLevel{LOG_ERROR};
};

}  // namespace halden::sensor
