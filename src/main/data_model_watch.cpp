#include "src/main/data_model_watch.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <span>

#include "common/json/json.h"
#include "common/log/one_text_format.h"
#include "src/dbusinterface/event_record.h"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "src/main";

static constexpr char KQueryObject[] = "NeMo.Intf.data";
static constexpr char KQueryPathPrefix[] = "NeMo.Intf.data.Query.";

int* iPipeForPcbChanges;
request_t* iRequestWanChangeNotify;

static int initValueRead_AppServerUrl;
static int initValueRead_CommServerUrl;
static int initValueRead_HaId;
static int initValueRead_HaEnable;
static int initValueRead_DnsServerStatus;
static int initValueRead_DynDnsEnabled;
static char iPcbObjectPathForIntfDataQuery[100];
static request_t* iCheckCgNatOnInit;
static request_t* iCheckCgNatOnParamChange;
static int iInitValueRead_CgNatStatus;
static int iPreviousValue_CgNatStatus;

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

// clang-format off
static constexpr WatchedParameter KWatched[] = {
    {"OrvoService.HomeAutomation", "ApplicationServer", EVENT_APP_SERVER_URL_INIT, EVENT_APP_SERVER_URL_CHANGED,
     &initValueRead_AppServerUrl, LEVEL_DEBUG,
     "Application server URL init value: %s", "Error reading application server URL init value"},
    {"OrvoService.HomeAutomation", "CommunicationServer", EVENT_COMM_SERVER_URL_INIT, EVENT_COMM_SERVER_URL_CHANGED,
     &initValueRead_CommServerUrl, LEVEL_DEBUG,
     "Communication server URL init value: %s", "Error reading communication server URL init value"},
    {"NMC.HomeAutomation", "HA-ID", EVENT_HA_ID_INIT, EVENT_HA_ID_CHANGED,
     &initValueRead_HaId, LEVEL_INFO,
     "HA-ID init value: %s", "Error reading HA-ID init value"},
    {"NMC.HomeAutomation", "Enable", EVENT_HA_ENABLE_INIT, EVENT_HA_ENABLE_CHANGED,
     &initValueRead_HaEnable, LEVEL_INFO,
     "HA enabled init value: %s", "Error reading HA enabled init value"},
    {"DNS.Server", "Status", EVENT_DNS_SERVER_STATUS_INIT, EVENT_DNS_SERVER_STATUS_CHANGED,
     &initValueRead_DnsServerStatus, LEVEL_INFO,
     "DNS Server status init value: %s", "Error reading DNS Server status init value"},
    {getPcbObjectPathForDynDns(), getPcbParameterDynDnsEnable(), EVENT_DYNDNS_ENABLE_INIT, EVENT_DYNDNS_ENABLE_CHANGED,
     &initValueRead_DynDnsEnabled, LEVEL_INFO,
     "DynDNS enabled init value: %s", "Error reading DynDNS init value"},
};
// clang-format on

// Waits until the pipe takes a record, or is full and the loop is to end; true when there is room. A write that blocks
// in a full pipe could not be left when SIGTERM arrives, so the signals are let in only while this waits.
static bool waitForRoomInPipe() {
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &ends, &before);
    pollfd writeEnd = {iPipeForPcbChanges[1], POLLOUT, 0};
    bool ready = false, mayWait = true;
    while (!ready && mayWait) {
        mayWait = !isPcbDataModelEventLoopEnding();
        const timespec atOnce = {};
        const int result = ppoll(&writeEnd, 1, mayWait ? nullptr : &atOnce, &before);
        // Another failure than an interruption is left to the write, which reports it.
        ready = result > 0 || (result < 0 && errno != EINTR);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return ready;
}

void sendValueThroughPipe(unsigned code, const char* value) {
    EventRecord record = {};
    record.code = code;
    if (value) {
        const size_t length = strlen(value);
        if (length > KEventValueMaxLength) {
            LOG(ERROR, "Parameter value too long: %s", value);
            return;
        }
        memcpy(record.value, value, length);
    }
    if (!waitForRoomInPipe()) return;
    if (write(iPipeForPcbChanges[1], &record, sizeof record) != sizeof record) {
        LOG(ERROR, "Failed to write to event pipe");
    }
}

namespace {

struct TextParameter {
    const char* name;
    const char* value;
};

}  // namespace

// A call on the query object with all of its parameters, or null: one that lacks a parameter would ask for something
// else, and its answer be believed.
static request_t* prepareQuery(const char* function, std::span<const TextParameter> parameters) {
    request_t* request = prepareToExecutePcbFunction(KQueryObject, function);
    for (const TextParameter& parameter : parameters) {
        if (addStringParameter(request, parameter.name, parameter.value)) continue;
        freePcbRequestObject(request);
        return nullptr;
    }
    return request;
}

request_t* executeWanChangeQuery(const char* function) {
    static constexpr TextParameter parameters[] = {
        {"subscriber", "orvoservicemanager"                 },
        {"class",      "getAddrs"                           },
        {"flag",       "global && !deprecated && !tentative"},
        {"traverse",   "down"                               },
    };
    return executePreparedPcbFunction(prepareQuery(function, parameters));
}

static request_t* startCgNatCheck() {
    static constexpr TextParameter parameters[] = {
        {"flag", "cgnat"},
    };
    return executePreparedPcbFunctionAsync(prepareQuery("hasFlag", parameters));
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
        iCheckCgNatOnInit = startCgNatCheck();
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
    const bool isWanQuery = strcmp(path, iPcbObjectPathForIntfDataQuery) == 0 && strcmp(parameter, "ResultString") == 0;
    return isWanQuery ? EVENT_WAN_ADDRESS_CHANGED : EVENT_COUNT;
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
    if (!isDataModelTrue(newValue)) return;
    if (iCheckCgNatOnParamChange) {
        LOG(WARN, "Previous CG-NAT check is still pending!");
        return;
    }
    iCheckCgNatOnParamChange = startCgNatCheck();
}

static void handleOpenQueryResult(const char* result) {
    const OwnedJson parsed = parseJson(result);
    if (!parsed) return;
    const char* number = jsonTextMember(parsed.get(), "returns");
    if (!number || !*number) {
        LOG(ERROR, "Empty query number!");
        return;
    }
    if (strlen(KQueryPathPrefix) + strlen(number) >= sizeof iPcbObjectPathForIntfDataQuery) {
        // A cut path would name another query.
        LOG(ERROR, "Query number too long: %s", number);
        return;
    }
    snprintf(iPcbObjectPathForIntfDataQuery, sizeof iPcbObjectPathForIntfDataQuery, "%s%s", KQueryPathPrefix, number);
    LOG(DEBUG, "QueryPath=%s", iPcbObjectPathForIntfDataQuery);
    freePcbRequestObjectAsync(iRequestWanChangeNotify);
    iRequestWanChangeNotify = listenToChangesInPcbObject(iPcbObjectPathForIntfDataQuery);
    if (iRequestWanChangeNotify) {
        LOG(INFO, "Listening to changes in: %s", iPcbObjectPathForIntfDataQuery);
    } else {
        LOG(ERROR, "Cannot listen to changes in: %s", iPcbObjectPathForIntfDataQuery);
    }
}

static void sendCgNatStatus(const char* status) {
    const int truth = isDataModelTrue(status);
    if (!iInitValueRead_CgNatStatus) {
        iInitValueRead_CgNatStatus = 1;
        sendValueThroughPipe(EVENT_CGNAT_STATUS_INIT, status);
    } else if (truth != iPreviousValue_CgNatStatus) {
        sendValueThroughPipe(EVENT_CGNAT_STATUS_CHANGED, status);
    }
    iPreviousValue_CgNatStatus = truth;
}

static void handleHasFlagResult(const char* result) {
    const OwnedJson parsed = parseJson(result);
    const char* status = jsonTextMember(parsed.get(), "returns");
    if (status) sendCgNatStatus(status);
    for (request_t** check : {&iCheckCgNatOnInit, &iCheckCgNatOnParamChange}) {
        freePcbRequestObjectAsync(*check);
        *check = nullptr;
    }
}

void pcbFunctionCallback(const char* path, const char* function, const char* result) {
    LOG(DEBUG, "OBJECT=%s", path);
    LOG(DEBUG, "FUNCTION=%s", function);
    LOG(DEBUG, "RESULT=%s", result);
    if (strcmp(path, KQueryObject) != 0) return;
    if (strcmp(function, "openQuery") == 0) return handleOpenQueryResult(result);
    if (strcmp(function, "hasFlag") == 0) return handleHasFlagResult(result);
}

void pcbRequestLost(request_t* request) {
    for (request_t** check : {&iCheckCgNatOnInit, &iCheckCgNatOnParamChange}) {
        if (*check == request) *check = nullptr;
    }
}

void releasePendingCgNatChecks() {
    for (request_t** check : {&iCheckCgNatOnInit, &iCheckCgNatOnParamChange}) {
        freePcbRequestObject(*check);
        *check = nullptr;
    }
}
