// The filter, the line, and the reload of the settings.
#include "common/log/log.h"

#include <pthread.h>
#include <signal.h>
#include <strings.h>
#include <sys/time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "common/log/outputs.h"

static constexpr const char* KLevelNames[] = {"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "SYSLOG"};

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

}  // namespace

LogLock::LogLock() {
    if (iLockDepth++ == 0) pthread_mutex_lock(&iLock);
}

LogLock::~LogLock() {
    if (--iLockDepth == 0) pthread_mutex_unlock(&iLock);
}

int logLevelFromText(const char* text) {
    int level = LEVEL_TRACE;
    while (level < LEVEL_SYSLOG && strcasecmp(text, KLevelNames[level]) != 0) {
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

// A SIGHUP during a reload is left to the next call, so that the lines of a reload never start another one.
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

// Moves the one that it finds to the front: a module logs many lines in a row.
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
    if (level == LEVEL_SYSLOG) return true;
    if (!iLogSettings.enabled) return false;
    const LogCategory* const own = findCategory(category);
    return level >= (own ? own->level : iLogSettings.level);
}

static char* end(Line& line) { return line.text + line.length; }

// What may still be printed at the end, the zero byte included.
static size_t room(const Line& line) { return sizeof line.text - line.length; }

// Adds to the length what a printf at the end has printed; false when that failed.
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

// A text inside a message must not look like another log line, or control a terminal that shows it.
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

// A copy of the format's first `length` bytes. The attribute makes the compiler treat it like the checked format.
__attribute__((format_arg(1))) static const char* beginningOf(const char* format, size_t length, char* room) {
    memcpy(room, format, length);
    room[length] = '\0';
    return room;
}

// Puts a format's own line breaks back: each goes where the message would end if its format ended there. One after
// the format's first 255 bytes stays a blank.
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
    extend(line, snprintf(end(line), room(line), "%5.10s ", KLevelNames[level]));
    if (!iLogSettings.lineAndFile) return;
    extend(line, snprintf(end(line), room(line), "file: %s, line: %zd - ", file, lineNumber));
}

// Declared as a printf format here and not in the header: callers use LOG, which has checked the literal.
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
