#include "src/main/data_model_watch.h"

#include <cstring>

#include "common/log/one_text_format.h"
#include "src/dbusinterface/event_record.h"
#include "src/main/cgnat_check.h"
#include "src/main/event_writer.h"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "src/main";

static int initValueRead_AppServerUrl;
static int initValueRead_CommServerUrl;
static int initValueRead_HaId;
static int initValueRead_HaEnable;
static int initValueRead_DnsServerStatus;
static int initValueRead_DynDnsEnabled;

namespace {

struct WatchedParameter {
    const char* object;
    const char* parameter;
    EventCode initCode;
    EventCode changedCode;
    int* initValueRead;
    int initLevel;
    OneTextFormat initLine;
    const char* initErrorLine;
};

}  // namespace

static constexpr WatchedParameter KWatched[] = {
    {
     .object = "OrvoService.HomeAutomation",
     .parameter = "ApplicationServer",
     .initCode = EVENT_APP_SERVER_URL_INIT,
     .changedCode = EVENT_APP_SERVER_URL_CHANGED,
     .initValueRead = &initValueRead_AppServerUrl,
     .initLevel = LEVEL_DEBUG,
     .initLine = "Application server URL init value: %s",
     .initErrorLine = "Error reading application server URL init value",
     },
    {
     .object = "OrvoService.HomeAutomation",
     .parameter = "CommunicationServer",
     .initCode = EVENT_COMM_SERVER_URL_INIT,
     .changedCode = EVENT_COMM_SERVER_URL_CHANGED,
     .initValueRead = &initValueRead_CommServerUrl,
     .initLevel = LEVEL_DEBUG,
     .initLine = "Communication server URL init value: %s",
     .initErrorLine = "Error reading communication server URL init value",
     },
    {
     .object = "NMC.HomeAutomation",
     .parameter = "HA-ID",
     .initCode = EVENT_HA_ID_INIT,
     .changedCode = EVENT_HA_ID_CHANGED,
     .initValueRead = &initValueRead_HaId,
     .initLevel = LEVEL_INFO,
     .initLine = "HA-ID init value: %s",
     .initErrorLine = "Error reading HA-ID init value",
     },
    {
     .object = "NMC.HomeAutomation",
     .parameter = "Enable",
     .initCode = EVENT_HA_ENABLE_INIT,
     .changedCode = EVENT_HA_ENABLE_CHANGED,
     .initValueRead = &initValueRead_HaEnable,
     .initLevel = LEVEL_INFO,
     .initLine = "HA enabled init value: %s",
     .initErrorLine = "Error reading HA enabled init value",
     },
    {
     .object = "DNS.Server",
     .parameter = "Status",
     .initCode = EVENT_DNS_SERVER_STATUS_INIT,
     .changedCode = EVENT_DNS_SERVER_STATUS_CHANGED,
     .initValueRead = &initValueRead_DnsServerStatus,
     .initLevel = LEVEL_INFO,
     .initLine = "DNS Server status init value: %s",
     .initErrorLine = "Error reading DNS Server status init value",
     },
    {
     .object = getPcbObjectPathForDynDns(),
     .parameter = getPcbParameterDynDnsEnable(),
     .initCode = EVENT_DYNDNS_ENABLE_INIT,
     .changedCode = EVENT_DYNDNS_ENABLE_CHANGED,
     .initValueRead = &initValueRead_DynDnsEnabled,
     .initLevel = LEVEL_INFO,
     .initLine = "DynDNS enabled init value: %s",
     .initErrorLine = "Error reading DynDNS init value",
     },
};

static request_t* iSubscriptions[std::size(KWatched)];  // null after the last

// Whether a row before this one is for the same object.
static bool isSubscribed(const WatchedParameter* watched) {
    for (const WatchedParameter* earlier = KWatched; earlier < watched; ++earlier) {
        if (strcmp(earlier->object, watched->object) == 0) return true;
    }
    return false;
}

bool watchParameters() {
    bool complete = true;
    request_t** next = iSubscriptions;
    for (const WatchedParameter& watched : KWatched) {
        if (isSubscribed(&watched)) continue;
        *next = listenToChangesInPcbObject(watched.object);
        complete = complete && *next;
        ++next;
    }
    return complete;
}

void renewParameterWatch() {
    request_t** next = iSubscriptions;
    for (const WatchedParameter& watched : KWatched) {
        if (isSubscribed(&watched)) continue;
        request_t*& subscription = *next++;
        if (*watched.initValueRead) continue;
        freePcbRequestObject(subscription);
        subscription = listenToChangesInPcbObject(watched.object);
    }
}

void releaseParameterWatch() {
    for (request_t*& subscription : iSubscriptions) {
        freePcbRequestObject(subscription);
        subscription = nullptr;
    }
}

static void handleInitialValue(const WatchedParameter& watched, object_t* object) {
    *watched.initValueRead = 1;
    const OwnedText value = easyGetPcbParamByName(object, watched.parameter);
    if (!value) {
        LOG(ERROR, "%s", watched.initErrorLine);
        return;
    }
    LOG_TEXT(watched.initLevel, watched.initLine, value.get());
    sendValueThroughPipe(watched.initCode, value.get());
    if (watched.initCode == EVENT_DNS_SERVER_STATUS_INIT && isDataModelTrue(value.get())) {
        checkCgNatAtStart();
    }
}

void pcbObjectChanged(const char* path, object_t* object) {
    for (const WatchedParameter& watched : KWatched) {
        if (!*watched.initValueRead && strcmp(path, watched.object) == 0) handleInitialValue(watched, object);
    }
}

bool areInitialValuesSent() {
    bool sent = true;
    for (const WatchedParameter& watched : KWatched) {
        sent = sent && *watched.initValueRead;
    }
    return sent;
}

// The code of a watched parameter's change, or EVENT_COUNT for a parameter that is not watched.
static EventCode changedCodeOf(const char* path, const char* parameter) {
    for (const WatchedParameter& watched : KWatched) {
        if (strcmp(path, watched.object) == 0 && strcmp(parameter, watched.parameter) == 0) return watched.changedCode;
    }
    return isWanAddress(path, parameter) ? EVENT_WAN_ADDRESS_CHANGED : EVENT_COUNT;
}

void pcbParamChanged(const char* path, const char* parameter, const char* oldValue, const char* newValue) {
    const EventCode code = changedCodeOf(path, parameter);
    if (code == EVENT_COUNT) return;

    LOG(DEBUG, "Change in observed PCB parameter");
    LOG(DEBUG, "OBJECT=%s", path);
    LOG(DEBUG, "PARAMETER=%s", parameter);
    LOG(DEBUG, "OLD_VALUE=%s", oldValue);
    LOG(DEBUG, "NEW_VALUE=%s", newValue);
    sendValueThroughPipe(code, newValue);

    if (code != EVENT_DNS_SERVER_STATUS_CHANGED && code != EVENT_WAN_ADDRESS_CHANGED) return;
    // The same rule for both: only "true" or "1" starts a check. A list of addresses starts none.
    if (isDataModelTrue(newValue)) checkCgNatAgain();
}
