// Frames that the data-model bus sends to the daemon's client.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

#include "pcblib/pcbclient_internal.h"
#include "platform/pcb/internal.h"
#include "src/main/data_model_watch.h"
#include "tests/fuzz/fuzz.h"

void fuzzClientFrames(std::string_view bytes) {
    static int pipe[] = {-1, open("/dev/null", O_WRONLY | O_CLOEXEC)};
    iPipeForPcbChanges = pipe;
    setPcbChangesCallbacks(pcbObjectChanged, pcbParamChanged);
    setPcbFunctionCallback(pcbFunctionCallback);
    setPcbRequestLostCallback(pcbRequestLost);
    setPcbCustomNotificationCallback([](const char* path, const char* value) { require(path && value); });
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == 0);
    (void)!send(ends[1], bytes.data(), bytes.size(), 0);
    // A connected context, as the client library makes one: destroyPcbDataModelClient releases it.
    iPcbContext = static_cast<PcbContext*>(malloc(sizeof(PcbContext)));
    iPcbContext->pcb = pcb_create("fuzz", 0, nullptr);
    iPcbContext->peer = &iPcbContext->pcb->peer;
    connection_info_t* connection = &iPcbContext->pcb->connection;
    connection->socket = ends[0];
    request_t* const requests[] = {listenToChangesInPcbObject("OrvoService.DynDNS"), executeWanChangeQuery("openQuery"),
                                   executeWanChangeQuery("hasFlag"),
                                   listenToCustomNotificationsFromPcbObject("DNS.Server")};
    do {
        ConnectionList list(connection);
        connection_handleEvents(&list.list);
        drainPendingWork();
    } while (holdsFrame(connection));
    for (request_t* request : requests) {
        freePcbRequestObject(request);
    }
    freePcbRequestObject(std::exchange(iRequestWanChangeNotify, nullptr));
    releasePendingCgNatChecks();
    destroyPcbDataModelClient();
    close(ends[1]);
}
