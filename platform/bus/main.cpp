// pcb-bus: the gateway's data-model bus as a process.
#include <event2/listener.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "platform/bus/bus.h"
#include "platform/pcb/odl.h"

Bus iBus;

namespace {

/// The right to serve a path: a lock on PATH.lock, held until the end of the process. The file is never
/// removed, because a lock on a removed file keeps no other bus away.
struct PathLock {
    int file = -1;

    PathLock() = default;
    PathLock(const PathLock&) = delete;
    PathLock& operator=(const PathLock&) = delete;
    ~PathLock() {
        if (file >= 0) close(file);
    }
};

/// Waits a moment before it accepts again.
struct Listener {
    Owned<evconnlistener, evconnlistener_free> socket;
    OwnedEvent retry;
    bool failing = false;  // and reported
};

}  // namespace

static bool complain(const char* what, const char* detail) {
    fprintf(stderr, "pcb-bus: %s: %s\n", what, detail);
    return false;
}

static constexpr char KServed[] = "another bus listens here";

static bool lockPath(const char* path, PathLock* lock) {
    const OwnedText name = formatText("%s.lock", path);
    if (!name) return complain("cannot start", "memory is short");
    lock->file = open(name.get(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (lock->file < 0) return complain(name.get(), strerror(errno));
    if (flock(lock->file, LOCK_EX | LOCK_NB) == 0) return true;
    return errno == EWOULDBLOCK ? complain(KServed, path) : complain(name.get(), strerror(errno));
}

// 0 when somebody accepts connections there.
static int connectError(const sockaddr_un& address) {
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (probe < 0) return errno;
    const bool connected = connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    const int error = connected ? 0 : errno;
    close(probe);
    return error;
}

// A socket that nobody serves any more is left over from an earlier run. Needs the lock on the path.
static bool clearPath(const sockaddr_un& address) {
    struct stat status {};
    if (lstat(address.sun_path, &status) != 0) return true;
    if (!S_ISSOCK(status.st_mode)) return complain("not a socket", address.sun_path);
    const int error = connectError(address);
    // EAGAIN: a server listens there, but its queue is full.
    if (error == 0 || error == EAGAIN) return complain(KServed, address.sun_path);
    if (error != ECONNREFUSED) return complain(address.sun_path, strerror(error));
    return unlink(address.sun_path) == 0 || complain(address.sun_path, strerror(errno));
}

static void acceptClient(evconnlistener*, evutil_socket_t socket, sockaddr*, int, void* context) {
    static_cast<Listener*>(context)->failing = false;
    serveClient(socket);
}

static void acceptAgain(evutil_socket_t, short, void* context) {
    evconnlistener_enable(static_cast<Listener*>(context)->socket.get());
}

// Without free descriptors the client stays in the queue: accepting would fail again at once, and for ever.
static void pauseAccepting(evconnlistener* socket, void* context) {
    auto* listener = static_cast<Listener*>(context);
    if (!listener->failing) complain("cannot accept clients, trying again", strerror(errno));
    listener->failing = true;
    const timeval moment = {0, 100L * 1000};
    evconnlistener_disable(socket);
    event_add(listener->retry.get(), &moment);
}

static bool listenAt(const char* path, PathLock* lock, Listener* listener) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (!*path) return complain("cannot start", "the socket's path is empty");
    if (strlen(path) >= sizeof address.sun_path) return complain("path is too long", path);
    memcpy(address.sun_path, path, strlen(path));
    if (!lockPath(path, lock) || !clearPath(address)) return false;
    listener->retry.reset(evtimer_new(iBus.base, acceptAgain, listener));
    if (!listener->retry) return complain("cannot start", "memory is short");
    listener->socket.reset(evconnlistener_new_bind(iBus.base, acceptClient, listener,
                                                   LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC, -1,
                                                   reinterpret_cast<const sockaddr*>(&address), sizeof address));
    if (!listener->socket) return complain(path, strerror(errno));
    evconnlistener_set_error_cb(listener->socket.get(), pauseAccepting);
    return true;
}

static void endLoop(evutil_socket_t, short, void*) { event_base_loopbreak(iBus.base); }

static int serve(const char* path) {
    const OwnedEvent term(evsignal_new(iBus.base, SIGTERM, endLoop, nullptr));
    const OwnedEvent interrupt(evsignal_new(iBus.base, SIGINT, endLoop, nullptr));
    PathLock lock;  // given back last, when the socket is gone
    Listener listener;
    if (!listenAt(path, &lock, &listener)) return 1;
    const bool ready = term && interrupt && event_add(term.get(), nullptr) == 0 &&
                       event_add(interrupt.get(), nullptr) == 0 && startFunctions() && startGateway();
    if (ready) {
        printf("pcb-bus: listening on %s\n", path);
        event_base_dispatch(iBus.base);
    } else {
        complain("cannot start", "memory is short");
    }
    unlink(path);
    freeClients();
    stopGateway();
    stopFunctions();
    return ready ? 0 : 1;
}

int main(int count, char** arguments) {
    const bool usable =
        count == 5 && strcmp(arguments[1], "--socket") == 0 && strcmp(arguments[3], "--definition") == 0;
    if (!usable) {
        fputs("usage: pcb-bus --socket PATH --definition FILE\n", stderr);
        return 1;
    }
    // Each line at once, also into a pipe or file.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    (void)signal(SIGPIPE, SIG_IGN);
    uint32_t error = 0;
    const OwnedRecord<object_t> tree = readOdlFile(arguments[4], &error);
    if (!tree) return complain(arguments[4], error_string(error)), 1;
    const Owned<event_base, event_base_free> base(event_base_new());
    if (!base) return complain("cannot start", "no event loop"), 1;
    iBus.tree = tree.get();
    iBus.base = base.get();
    return serve(arguments[2]);
}
