// Where the lines go: standard output, a file, files that rotate, the system log.
#include "common/log/outputs.h"

#include <fcntl.h>
#include <poll.h>
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

#include "common/log/log.h"

static constexpr char KDefaultFolder[] = "/var/log";

// One write call per line, so that lines of several writers never mix. It is repeated only when a signal interrupted it
// before its first byte. Gives what write gives.
static ssize_t writeOnce(int file, const Line& line) {
    ssize_t written = 0;
    do {
        written = write(file, line.text, line.length);
    } while (written < 0 && errno == EINTR);
    return written;
}

static constexpr int KPatience = 2000;  // ms
static constexpr int KLookEvery = 10;   // ms

namespace {

// The state of the reader of a pipe, terminal or socket. A reader that takes nothing for KPatience has stopped. Until
// it reads again, a line that finds no room is dropped at once. An endless wait would hold the log's lock, and with it
// both threads and the end of the process.
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
    // Some room does not mean that the reader reads: a short line may fit where a long one does not.
    if (reader.stopped && unreadIn(pipe) < reader.unread) reader.stopped = false;
    for (int waited = reader.stopped ? KPatience : 0; !hasRoom(pipe, length); waited += KLookEvery) {
        const int unread = unreadIn(pipe);
        // Only a page counts as progress: a reader that takes single bytes would hold the log for hours.
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
    // The terminal could not be opened a second time, and poll promises room for one byte only.
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

// Goes on behind what is `written` already.
static void writeInPieces(int file, Reader& reader, const Line& line, size_t written) {
    // The rest of a torn line is lost. The next line starts on a new line, so that its date stands in front.
    if (reader.insideLine && writeWhileRead(file, reader, "\n", 1) == 0) return;
    written += writeWhileRead(file, reader, line.text + written, line.length - written);
    reader.insideLine = written > 0 && written < line.length;
}

static void writeTo(int file, Reader& reader, const Line& line, size_t written = 0) {
    struct stat status = {};
    if (fstat(file, &status) != 0) return;
    if (S_ISFIFO(status.st_mode)) {
        if (waitForRoom(file, reader, line.length)) writeOnce(file, line);
    } else if (S_ISSOCK(status.st_mode) || (S_ISCHR(status.st_mode) && isatty(file))) {
        writeInPieces(file, reader, line, written);
    } else {
        reader = {};  // of a pipe or terminal that stood here before
        if (written == 0) writeOnce(file, line);
    }
}

// Opening never waits, also for a pipe that nobody reads. A terminal does not become the controlling terminal.
static constexpr int KToWrite = O_WRONLY | O_APPEND | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

static void writeToStandardOutput(const Line& line) {
    fflush(stdout);  // what the program printed earlier comes first
    // Other programs share the file description, so it stays blocking. A terminal with room for a part of the line
    // would then block this thread, so it is opened a second time.
    const int again = isatty(STDOUT_FILENO) ? open("/proc/self/fd/1", KToWrite) : -1;
    writeTo(again >= 0 ? again : STDOUT_FILENO, iStandardOutputReader, line);
    if (again >= 0) close(again);
}

static void appendToFile(const char* path, Reader& reader, const Line& line) {
    const int file = open(path, KToWrite | O_CREAT, 0644);
    if (file < 0) return;
    // A look at what was opened would cost an ordinary file a system call a line. A write without waiting is right for
    // everything else, too, as long as its reader has read all before: a pipe takes all or nothing of so short a line,
    // a terminal perhaps its beginning.
    const bool isSimple = line.length <= PIPE_BUF && !reader.stopped && !reader.insideLine;
    const ssize_t written = isSimple ? writeOnce(file, line) : 0;
    const bool isToBeContinued = written < 0 ? errno == EAGAIN : static_cast<size_t>(written) < line.length;
    if (isToBeContinued) writeTo(file, reader, line, static_cast<size_t>(std::max<ssize_t>(written, 0)));
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
    // The count is bounded because the log is locked meanwhile. A count below 1 means the current file only.
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
    if (iLogSettings.standardOutput) writeToStandardOutput(line);
    if (iLogSettings.file) appendToFile(iLogSettings.filename, iFileReader, line);
    if (level == LEVEL_SYSLOG) writeToRotatedFiles(line);
    if (iLogSettings.systemLog) writeToSystemLog(level, line);
}
