#include "src/main/public_interface.h"

#include "common/msg_bus/message_bus.h"
#include "src/dbusinterface/dyndns_service.h"
#include "src/dbusinterface/dyndns_sync.h"
#include "src/dbusinterface/event_pipe.h"
#include "src/dbusinterface/service_store.h"
#include "src/orvoservicesinfo/orvoservicesinfo.h"
#include "src/voltarodbus/voltaro_service.h"

static constexpr char KSystemBusAddress[] = "unix:path=/var/run/dbus/system_bus_socket";

static constexpr const BusService* KServices[] = {&KDynDnsService, &KVoltaroService, &KOrvoServicesInfoService};

std::span<const BusService* const> busServices() { return KServices; }

static bool bringUp(struct event_base* base) {
    // Out of memory here: the services connect to another bus, or fail to connect and log that.
    (void)message_bus_set_dbus_socket(KSystemBusAddress);
    iBusPcbClient = easyCreatePcbDataModelClient();
    if (!iBusPcbClient) return false;
    for (const BusService* service : KServices) {
        if (!offerService(*service, base)) return false;
    }
    return true;
}

bool enableDbusPublicInterface(struct event_base* base) {
    const bool up = bringUp(base);
    iBusEventBase = base;
    if (!up) disableDbusPublicInterface();
    return up;
}

void prepareToServeDbus() {
    message_bus_limit_descriptors(iDynDnsMessageBus);
    // A slow request may have held up changes of the data model. They came before the calls that waited with them.
    beforeEachCall(handleWaitingEventPipeRecords);
}

void disableDbusPublicInterface() {
    for (const BusService* service : KServices) {
        withdrawService(*service);
    }
    easyDestroyPcbDataModelClient(iBusPcbClient);
    iBusPcbClient = nullptr;
}
