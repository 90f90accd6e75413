// Linked into the test variant of the daemon: the call that FAILING_CALL names fails, and with HASTY a synchronization
// begins at once.
#include <event2/event.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/pcb/pcb.h"

static bool fails(const char* call) {
    const char* failing = getenv("FAILING_CALL");
    if (!failing || strcmp(failing, call) != 0) return false;
    errno = EMFILE;
    return true;
}

// The client of the bus thread is the first, the main thread's the second.
static bool isSecondCall() {
    static int calls = 0;
    return ++calls == 2;
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

int __real_event_add(event*, const timeval*);
int __wrap_event_add(event*, const timeval*);
int __wrap_event_add(event* timer, const timeval* delay) {
    static constexpr timeval soon = {0, 10'000};
    return __real_event_add(timer, delay && delay->tv_sec == 1 && getenv("HASTY") ? &soon : delay);
}

int __real_pipe2(int*, int);
int __wrap_pipe2(int*, int);
int __wrap_pipe2(int* ends, int flags) { return fails("pipe2") ? -1 : __real_pipe2(ends, flags); }

int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __wrap_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*), void* argument) {
    return fails("pthread_create") ? EAGAIN : __real_pthread_create(thread, attributes, entry, argument);
}

char* __real_strdup(const char*);
char* __wrap_strdup(const char*);
char* __wrap_strdup(const char* text) { return fails("strdup") ? nullptr : __real_strdup(text); }

peer_info_t* __real_pcb_client_connect(pcb_t*, const char*);
peer_info_t* __wrap_pcb_client_connect(pcb_t*, const char*);
peer_info_t* __wrap_pcb_client_connect(pcb_t* pcb, const char* uri) {
    return isSecondCall() && fails("pcb_client_connect") ? nullptr : __real_pcb_client_connect(pcb, uri);
}

request_t* __real_request_create_getObject(const char*, int32_t, uint32_t);
request_t* __wrap_request_create_getObject(const char*, int32_t, uint32_t);
request_t* __wrap_request_create_getObject(const char* path, int32_t depth, uint32_t flags) {
    return fails("request_create_getObject") ? nullptr : __real_request_create_getObject(path, depth, flags);
}
}
