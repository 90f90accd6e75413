#include "src/main/cgnat_check.h"

#include <cstdio>
#include <cstring>
#include <span>

#include "common/json/json.h"
#include "common/log/log.h"
#include "src/dbusinterface/data_model_names.h"
#include "src/dbusinterface/event_record.h"
#include "src/main/event_writer.h"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "src/main";

request_t* iRequestWanChangeNotify;

static request_t* iCloseQuery;
static request_t* iOpenQuery;
static char iPcbObjectPathForIntfDataQuery[100];
static request_t* iCheckCgNatOnInit;
static request_t* iCheckCgNatOnParamChange;
static constexpr request_t** KChecks[] = {&iCheckCgNatOnInit, &iCheckCgNatOnParamChange};
static int iInitValueRead_CgNatStatus;
static int iPreviousValue_CgNatStatus;

namespace {

struct TextParameter {
    const char* name;
    const char* value;
};

}  // namespace

// A call on the query object with all of its parameters, or null. A call that lacks one would ask for something else,
// and its answer would be taken for this one's.
static request_t* prepareQuery(const char* function, std::span<const TextParameter> parameters) {
    request_t* request = prepareToExecutePcbFunction(KWanObject, function);
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

bool startWanQuery() {
    // A daemon that was killed has left its query open.
    iCloseQuery = executeWanChangeQuery("closeQuery");
    iOpenQuery = executeWanChangeQuery("openQuery");
    return iCloseQuery && iOpenQuery;
}

bool isWanAddress(const char* path, const char* parameter) {
    return strcmp(path, iPcbObjectPathForIntfDataQuery) == 0 && strcmp(parameter, KWanAddresses) == 0;
}

void checkCgNatAtStart() { iCheckCgNatOnInit = startCgNatCheck(); }

void checkCgNatAgain() {
    if (iCheckCgNatOnParamChange) {
        LOG(WARN, "Previous CG-NAT check is still pending!");
        return;
    }
    iCheckCgNatOnParamChange = startCgNatCheck();
}

void renewCgNatCheck() {
    for (request_t** check : KChecks) {
        freePcbRequestObject(*check);
        *check = nullptr;
    }
    checkCgNatAgain();
    freePcbRequestObject(iCloseQuery);
    freePcbRequestObject(iOpenQuery);
    (void)startWanQuery();
}

static void handleOpenQueryResult(const char* result) {
    const OwnedJson parsed = parseJson(result);
    if (!parsed) return;
    const char* number = jsonTextMember(parsed.get(), "returns");
    if (!number || !*number) {
        LOG(ERROR, "Empty query number!");
        return;
    }
    if (strlen(KWanQueryPrefix) + strlen(number) >= sizeof iPcbObjectPathForIntfDataQuery) {
        // A truncated path would name another query.
        LOG(ERROR, "Query number too long: %s", number);
        return;
    }
    snprintf(iPcbObjectPathForIntfDataQuery, sizeof iPcbObjectPathForIntfDataQuery, "%s%s", KWanQueryPrefix, number);
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
    if (iInitValueRead_CgNatStatus && truth == iPreviousValue_CgNatStatus) return;
    const EventCode code = iInitValueRead_CgNatStatus ? EVENT_CGNAT_STATUS_CHANGED : EVENT_CGNAT_STATUS_INIT;
    // A result that was not sent counts as not seen: the next one is sent even if it is the same.
    if (!sendValueThroughPipe(code, status)) return;
    iInitValueRead_CgNatStatus = 1;
    iPreviousValue_CgNatStatus = truth;
}

static void handleHasFlagResult(const char* result) {
    const OwnedJson parsed = parseJson(result);
    const char* status = jsonTextMember(parsed.get(), "returns");
    if (status) sendCgNatStatus(status);
    // Both ask the same, so one answer ends them both.
    for (request_t** check : KChecks) {
        freePcbRequestObjectAsync(*check);
        *check = nullptr;
    }
}

void pcbFunctionCallback(const char* path, const char* function, const char* result) {
    LOG(DEBUG, "OBJECT=%s", path);
    LOG(DEBUG, "FUNCTION=%s", function);
    LOG(DEBUG, "RESULT=%s", result);
    if (strcmp(path, KWanObject) != 0) return;
    if (strcmp(function, "openQuery") == 0) return handleOpenQueryResult(result);
    if (strcmp(function, "hasFlag") == 0) return handleHasFlagResult(result);
}

void pcbRequestLost(request_t* request) {
    for (request_t** check : KChecks) {
        if (*check == request) *check = nullptr;
    }
}

void releaseCgNatCheck() {
    for (request_t** request :
         {&iCloseQuery, &iOpenQuery, &iRequestWanChangeNotify, &iCheckCgNatOnInit, &iCheckCgNatOnParamChange}) {
        freePcbRequestObject(*request);
        *request = nullptr;
    }
}
