// Linked into the test variant of the daemon: the call that FAILING_CALL names fails, or the one for the path it names.
#include <dbus/dbus.h>
#include <event2/event.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/pcb/pcb.h"
#include "tests/world/wrap.h"

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

WRAP(pid_t, fork) { return fails("fork") ? -1 : __real_fork(); }

WRAP(pid_t, setsid) { return fails("setsid") ? -1 : __real_setsid(); }

WRAP(event_base*, event_base_new) { return fails("event_base_new") ? nullptr : __real_event_base_new(); }

WRAP(event*, event_new, event_base* base, evutil_socket_t fd, short what, event_callback_fn callback, void* argument) {
    return fails("event_new") ? nullptr : __real_event_new(base, fd, what, callback, argument);
}

WRAP(dbus_bool_t, dbus_connection_try_register_object_path, DBusConnection* bus, const char* path,
     const DBusObjectPathVTable* functions, void* data, DBusError* error) {
    return !fails(path) && __real_dbus_connection_try_register_object_path(bus, path, functions, data, error);
}

WRAP(int, pipe2, int* ends, int flags) { return fails("pipe2") ? -1 : __real_pipe2(ends, flags); }

WRAP(int, pthread_create, pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*), void* argument) {
    return fails("pthread_create") ? EAGAIN : __real_pthread_create(thread, attributes, entry, argument);
}

WRAP(char*, strdup, const char* text) { return fails("strdup") ? nullptr : __real_strdup(text); }

WRAP(peer_info_t*, pcb_client_connect, pcb_t* pcb, const char* uri) {
    return isSecondCall() && fails("pcb_client_connect") ? nullptr : __real_pcb_client_connect(pcb, uri);
}

WRAP(request_t*, request_create_getObject, const char* path, int32_t depth, uint32_t flags) {
    return fails("request_create_getObject") ? nullptr : __real_request_create_getObject(path, depth, flags);
}
