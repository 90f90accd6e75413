// The one logging call of the daemon. A file that logs defines two constants before it uses the macros:
//     static constexpr char KLogCategory[] = "orvoservicemanager";
//     static constexpr char KLogModule[] = "src/main";
#pragma once

#include <sys/types.h>

enum LogLevel { LEVEL_TRACE = 0, LEVEL_DEBUG, LEVEL_INFO, LEVEL_WARN, LEVEL_ERROR, LEVEL_SYSLOG };

/// Logs one message: filters it, builds the line and writes it to every output that is switched on. `level` is 0 to 5;
/// 5 passes every filter. A message longer than the line's room is cut. Failing outputs are silent. errno stays as it
/// was. Any thread; not from a signal handler. Callers use LOG, which checks the format.
void _log(const char* category, int level, const char* file, ssize_t line, const char* format, ...);

inline const char* loggable(const char* text) { return text ? text : ""; }
inline const char* loggable(char* text) { return text ? text : ""; }
template <class Value>
Value loggable(Value value) {
    return value;
}

template <class... Arguments>
void logLine(const char* category, int level, const char* file, ssize_t line, const char* format,
             Arguments... arguments) {
    _log(category, level, file, line, format, loggable(arguments)...);
}

inline void checkLogFormat(const char* format, ...) __attribute__((format(printf, 1, 2)));
inline void checkLogFormat(const char*, ...) {}

/// Logs at a level that is only known at run time (an int of 0 to 5); the format is checked like printf's, and a null
/// text given to %s is rendered as an empty one. Any thread.
#define LOG_AT(level, ...)                                               \
    do {                                                                 \
        if (false) checkLogFormat(__VA_ARGS__);                          \
        logLine(KLogCategory, level, KLogModule, __LINE__, __VA_ARGS__); \
    } while (false)

/// LOG(INFO, "format", ...): logs at the named level, otherwise as LOG_AT.
#define LOG(level, ...) LOG_AT(LEVEL_##level, __VA_ARGS__)
