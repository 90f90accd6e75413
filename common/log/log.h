// The one logging call of the daemon. A file that logs defines two constants before it uses the macros:
//     static constexpr char KLogCategory[] = "orvoservicemanager";
//     static constexpr char KLogModule[] = "src/main";
#pragma once

#include <sys/types.h>

#include <cstdint>

enum LogLevel { LEVEL_TRACE = 0, LEVEL_DEBUG, LEVEL_INFO, LEVEL_WARN, LEVEL_ERROR, LEVEL_SYSLOG };

/// Logs one message: filters it, builds the line and writes it to every output that is switched on. `level` is 0 to 5;
/// 5 passes every filter. A message longer than the line's room is cut. Line breaks and tabs in it become blanks, other
/// control characters "?"; only the format's own line breaks stay. Failing outputs are silent; the program ignores
/// SIGPIPE, so that a pipe without a reader is one of them. Waits while a slow reader of a full pipe or terminal reads
/// on; when the reader has stopped, waits once for two seconds. errno stays as it was. Any thread; not from a signal
/// handler. Callers use LOG, which checks the format.
void _log(const char* category, int level, const char* file, ssize_t line, const char* format, ...);

// The macros' own parts: a null text becomes an empty one, and the compiler sees the format.
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

/// Does what a SIGHUP asked for, if one came; the next log call would do it, too. Any thread.
void reloadLogIfAsked();

/// From now on a SIGHUP calls `wake` as well, from the signal handler, so that somebody calls reloadLogIfAsked soon.
/// Any thread.
void wakeOnHangup(void (*wake)());

// From here on: for the module that changes the settings.

/// A category with a threshold of its own, which takes the place of the global one.
struct LogCategory {
    char* name;  // owned
    int level;
    LogCategory* next;
};

/// What is logged and where to. The initial values are those of a process that was not configured yet.
struct LogSettings {
    bool enabled = true;
    int level = LEVEL_ERROR;
    char filename[256] = "";
    bool file = false;
    bool network = false;  // kept, without an effect
    bool standardOutput = false;
    bool protocol = false;  // kept, without an effect
    bool lineAndFile = false;
    int32_t maxFileCount = 5;
    int32_t maxFileSize = 204800;     // bytes
    char* rollingFilePath = nullptr;  // owned
    bool systemLog = false;
    char* systemLogIdentity = nullptr;  // owned; the system log keeps the pointer while it is open
};

/// Holds the log for its scope: no line is written and no setting changes meanwhile. May nest in one thread. Any
/// thread.
struct LogLock {
    LogLock();
    ~LogLock();
    LogLock(const LogLock&) = delete;
    LogLock& operator=(const LogLock&) = delete;
};

/// Both are read and written by holders of a LogLock only.
extern LogSettings iLogSettings;
extern LogCategory* categories;

/// The level that a text names, in any case of letters; 5 for every text that is not "TRACE" to "ERROR". Any thread.
int logLevelFromText(const char* text);

/// From now on a SIGHUP lets the next log call (or reloadLogIfAsked) run `reload` before its own line, even if that
/// line is dropped. `reload` runs in the thread of that call and holds the lock; it may log and change the settings.
/// Needs a LogLock.
void reloadLogOnHangup(void (*reload)());
