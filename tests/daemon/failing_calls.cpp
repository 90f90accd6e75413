// Linked into the test variant of the daemon: the call that FAILING_CALL names fails.
#include <event2/event.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

static bool fails(const char* call) {
    const char* failing = getenv("FAILING_CALL");
    if (!failing || strcmp(failing, call) != 0) return false;
    errno = EMFILE;
    return true;
}

extern "C" {
pid_t __real_fork();
pid_t __wrap_fork();
pid_t __wrap_fork() { return fails("fork") ? -1 : __real_fork(); }

pid_t __real_setsid();
pid_t __wrap_setsid();
pid_t __wrap_setsid() { return fails("setsid") ? -1 : __real_setsid(); }

event_base* __real_event_base_new();
event_base* __wrap_event_base_new();
event_base* __wrap_event_base_new() { return fails("event_base_new") ? nullptr : __real_event_base_new(); }

event* __real_event_new(event_base*, evutil_socket_t, short, event_callback_fn, void*);
event* __wrap_event_new(event_base*, evutil_socket_t, short, event_callback_fn, void*);
event* __wrap_event_new(event_base* base, evutil_socket_t fd, short what, event_callback_fn callback, void* argument) {
    return fails("event_new") ? nullptr : __real_event_new(base, fd, what, callback, argument);
}

int __real_pipe2(int*, int);
int __wrap_pipe2(int*, int);
int __wrap_pipe2(int* ends, int flags) { return fails("pipe2") ? -1 : __real_pipe2(ends, flags); }

int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __wrap_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*), void* argument) {
    return fails("pthread_create") ? EAGAIN : __real_pthread_create(thread, attributes, entry, argument);
}
}
