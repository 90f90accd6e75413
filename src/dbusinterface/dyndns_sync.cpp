#include "src/dbusinterface/dyndns_sync.h"

#include "common/gate/gate.h"
#include "common/json/json.h"
#include "common/log/log.h"
#include "common/text/text.h"
#include "common/timer/timer.h"
#include "src/dbusinterface/data_model_names.h"
#include "src/dbusinterface/dyndns_registration.h"
#include "src/dbusinterface/event_pipe.h"
#include "src/dbusinterface/gateway_client.h"
#include "src/dbusinterface/service_store.h"
#include "src/dyndnsrequest/dyndnsrequest.h"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "src/dbusinterface";

static constexpr int KStartDelay = 1;          // seconds
static constexpr int KFirstRetryInterval = 5;  // seconds, also what every retry adds
static constexpr int KLongestRetryInterval = 3600;

struct event_base* iBusEventBase;
struct event* iDynDnsSyncTimer;
int iDynDnsSyncRetryInterval = KFirstRetryInterval;

static bool iPushIsOwed = false;         // the last changed switch did not reach the server
static bool iPushIsRefused = false;      // the server answered the last push, and did not take it
static bool iPushesFirst = false;        // the synchronization under way sends it before it asks the server
static bool iIsStoreIncomplete = false;  // a step's answer is stored in part, or perhaps not at all

SyncDecision decideSync(const SyncState& s) {
    if (!*s.haId) return {SyncAction::SwitchOff, LEVEL_WARN, "HA-ID is empty"};
    if (s.homeAutomationEnable == TRI_UNKNOWN) return {SyncAction::RetryLater, LEVEL_INFO, "HA enable - state unknown"};
    if (s.homeAutomationEnable == TRI_FALSE) return {SyncAction::SwitchOff, LEVEL_INFO, "HA is disabled"};
    if (s.dnsServerStatus != TRI_TRUE) return {SyncAction::RetryLater, LEVEL_INFO, "DNS server is not yet ready"};
    if (s.isBehindCgNat == TRI_UNKNOWN) return {SyncAction::RetryLater, LEVEL_INFO, "CG-NAT check - state unknown"};
    if (s.isBehindCgNat == TRI_TRUE) return {SyncAction::SwitchOff, LEVEL_INFO, "CG-NAT check - we are behind CG-NAT"};
    if (!s.applicationServerUrlDefined) {
        return {SyncAction::RetryLater, LEVEL_WARN, "Application server URL is not defined"};
    }
    return {SyncAction::FetchAndStore, LEVEL_INFO, nullptr};
}

static bool isSyncDue() { return iDynDnsSyncTimer && event_pending(iDynDnsSyncTimer, EV_TIMEOUT, nullptr); }

static void armSyncTimer(int seconds) {
    // Without its timer a synchronization would rest until the next trigger; that must not go unseen.
    if (!armTimer(iDynDnsSyncTimer, seconds, 0)) LOG(ERROR, "Cannot arm sync dyndns timer");
}

void synchronizeDynDnsConfiguration() {
    if (!iDynDnsSyncTimer) {
        LOG(INFO, "DynDns sync timer has to be created");
        iDynDnsSyncTimer = event_new(iBusEventBase, -1, 0, runDynDnsSyncStep, nullptr);
        if (!iDynDnsSyncTimer) {
            LOG(ERROR, "Cannot create sync dyndns timer");
            return;
        }
    } else {
        LOG(INFO, "Pending event for DynDns sync timer has to be cancelled");
        event_del(iDynDnsSyncTimer);
    }
    armSyncTimer(KStartDelay);
    iDynDnsSyncRetryInterval = KFirstRetryInterval;
    iUnansweredEnable = TRI_UNKNOWN;  // a write that was refused is never reported
    LOG(INFO, "Sync dyndns timer started");
}

// Refused for a whole interval, it may be refused for ever, such as for a name that somebody else has taken meanwhile.
// The server's record is stored then.
static void giveUpPush() {
    LOG(WARN, "Server refuses the switch, its registration will be stored");
    forgetOwedPush();
}

void reconcileDynDnsConfiguration() {
    if (isSyncDue()) {
        LOG(INFO, "Interval of DynDNS synchronization has passed, one is under way");
        if (iPushesFirst && iPushIsOwed && iPushIsRefused) giveUpPush();
        iPushesFirst = true;
        return;
    }
    iPushesFirst = true;
    LOG(INFO, "Synchronizing DynDNS because its interval has passed");
    synchronizeDynDnsConfiguration();
}

static void retryLater() {
    armSyncTimer(iDynDnsSyncRetryInterval);
    iDynDnsSyncRetryInterval += KFirstRetryInterval;
    if (iDynDnsSyncRetryInterval >= KLongestRetryInterval) iDynDnsSyncRetryInterval = KLongestRetryInterval;
}

static void markSyncUnfinished() {
    if (!easySetPcbParamBoolValue(iBusPcbClient, KDynDnsObject, KSyncNotFinished, 1)) {
        LOG(WARN, "Cannot set dyn dns SyncNotFinished=1");
        return;
    }
    saveOrvoServiceData();
}

static void markSyncFinished() {
    if (!easySetPcbParamBoolValue(iBusPcbClient, KDynDnsObject, KSyncNotFinished, 0)) {
        LOG(WARN, "Cannot set dyn dns SyncNotFinished=0");
    }
    saveOrvoServiceData();
}

void disableDynDnsInPcb() {
    if (iDynDnsEnable != TRI_TRUE) return;
    if (!storeDynDnsEnable(false)) {
        LOG(ERROR, "Cannot set DynDNS enable=false value in PCB");
        return;
    }
    (void)storeDynDnsHostName("");
    forgetOwedPush();
    saveOrvoServiceData();
}

// Stores a registration that the server has; false when it is stored in part or not at all (logged).
static bool storeRegistration(bool enable, const char* name) {
    // A switch that was changed since an earlier step could not store it stays as it is, and the server hears of it.
    const bool pushes = iIsStoreIncomplete && iPushIsOwed;
    if (!pushes) forgetOwedPush();
    iIsStoreIncomplete = true;
    if (!storeDynDnsEnable(pushes ? iDynDnsEnable == TRI_TRUE : enable)) {
        LOG(ERROR, "Cannot set DynDNS enable value in PCB");
        return false;
    }
    if (!storeDynDnsHostName(name)) return false;
    iIsStoreIncomplete = false;
    if (pushes) (void)setupDynDnsOnServer();
    return true;
}

// Asks the server and stores what it says; false when any of it failed (logged).
static bool fetchAndStore() {
    const OwnedText body = withGatewayClient([] { return getDynDnsConfiguration(iHomeAutomationId); });
    if (!body) {
        LOG(ERROR, "Get dyn dns configuration error");
        return false;
    }
    LOG(INFO, "Get dyn dns configuration OK: %s", body.get());
    const OwnedJson answer = parseSuccessfulAnswer(body.get(), "Dyn DNS status error: %s");
    if (!answer) {
        LOG(ERROR, "Server error or error during parsing server response");
        return false;
    }
    const cJSON* registration = cJSON_GetObjectItem(answer.get(), "dynDNS");
    return storeRegistration(cJSON_IsTrue(cJSON_GetObjectItem(registration, "enabled")),
                             textOrEmpty(jsonTextMember(registration, "name")));
}

// The step's work when the server is to be asked; false when it has to be tried again.
static bool askServer() {
    if (iPushesFirst && iPushIsOwed && !setupDynDnsOnServer()) return false;
    markSyncUnfinished();
    return fetchAndStore();
}

static void endSynchronization() { iPushesFirst = iIsStoreIncomplete = false; }

void runDynDnsSyncStep(evutil_socket_t, short, void*) {
    handleWaitingEventPipeRecords();
    if (isSyncDue()) return;  // one of them has started the synchronization anew
    const InsideGate inside;
    const SyncDecision decision = decideSync({iHomeAutomationId, iHomeAutomationEnable, iDnsServerStatus,
                                              iIsBehindCgNat, iApplicationServerUrlDefined != 0});
    if (decision.reason) LOG_AT(decision.level, "%s", decision.reason);
    switch (decision.action) {
        case SyncAction::SwitchOff: endSynchronization(); return disableDynDnsInPcb();
        case SyncAction::RetryLater: return retryLater();
        case SyncAction::FetchAndStore:
            if (!askServer()) return retryLater();
            endSynchronization();
            return markSyncFinished();
    }
}

static bool pushRegistration() {
    LOG(INFO, "Setup dyn dns on server");
    if (!*iHomeAutomationId || iHomeAutomationEnable != TRI_TRUE || iIsBehindCgNat == TRI_TRUE) {
        LOG(INFO, "No possibility to setup dyn dns on server");
        return false;
    }
    const OwnedText name = easyGetPcbParamAsString(iBusPcbClient, KDynDnsObject, KHostName);
    if (!name) {
        LOG(ERROR, "Read dyn dns error");
        return false;
    }
    if (!*name) {
        LOG(INFO, "Dyn DNS name is empty, enabling/disabling is irrelevant");
        return true;
    }
    LOG(INFO, "Setting dyn dns configuration");
    const DynDnsConfiguration record = {iHomeAutomationId, name.get(), iDynDnsEnable == TRI_TRUE};
    const OwnedText body = withGatewayClient([&] { return setDynDnsConfiguration(record); });
    if (!body) {
        LOG(ERROR, "Set dyn dns configuration  error");
        return false;
    }
    LOG(INFO, "Dyn DNS Configure OK: %s", body.get());
    iPushIsRefused = !parseSuccessfulAnswer(body.get(), "Failed to configure DynDNS: %s");
    return !iPushIsRefused;
}

bool setupDynDnsOnServer() {
    iPushIsRefused = false;
    iPushIsOwed = !pushRegistration();
    return !iPushIsOwed;
}

void pushDynDnsEnable() {
    if (!iIsStoreIncomplete) {
        (void)setupDynDnsOnServer();
        return;
    }
    LOG(INFO, "Setup dyn dns on server waits for the synchronization");
    iPushIsOwed = true;
    iPushIsRefused = false;  // that was an older switch
}

void forgetOwedPush() { iPushIsOwed = false; }
