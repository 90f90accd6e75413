// Linked into the steered daemon. Its timers run faster. A chosen call for its store or its log fails, writes half, or
// ends or kills the daemon. A system call that the test names is refused.
#include <event2/event.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/time.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "tests/daemon/steering.h"
#include "tests/world/wrap.h"

// Whether a call on a file, told by its first letter, is the one that meets its fault.
static bool isStruck(char call, const char* file) {
    const bool stores = strncmp(file, "/media", 6) == 0;
    if (!stores && strcmp(file, "/var/log/orsm.log") != 0) return false;  // such as the page's own file
    Steering& page = steering();
    if (page.call == 0 || (!stores && (call != 'w' || !page.alsoLog))) return false;
    const int number = ++page.seen;
    page.calls[number % 100] = call;
    if (number != page.call || (page.fault == KShortWrite && call != 'w')) return false;
    if (page.fault == KKill) kill(getpid(), SIGKILL);
    if (page.fault == KEnd) {
        kill(getpid(), SIGTERM);
        poll(nullptr, 0, 1500);  // longer than an end that does not wait
        return false;
    }
    // A short or interrupted write is continued, and a failed close of the folder is ignored.
    const bool harmless =
        call == 'w' ? page.fault == KShortWrite || page.fault == EINTR : call == 'c' && strcmp(file, "/media") == 0;
    page.reported += !harmless;
    errno = page.fault;
    return true;
}

static bool isStruck(char call, int file) {
    char link[32], path[64] = "";
    snprintf(link, sizeof link, "/proc/self/fd/%d", file);
    return readlink(link, path, sizeof path - 1) > 0 && isStruck(call, path);
}

WRAP(int, open, const char* path, int flags, mode_t mode) {
    return isStruck('o', path) ? -1 : __real_open(path, flags, mode);
}

WRAP(ssize_t, write, int file, const void* bytes, size_t size) {
    if (!isStruck('w', file)) return __real_write(file, bytes, size);
    return steering().fault == KShortWrite ? __real_write(file, bytes, size / 2) : -1;
}

WRAP(int, fsync, int file) { return isStruck('s', file) ? -1 : __real_fsync(file); }

WRAP(int, close, int file) {  // closes the file even when it reports a failure
    const bool struck = isStruck('c', file);
    const int result = __real_close(file);
    if (struck) errno = steering().fault;
    return struck ? -1 : result;
}

WRAP(int, rename, const char* from, const char* to) { return isStruck('r', from) ? -1 : __real_rename(from, to); }

WRAP(int, unlink, const char* path) { return isStruck('u', path) ? -1 : __real_unlink(path); }

static bool isRefused(const char* call) {
    errno = EMFILE;
    return strcmp(steering().refused, call) == 0;
}

WRAP(pid_t, fork) { return isRefused("fork") ? -1 : __real_fork(); }

WRAP(unsigned, alarm, unsigned seconds) { return isRefused("alarm") ? 0 : __real_alarm(seconds); }

// A limit of a second or more is none.
WRAP(int, setitimer, __itimer_which_t which, const itimerval* limit, itimerval* before) {
    return limit->it_value.tv_sec > 0 ? -1 : __real_setitimer(which, limit, before);
}

WRAP(pid_t, setsid) { return isRefused("setsid") ? -1 : __real_setsid(); }

WRAP(int, pipe2, int* ends, int flags) { return isRefused("pipe2") ? -1 : __real_pipe2(ends, flags); }

WRAP(int, eventfd, unsigned value, int flags) { return isRefused("eventfd") ? -1 : __real_eventfd(value, flags); }

WRAP(int, pthread_create, pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*), void* argument) {
    return isRefused("pthread_create") ? EAGAIN : __real_pthread_create(thread, attributes, entry, argument);
}

WRAP(int, event_add, event* event, const timeval* time) {
    if (isRefused("event_add")) return -1;
    const int second = steering().second;
    if (!time || time->tv_sec == 0 || second == 0) return __real_event_add(event, time);
    const int64_t scaled = time->tv_sec * second;
    const timeval delay = {scaled / 1'000'000, scaled % 1'000'000};
    return __real_event_add(event, &delay);
}

// Defined here, it is taken by libevent, too.
extern "C" int epoll_wait(int set, epoll_event* events, int count, int milliseconds) {
    if (isRefused("epoll_wait")) return -1;
    return static_cast<int>(syscall(SYS_epoll_wait, set, events, count, milliseconds));
}
