// pcb-bus: the gateway's data-model bus as a process.
#include <event2/listener.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>

#include "platform/bus/bus.h"
#include "platform/pcb/odl.h"

Bus iBus;

namespace {

struct FreeListener {
    void operator()(evconnlistener* listener) const { evconnlistener_free(listener); }
};
struct FreeBase {
    void operator()(event_base* base) const { event_base_free(base); }
};

}  // namespace

static bool complain(const char* what, const char* detail) {
    fprintf(stderr, "pcb-bus: %s: %s\n", what, detail);
    return false;
}

// A socket that nobody serves any more is left over from an earlier run.
static bool clearPath(const sockaddr_un& address) {
    struct stat status {};
    if (lstat(address.sun_path, &status) != 0) return true;
    if (!S_ISSOCK(status.st_mode)) return complain("not a socket", address.sun_path);
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const bool served = connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(probe);
    if (served) return complain("another bus listens here", address.sun_path);
    unlink(address.sun_path);
    return true;
}

static void acceptClient(evconnlistener*, evutil_socket_t socket, sockaddr*, int, void*) { serveClient(socket); }

static void reportAcceptError(evconnlistener*, void*) { complain("cannot accept a client", strerror(errno)); }

static std::unique_ptr<evconnlistener, FreeListener> listenAt(const char* path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::unique_ptr<evconnlistener, FreeListener> listener;
    if (strlen(path) >= sizeof address.sun_path) {
        complain("path is too long", path);
        return listener;
    }
    memcpy(address.sun_path, path, strlen(path));
    if (!clearPath(address)) return listener;
    listener.reset(evconnlistener_new_bind(iBus.base, acceptClient, nullptr,
                                           LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC, -1,
                                           reinterpret_cast<const sockaddr*>(&address), sizeof address));
    if (!listener) {
        complain(path, strerror(errno));
    } else {
        evconnlistener_set_error_cb(listener.get(), reportAcceptError);
    }
    return listener;
}

static void endLoop(evutil_socket_t, short, void*) { event_base_loopbreak(iBus.base); }

static int serve(const char* path) {
    const std::unique_ptr<event, FreeEvent> term(evsignal_new(iBus.base, SIGTERM, endLoop, nullptr));
    const std::unique_ptr<event, FreeEvent> interrupt(evsignal_new(iBus.base, SIGINT, endLoop, nullptr));
    const auto listener = listenAt(path);
    if (!listener) return 1;
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
    const Owned<object_t> tree = readOdlFile(arguments[4], &error);
    if (!tree) return complain(arguments[4], error_string(error)), 1;
    const std::unique_ptr<event_base, FreeBase> base(event_base_new());
    if (!base) return complain("cannot start", "no event loop"), 1;
    iBus.tree = tree.get();
    iBus.base = base.get();
    return serve(arguments[2]);
}
