// Where the lines go: standard output, a file, files that rotate, the system log.
#include "common/log/outputs.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "common/log/log.h"

static constexpr char KDefaultFolder[] = "/var/log";

namespace {

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

}  // namespace

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

static int priorityOf(int level) {
    switch (level) {
        case LEVEL_TRACE: return LOG_DEBUG;
        case LEVEL_DEBUG: return LOG_INFO;
        case LEVEL_WARN: return LOG_WARNING;
        case LEVEL_ERROR: return LOG_ERR;
        default: return LOG_NOTICE;  // INFO and SYSLOG
    }
}

static void writeToSystemLog(int level, const Line& line) {
    const int length = static_cast<int>(line.length - line.levelName);
    syslog(priorityOf(level), "%.*s", length, line.text + line.levelName);
}

void writeToOutputs(int level, Line& line) {
    line.text[line.length++] = '\n';
    if (iLogSettings.standardOutput || iLogSettings.file || level == LEVEL_SYSLOG) {
        const WithoutBrokenPipe guard;
        if (iLogSettings.standardOutput) writeToStandardOutput(line);
        if (iLogSettings.file) appendToFile(iLogSettings.filename, iFileReader, line);
        if (level == LEVEL_SYSLOG) writeToRotatedFiles(line);
    }
    if (iLogSettings.systemLog) writeToSystemLog(level, line);
}
