// Frames that the data-model bus sends to its client. The bus of the other targets is the real one, without its main
// function.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <utility>

#include "pcblib/pcbclient_internal.h"
#include "platform/bus/bus.h"
#include "platform/pcb/internal.h"
#include "platform/pcb/odl.h"
#include "src/main/data_model_watch.h"
#include "tests/fuzz/fuzz.h"
#include "tests/world/world.h"
#include "tests/world/wrap.h"

Bus iBus;
static int iSilentEnd = -1;  // of a bus that has said all before its client asks

// The bus works in this thread, while its client waits for it.
WRAP(int, poll, pollfd* waited, nfds_t count, int milliseconds) {
    int ready = __real_poll(waited, count, 0);
    for (int pass = 0; iBus.firstClient && !ready && pass < 10; ++pass) {
        event_base_loop(iBus.base, EVLOOP_NONBLOCK);
        ready = __real_poll(waited, count, 0);
    }
    if (!ready) shutdown(iSilentEnd, SHUT_WR);  // nothing more will come
    return ready ? ready : __real_poll(waited, count, milliseconds);
}

static void renewBus() {
    static const std::string definition = [] {
        std::string text = world::readFile(ORSM_SOURCE_FOLDER "/platform/bus/gateway.odl");
        // Connected, so that nobody waits for it; and a name that can be sent to the server.
        text.replace(text.find("\"false", text.find("ConnectionStatus")), strlen("\"false"), "\"true");
        text.insert(text.find("\";", text.find("HostName")), "home");
        return text;
    }();
    static Owned<object_t>& tree = *new Owned<object_t>;
    OdlFault fault;
    tree = parseOdl(definition, &fault);
    iBus.tree = tree.get();
    if (iBus.base) return;
    iBus.base = event_base_new();
    require(startFunctions());
}

struct Pair {
    int ends[2];
    explicit Pair(std::string_view bytes = {}) {
        require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == 0);
        (void)!send(ends[1], bytes.data(), bytes.size(), 0);
    }
};

// A new context, as the client library's own: destroyPcbDataModelClient releases it.
static PcbContext* newContext(int socket) {
    auto* context = static_cast<PcbContext*>(malloc(sizeof(PcbContext)));
    context->pcb = pcb_create("fuzz", 0, nullptr);
    context->pcb->connection.socket = socket;
    context->peer = &context->pcb->peer;
    return context;
}

PcbContext* clientOfFreshBus() {
    static PcbContext* context = nullptr;
    renewBus();
    if (context) return context;
    const Pair pair;
    serveClient(pair.ends[0]);
    return context = newContext(pair.ends[1]);
}

// All that the daemon asks of the bus, whose answers are there already.
void fuzzClientFrames(std::string_view bytes) {
    static int pipe[] = {-1, open("/dev/null", O_WRONLY | O_CLOEXEC)};
    static Buffer& received = *new Buffer;  // kept: its size would make it the slowest part
    iPipeForPcbChanges = pipe;
    setPcbChangesCallbacks(pcbObjectChanged, pcbParamChanged);
    setPcbFunctionCallback(pcbFunctionCallback);
    setPcbRequestLostCallback(pcbRequestLost);
    setPcbCustomNotificationCallback([](const char* path, const char* value) { require(path && value); });
    const Pair pair(bytes);
    iSilentEnd = pair.ends[1];
    iPcbContext = newContext(pair.ends[0]);
    connection_info_t* connection = &iPcbContext->pcb->connection;
    std::swap(connection->in, received);
    const std::vector<request_t*> requests{listenToChangesInPcbObject("OrvoService.DynDNS"),
                                           executeWanChangeQuery("openQuery"), executeWanChangeQuery("hasFlag"),
                                           listenToCustomNotificationsFromPcbObject("DNS.Server")};
    (void)easyGetPcbParamAsString(iPcbContext, "NMC.HomeAutomation", "HA-ID");
    (void)easyGetPcbObject(iPcbContext, "OrvoService");
    (void)easyExecutePcbFunction(iPcbContext, "NeMo.Intf.data", "hasFlag");
    do {
        ConnectionList list(connection);
        connection_handleEvents(&list.list);
        drainPendingWork();
    } while (holdsFrame(connection));
    std::for_each(requests.begin(), requests.end(), freePcbRequestObject);
    freePcbRequestObject(std::exchange(iRequestWanChangeNotify, nullptr));
    releasePendingCgNatChecks();
    std::swap(connection->in, received);
    received.start = received.length = 0;
    destroyPcbDataModelClient();
    close(std::exchange(iSilentEnd, -1));
}
