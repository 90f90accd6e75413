#include "common/log/log.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <strings.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
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

static pthread_mutex_t iLock = PTHREAD_MUTEX_INITIALIZER;
static thread_local int iLockDepth = 0;  // a reload logs while it holds the log
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

LogLock::LogLock() {
    if (iLockDepth++ == 0) pthread_mutex_lock(&iLock);
}

LogLock::~LogLock() {
    if (--iLockDepth == 0) pthread_mutex_unlock(&iLock);
}

int logLevelFromText(const char* text) {
    int level = LEVEL_TRACE;
    while (level < LEVEL_SYSLOG && strcasecmp(text, KLevels[level].name) != 0) {
        ++level;
    }
    return level;
}

static void noteHangup(int) {
    const KeepErrno keep;
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

static constexpr int KPatience = 2000;  // ms
static constexpr int KLookEvery = 10;   // ms

namespace {

// What an output knows of the reader of its pipe, terminal or socket. One that takes nothing for KPatience has stopped:
// until it reads again, what finds no room is dropped at once. Without an end to the wait, the log's lock would hold
// both threads, and the end of the process.
struct Reader {
    bool stopped = false;
    int unread = 0;           // in a pipe, when a line last began to wait, or was dropped
    bool insideLine = false;  // a terminal or socket: it stopped in the middle of a line
};

}  // namespace

// Need the log's lock.
static Reader iStandardOutputReader;
static Reader iFileReader;
static Reader iRotatedFileReader;

static int unreadIn(int pipe) {
    int unread = 0;
    return ioctl(pipe, FIONREAD, &unread) == 0 ? unread : 0;
}

static bool hasSomeRoom(int file) {
    pollfd writable = {file, POLLOUT, 0};
    return poll(&writable, 1, 0) > 0;
}

// Whether one write of this length would not wait for the pipe's reader.
static bool hasRoom(int pipe, size_t length) {
    if (!hasSomeRoom(pipe)) return false;
    // One free page is promised; a longer line needs more, and the pages in use may be no more than half full. A pipe
    // may be as small as one line.
    if (length <= PIPE_BUF) return true;
    const int capacity = fcntl(pipe, F_GETPIPE_SZ);
    const int unread = unreadIn(pipe);
    return unread == 0 ? static_cast<int>(length) <= capacity : 2 * unread + 3 * PIPE_BUF <= capacity;
}

// Waits until the pipe takes the line with one write; false when its reader has stopped.
static bool waitForRoom(int pipe, Reader& reader, size_t length) {
    // Room is no sign of life: a short line still finds it where a long one does not.
    if (reader.stopped && unreadIn(pipe) < reader.unread) reader.stopped = false;
    for (int waited = reader.stopped ? KPatience : 0; !hasRoom(pipe, length); waited += KLookEvery) {
        const int unread = unreadIn(pipe);
        // A reader that took byte after byte would hold the log for hours: only a page counts.
        if (reader.unread - unread >= PIPE_BUF) waited = 0;
        reader.stopped = waited >= KPatience;
        if (reader.stopped || waited == 0) reader.unread = unread;
        if (reader.stopped) return false;
        poll(nullptr, 0, KLookEvery);
    }
    return true;
}

// Writes what a terminal or socket takes at once; 0, or -1 and EAGAIN, when that is nothing.
static ssize_t writeSome(int file, const char* text, size_t length) {
    if ((fcntl(file, F_GETFL) & O_NONBLOCK) != 0) return write(file, text, length);
    const ssize_t sent = send(file, text, length, MSG_DONTWAIT);
    if (sent >= 0 || errno != ENOTSOCK) return sent;
    // A terminal that could not be opened a second time: room for one byte is all that poll promises.
    return hasSomeRoom(file) ? write(file, text, 1) : 0;
}

// Goes on for as long as the reader makes progress; gives how much it has taken.
static size_t writeWhileRead(int file, Reader& reader, const char* text, size_t length) {
    size_t written = 0;
    int waited = reader.stopped ? KPatience : 0;
    while (written < length) {
        const ssize_t now = writeSome(file, text + written, length - written);
        if (now > 0) {
            written += static_cast<size_t>(now);
            reader.stopped = false;
            waited = 0;
        } else if (now < 0 && errno != EAGAIN && errno != EINTR) {
            break;
        } else if (waited >= KPatience) {
            reader.stopped = true;
            break;
        } else {
            // Not poll for room: a serial device reports that only once most of its buffer is sent.
            poll(nullptr, 0, KLookEvery);
            waited += KLookEvery;
        }
    }
    return written;
}

static void writeInPieces(int file, Reader& reader, const Line& line) {
    // The rest of a torn line is lost. The next one begins on a line of its own, where its date is looked for.
    if (reader.insideLine && writeWhileRead(file, reader, "\n", 1) == 0) return;
    const size_t written = writeWhileRead(file, reader, line.text, line.length);
    reader.insideLine = written > 0 && written < line.length;
}

static void writeTo(int file, Reader& reader, const Line& line) {
    struct stat status = {};
    if (fstat(file, &status) != 0) return;
    if (S_ISFIFO(status.st_mode)) {
        if (waitForRoom(file, reader, line.length)) writeOnce(file, line);
    } else if (S_ISSOCK(status.st_mode) || (S_ISCHR(status.st_mode) && isatty(file))) {
        writeInPieces(file, reader, line);
    } else {
        writeOnce(file, line);
    }
}

// Opening never waits: the name may be a pipe's that nobody reads. A terminal does not become the process's own.
static constexpr int KToWrite = O_WRONLY | O_APPEND | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

static void writeToStandardOutput(const Line& line) {
    fflush(stdout);  // what the program printed before stands before
    // Others share its description and find it blocking, as it was; a terminal with room for a part of the line would
    // hold this thread, so it is opened a second time.
    const int again = isatty(STDOUT_FILENO) ? open("/proc/self/fd/1", KToWrite) : -1;
    writeTo(again >= 0 ? again : STDOUT_FILENO, iStandardOutputReader, line);
    if (again >= 0) close(again);
}

static void appendToFile(const char* path, Reader& reader, const Line& line) {
    const int file = open(path, KToWrite | O_CREAT, 0644);
    if (file < 0) return;
    writeTo(file, reader, line);
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
    appendToFile(path, iRotatedFileReader, line);
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
        if (iLogSettings.file) appendToFile(iLogSettings.filename, iFileReader, line);
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
