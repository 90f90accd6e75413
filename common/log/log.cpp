#include "common/log/log.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <strings.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

static constexpr size_t KLineRoom = 7999;
static constexpr char KDefaultFolder[] = "/var/log";

struct LevelRow {
    const char* name;
    int priority;
};
static constexpr LevelRow KLevels[] = {
    {"TRACE",  LOG_DEBUG  },
    {"DEBUG",  LOG_INFO   },
    {"INFO",   LOG_NOTICE },
    {"WARN",   LOG_WARNING},
    {"ERROR",  LOG_ERR    },
    {"SYSLOG", LOG_NOTICE },
};

constinit LogSettings iLogSettings;
constinit LogCategory* categories = nullptr;

// Recursive, because a reload logs while it holds the log.
static pthread_mutex_t iLock = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
static std::atomic<bool> iHangupSeen = false;
static_assert(std::atomic<bool>::is_always_lock_free, "set by a signal handler");
static void (*iReload)() = nullptr;
static std::atomic<void (*)()> iWake = nullptr;
static bool iReloading = false;

namespace {

struct KeepErrno {
    const int value = errno;
    ~KeepErrno() { errno = value; }
};

// An output whose reader is gone is a failure like any other, and silent: for its scope no SIGPIPE reaches the process.
struct WithoutBrokenPipe {
    WithoutBrokenPipe() {
        sigemptyset(&signal_);
        sigaddset(&signal_, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &signal_, &before_);
    }
    ~WithoutBrokenPipe() {
        static constexpr timespec KNow = {};
        if (sigismember(&before_, SIGPIPE) == 0) sigtimedwait(&signal_, nullptr, &KNow);
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    WithoutBrokenPipe(const WithoutBrokenPipe&) = delete;
    WithoutBrokenPipe& operator=(const WithoutBrokenPipe&) = delete;

  private:
    sigset_t signal_;
    sigset_t before_;
};

// The line under construction: at most KLineRoom bytes of text, then the newline in the place of the zero byte.
struct Line {
    char text[KLineRoom + 1];
    size_t length;
    size_t levelName;  // where the level name begins
};

}  // namespace

LogLock::LogLock() { pthread_mutex_lock(&iLock); }

LogLock::~LogLock() { pthread_mutex_unlock(&iLock); }

int logLevelFromText(const char* text) {
    int level = LEVEL_TRACE;
    while (level < LEVEL_SYSLOG && strcasecmp(text, KLevels[level].name) != 0) {
        ++level;
    }
    return level;
}

static void noteHangup(int) {
    iHangupSeen.store(true);
    if (void (*const wake)() = iWake) wake();
}

void wakeOnHangup(void (*wake)()) { iWake = wake; }

void reloadLogOnHangup(void (*reload)()) {
    iReload = reload;
    signal(SIGHUP, noteHangup);
}

// A hang-up that comes during a reload is left to the next call, so the reload's own lines never start another.
static void reloadIfAsked() {
    if (iReloading || !iHangupSeen.exchange(false)) return;
    iReloading = true;
    iReload();
    iReloading = false;
}

void reloadLogIfAsked() {
    const KeepErrno keep;
    const LogLock lock;
    reloadIfAsked();
}

static const LogCategory* findCategory(const char* name) {
    for (LogCategory** link = &categories; *link; link = &(*link)->next) {
        LogCategory* const found = *link;
        if (strcmp(found->name, name) != 0) continue;
        *link = found->next;
        found->next = categories;
        categories = found;
        return found;
    }
    return nullptr;
}

static bool passesFilter(const char* category, int level) {
    if (level < LEVEL_TRACE || level > LEVEL_SYSLOG) return false;
    if (level == LEVEL_SYSLOG) return true;
    if (!iLogSettings.enabled) return false;
    const LogCategory* const own = findCategory(category);
    return level >= (own ? own->level : iLogSettings.level);
}

static char* end(Line& line) { return line.text + line.length; }

// What may still be printed at the end, the zero byte included.
static size_t room(const Line& line) { return sizeof line.text - line.length; }

// Takes in what a printf at the end has printed, from its result; false when it failed.
static bool extend(Line& line, int printed) {
    if (printed < 0) return false;
    line.length += std::min(static_cast<size_t>(printed), room(line) - 1);
    return true;
}

// The text of a second, made once for all its lines. Needs the log's lock.
static const char* dateAndTime(time_t second) {
    static time_t made = 0;
    static char text[40] = "";
    if (*text && made == second) return text;
    tm local = {};
    tzset();  // localtime_r looks at the time zone only once
    localtime_r(&second, &local);
    if (strftime(text, sizeof text, "%F %T", &local) == 0) *text = '\0';
    made = second;
    return text;
}

// What a message quotes must not pass for another line of the log, or steer a terminal that shows it.
static void clean(char* text, size_t length) {
    for (size_t i = 0; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte == '\n' || byte == '\r' || byte == '\t') {
            text[i] = ' ';
        } else if (byte < 0x20 || byte == 0x7F) {
            text[i] = '?';
        } else if (byte == 0xC2 && (text[i + 1] & 0xE0) == 0x80) {  // U+0080 to U+009F; a zero byte ends the text
            text[i] = text[i + 1] = '?';
        }
    }
}

// The format's first `length` bytes, which the compiler then takes for the format that it has checked.
__attribute__((format_arg(1))) static const char* beginningOf(const char* format, size_t length, char* room) {
    memcpy(room, format, length);
    room[length] = '\0';
    return room;
}

// Puts a format's own line breaks back: each stands where the message ends when its format ends there. One behind the
// format's first 255 bytes stays a blank.
__attribute__((format(printf, 3, 0))) static void restoreBreaks(char* message, size_t length, const char* format,
                                                                va_list arguments) {
    char beginning[256];
    for (const char* at = strchr(format, '\n'); at; at = strchr(at + 1, '\n')) {
        const auto formatLength = static_cast<size_t>(at - format);
        if (formatLength >= sizeof beginning) return;
        va_list again;
        va_copy(again, arguments);
        const int position = vsnprintf(nullptr, 0, beginningOf(format, formatLength, beginning), again);
        va_end(again);
        if (position < 0 || static_cast<size_t>(position) >= length) return;
        message[position] = '\n';
    }
}

static void beginLine(Line& line, int level, const char* file, ssize_t lineNumber) {
    timeval now = {};
    gettimeofday(&now, nullptr);
    line.length = 0;
    extend(line, snprintf(end(line), room(line), "%s.%03ld ", dateAndTime(now.tv_sec),
                          static_cast<long>(now.tv_usec / 1000)));
    line.levelName = line.length;
    extend(line, snprintf(end(line), room(line), "%5.10s ", KLevels[level].name));
    if (!iLogSettings.lineAndFile) return;
    extend(line, snprintf(end(line), room(line), "file: %s, line: %zd - ", file, lineNumber));
}

// One write call a line, so that the lines of several writers never mix; a buffered stream would split the long ones.
// Made again only when a signal cut it before its first byte.
static void writeOnce(int file, const Line& line) {
    while (write(file, line.text, line.length) < 0 && errno == EINTR) {
    }
}

// Whether a write of this length to a pipe, terminal or socket would not wait for its reader.
static bool takesNow(int file, size_t length) {
    pollfd writable = {file, POLLOUT, 0};
    if (poll(&writable, 1, 0) <= 0) return false;
    // One free page is promised; a longer line needs more, and the pages in use may be no more than half full. A pipe
    // may be as small as one line.
    const int capacity = length > PIPE_BUF ? fcntl(file, F_GETPIPE_SZ) : -1;
    int unread = 0;
    if (capacity < 0 || ioctl(file, FIONREAD, &unread) != 0) return true;
    return unread == 0 ? static_cast<int>(length) <= capacity : 2 * unread + 3 * PIPE_BUF <= capacity;
}

// How much of a pipe waits for its reader; -1 for what is no pipe.
static int unreadIn(int file) {
    int unread = 0;
    return fcntl(file, F_GETPIPE_SZ) >= 0 && ioctl(file, FIONREAD, &unread) == 0 ? unread : -1;
}

// Waits two seconds for a reader that has stopped reading, the first time; its lines are dropped then, unless there is
// room for them, until it reads again. Without an end to the wait, the log's lock would hold both threads, and the end
// of the process.
static bool waitUntilTaken(int file, size_t length) {
    static bool readerStopped = false;
    static int unreadThen = 0;
    if (readerStopped && unreadIn(file) < unreadThen) readerStopped = false;
    for (int tries = readerStopped ? 0 : 200; !takesNow(file, length); --tries) {
        if (tries <= 0) {
            readerStopped = true;
            unreadThen = unreadIn(file);
            return false;
        }
        poll(nullptr, 0, 10);
    }
    if (readerStopped && unreadThen < 0) readerStopped = false;
    return true;
}

static void writeToStandardOutput(const Line& line) {
    fflush(stdout);  // what the program printed before stands before
    if (waitUntilTaken(STDOUT_FILENO, line.length)) writeOnce(STDOUT_FILENO, line);
}

static void appendToFile(const char* path, const Line& line) {
    // Without waiting: the name may be a pipe's that nobody reads.
    const int file = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK, 0644);
    if (file < 0) return;
    if (line.length <= PIPE_BUF || takesNow(file, line.length)) writeOnce(file, line);
    close(file);
}

static const char* rotatedFolder() {
    if (!iLogSettings.rollingFilePath) iLogSettings.rollingFilePath = strdup(KDefaultFolder);
    return iLogSettings.rollingFilePath ? iLogSettings.rollingFilePath : KDefaultFolder;
}

static bool formatRotatedPath(char (&path)[PATH_MAX], const char* folder, int index) {
    const int length = snprintf(path, sizeof path, "%s/kelm.%d.log", folder, index);
    return length >= 0 && static_cast<size_t>(length) < sizeof path;
}

static void rotate(const char* folder) {
    // The log is held meanwhile, so the count is bounded; a count that allows no file at all means the current one.
    const int last = std::clamp(iLogSettings.maxFileCount, 1, 1000) - 1;
    char to[PATH_MAX];
    char from[PATH_MAX];
    if (!formatRotatedPath(to, folder, last)) return;
    unlink(to);
    for (int index = last; index >= 1; --index) {
        if (!formatRotatedPath(to, folder, index) || !formatRotatedPath(from, folder, index - 1)) return;
        rename(from, to);
    }
}

static void writeToRotatedFiles(const Line& line) {
    const char* const folder = rotatedFolder();
    struct stat status = {};
    if (stat(folder, &status) != 0 && mkdir(folder, 0744) != 0) return;
    char path[PATH_MAX];
    if (!formatRotatedPath(path, folder, 0)) return;
    if (stat(path, &status) == 0) {
        if (status.st_size > iLogSettings.maxFileSize) rotate(folder);
    } else if (errno != ENOENT) {
        return;
    }
    appendToFile(path, line);
}

static void writeToSystemLog(int level, const Line& line) {
    const int length = static_cast<int>(line.length - line.levelName);
    syslog(KLevels[level].priority, "%.*s", length, line.text + line.levelName);
}

static void writeToOutputs(int level, Line& line) {
    line.text[line.length++] = '\n';
    if (iLogSettings.standardOutput || iLogSettings.file || level == LEVEL_SYSLOG) {
        const WithoutBrokenPipe guard;
        if (iLogSettings.standardOutput) writeToStandardOutput(line);
        if (iLogSettings.file) appendToFile(iLogSettings.filename, line);
        if (level == LEVEL_SYSLOG) writeToRotatedFiles(line);
    }
    if (iLogSettings.systemLog) writeToSystemLog(level, line);
}

// A printf format here, not in the header: LOG has checked it, and hands it on from where it is no literal any more.
__attribute__((format(printf, 5, 6))) void _log(const char* category, int level, const char* file, ssize_t line,
                                                const char* format, ...) {
    const KeepErrno keep;
    const LogLock lock;
    reloadIfAsked();
    if (!passesFilter(category, level)) return;

    Line built;
    beginLine(built, level, file, line);
    char* const message = end(built);
    va_list arguments;
    va_start(arguments, format);
    const bool complete = extend(built, vsnprintf(message, room(built), format, arguments));
    va_end(arguments);
    if (!complete) {
        fprintf(stderr, "vsnprintf failed due to error %d\n", errno);
        return;
    }
    const auto length = static_cast<size_t>(end(built) - message);
    clean(message, length);
    if (strchr(format, '\n')) {
        va_start(arguments, format);
        restoreBreaks(message, length, format, arguments);
        va_end(arguments);
    }
    writeToOutputs(level, built);
}
