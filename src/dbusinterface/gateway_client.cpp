#include "src/dbusinterface/gateway_client.h"

#include <cerrno>
#include <cstring>
#include <ctime>

#include "common/gate/gate.h"
#include "common/log/log.h"
#include "common/text/text.h"
#include "src/dbusinterface/data_model_names.h"
#include "src/dbusinterface/service_store.h"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "src/dbusinterface";

static constexpr double KLongestWaitSeconds = 10.0;
static constexpr time_t KWaitCeilingSeconds = 12;
static constexpr long KPollNanoseconds = 200'000'000;

static bool iModeIsSwitched = false;  // from before the mode is switched to "on" until it was put back

bool ensureGatewayClientIsConnected() {
    const OwnedText status = easyGetPcbParamAsString(iBusPcbClient, KGatewayClientObject, KConnectionStatus);
    if (!status || isDataModelTrue(status.get())) return false;
    return waitForGatewayClientConnection();
}

// True when the mode had to be switched and was.
static bool switchModeOn(const char* mode) {
    if (strcmp(mode, "on") == 0) return false;
    iModeIsSwitched = true;
    if (!easySetPcbParam(iBusPcbClient, KGatewayClientObject, KConnectionMode, "on")) {
        iModeIsSwitched = false;
        LOG(ERROR, "Cannot set GatewayClient connection mode value = on in PCB");
        return false;
    }
    LOG(DEBUG, "GatewayClient connection mode = on saved in PCB");
    saveOrvoServiceData();
    return true;
}

static bool checkConnection() {
    LOG(DEBUG, "Checking GatewayClient connection status");
    const OwnedText status = easyGetPcbParamAsString(iBusPcbClient, KGatewayClientObject, KConnectionStatus);
    if (!status) {
        LOG(ERROR, "Cannot check GatewayClient connection status in PCB");
        return false;
    }
    if (isDataModelTrue(status.get())) {
        LOG(INFO, "GatewayClient is connected");
        return true;
    }
    LOG(INFO, "GatewayClient is not yet connected");
    return false;
}

static void sleepUntilNextPoll() {
    const OutsideGate outside;
    timespec left = {0, KPollNanoseconds};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

static time_t monotonicSeconds() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

bool waitForGatewayClientConnection() {
    const OwnedText mode = easyGetPcbParamAsString(iBusPcbClient, KGatewayClientObject, KConnectionMode);
    if (!mode) return false;
    const bool switched = switchModeOn(mode.get());

    // The wall clock of a gateway jumps when it is first set; the wait must end even then.
    const time_t start = time(nullptr), monotonicStart = monotonicSeconds();
    for (;;) {
        if (difftime(time(nullptr), start) > KLongestWaitSeconds ||
            monotonicSeconds() - monotonicStart >= KWaitCeilingSeconds) {
            LOG(ERROR, "GatewayClient still cannot connect to ApplicationServer - giving up");
            return switched;
        }
        if (checkConnection()) return switched;
        sleepUntilNextPoll();
    }
}

static void setModeOnDemandThrough(PcbContext* client) {
    const bool set = easySetPcbParam(client, KGatewayClientObject, KConnectionMode, "ondemand");
    iModeIsSwitched = false;
    if (!set) {
        LOG(ERROR, "Cannot set GatewayClient connection mode value = ondemand in PCB");
        return;
    }
    LOG(DEBUG, "GatewayClient connection mode = ondemand saved in PCB");
    saveOrvoServiceDataThrough(client);
}

void setGatewayClienModeOnDemand() { setModeOnDemandThrough(iBusPcbClient); }

void putConnectionModeBack(PcbContext* client) {
    if (iModeIsSwitched && client) setModeOnDemandThrough(client);
}
