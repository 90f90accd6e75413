#include "src/main/data_model_watch.h"

#include <cstring>
#include <utility>

#include "common/log/one_text_format.h"
#include "src/dbusinterface/data_model_names.h"
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

// What a value causes: the event, and what a true one starts besides; null for nothing.
struct Effect {
    EventCode event;
    void (*whenTrue)() = nullptr;
};

struct WatchedParameter {
    const char* object;
    const char* parameter;
    Effect onFirstValue;
    Effect onChange;
    int* initValueRead;
    int initLevel;
    OneTextFormat initLine;
    const char* initErrorLine;
};

}  // namespace

static constexpr WatchedParameter KWatched[] = {
    WatchedParameter{
                     .object = KServersObject,
                     .parameter = KApplicationServer,
                     .onFirstValue = {EVENT_APP_SERVER_URL_INIT},
                     .onChange = {EVENT_APP_SERVER_URL_CHANGED},
                     .initValueRead = &initValueRead_AppServerUrl,
                     .initLevel = LEVEL_DEBUG,
                     .initLine = "Application server URL init value: %s",
                     .initErrorLine = "Error reading application server URL init value",
                     },
    WatchedParameter{
                     .object = KServersObject,
                     .parameter = KCommunicationServer,
                     .onFirstValue = {EVENT_COMM_SERVER_URL_INIT},
                     .onChange = {EVENT_COMM_SERVER_URL_CHANGED},
                     .initValueRead = &initValueRead_CommServerUrl,
                     .initLevel = LEVEL_DEBUG,
                     .initLine = "Communication server URL init value: %s",
                     .initErrorLine = "Error reading communication server URL init value",
                     },
    WatchedParameter{
                     .object = KHomeAutomationObject,
                     .parameter = KHomeAutomationId,
                     .onFirstValue = {EVENT_HA_ID_INIT},
                     .onChange = {EVENT_HA_ID_CHANGED},
                     .initValueRead = &initValueRead_HaId,
                     .initLevel = LEVEL_INFO,
                     .initLine = "HA-ID init value: %s",
                     .initErrorLine = "Error reading HA-ID init value",
                     },
    WatchedParameter{
                     .object = KHomeAutomationObject,
                     .parameter = KHomeAutomationEnable,
                     .onFirstValue = {EVENT_HA_ENABLE_INIT},
                     .onChange = {EVENT_HA_ENABLE_CHANGED},
                     .initValueRead = &initValueRead_HaEnable,
                     .initLevel = LEVEL_INFO,
                     .initLine = "HA enabled init value: %s",
                     .initErrorLine = "Error reading HA enabled init value",
                     },
    WatchedParameter{
                     .object = KDnsServerObject,
                     .parameter = KDnsServerStatus,
                     .onFirstValue = {EVENT_DNS_SERVER_STATUS_INIT, checkCgNatAtStart},
                     .onChange = {EVENT_DNS_SERVER_STATUS_CHANGED, checkCgNatAgain},
                     .initValueRead = &initValueRead_DnsServerStatus,
                     .initLevel = LEVEL_INFO,
                     .initLine = "DNS Server status init value: %s",
                     .initErrorLine = "Error reading DNS Server status init value",
                     },
    WatchedParameter{
                     .object = KDynDnsObject,
                     .parameter = KDynDnsEnable,
                     .onFirstValue = {EVENT_DYNDNS_ENABLE_INIT},
                     .onChange = {EVENT_DYNDNS_ENABLE_CHANGED},
                     .initValueRead = &initValueRead_DynDnsEnabled,
                     .initLevel = LEVEL_INFO,
                     .initLine = "DynDNS enabled init value: %s",
                     .initErrorLine = "Error reading DynDNS init value",
                     },
};

// Only "true" or "1" starts a check here, too: a list of addresses starts none.
static constexpr Effect KWanAddressChange = {EVENT_WAN_ADDRESS_CHANGED, checkCgNatAgain};

static void (*iInitialValuesCallback)();

void setInitialValuesCallback(void (*callback)()) { iInitialValuesCallback = callback; }

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

static void sendValue(const Effect& effect, const char* value) {
    sendValueThroughPipe(effect.event, value);
    if (effect.whenTrue && isDataModelTrue(value)) effect.whenTrue();
}

static void handleInitialValue(const WatchedParameter& watched, object_t* object) {
    *watched.initValueRead = 1;
    const OwnedText value = easyGetPcbParamByName(object, watched.parameter);
    if (!value) {
        LOG(ERROR, "%s", watched.initErrorLine);
        return;
    }
    LOG_TEXT(watched.initLevel, watched.initLine, value.get());
    sendValue(watched.onFirstValue, value.get());
}

static bool areInitialValuesSent() {
    bool sent = true;
    for (const WatchedParameter& watched : KWatched) {
        sent = sent && *watched.initValueRead;
    }
    return sent;
}

void pcbObjectChanged(const char* path, object_t* object) {
    for (const WatchedParameter& watched : KWatched) {
        if (!*watched.initValueRead && strcmp(path, watched.object) == 0) handleInitialValue(watched, object);
    }
    if (!areInitialValuesSent()) return;
    if (const auto callback = std::exchange(iInitialValuesCallback, nullptr)) callback();
}

// What a change of this parameter causes; null for one that is not watched.
static const Effect* findEffect(const char* path, const char* parameter) {
    for (const WatchedParameter& watched : KWatched) {
        if (strcmp(path, watched.object) == 0 && strcmp(parameter, watched.parameter) == 0) return &watched.onChange;
    }
    return isWanAddress(path, parameter) ? &KWanAddressChange : nullptr;
}

void pcbParamChanged(const char* path, const char* parameter, const char* oldValue, const char* newValue) {
    const Effect* effect = findEffect(path, parameter);
    if (!effect) return;

    LOG(DEBUG, "Change in observed PCB parameter");
    LOG(DEBUG, "OBJECT=%s", path);
    LOG(DEBUG, "PARAMETER=%s", parameter);
    LOG(DEBUG, "OLD_VALUE=%s", oldValue);
    LOG(DEBUG, "NEW_VALUE=%s", newValue);
    sendValue(*effect, newValue);
}
