// Function calls on data-model objects, and their results as JSON.
#include <sys/time.h>

#include "common/gate/gate.h"
#include "common/json/json.h"
#include "pcblib/pcbclient_internal.h"

static PcbFunctionCallback iFunctionExecuteCallback;
static char* iLastFunctionResult;  // owned; of the last call of easyExecutePcbFunction

void setPcbFunctionCallback(PcbFunctionCallback callback) { iFunctionExecuteCallback = callback; }

// ----- Building and sending

request_t* prepareToExecutePcbFunction(const char* path, const char* function) {
    return keepRequest(request_create_executeFunction(path, function, KCallAsynchronous));
}

// Adds the value that `fill` puts into a variant. 0 without a request, a name or content, or when `fill` fails.
template <class Value, class Fill>
static int addParameter(request_t* request, const char* name, Value* content, const Fill& fill) {
    if (!request || !name || !content) return 0;
    ScopedVariant value;
    return value.ready && fill(&value.variant, content) && request_addParameter(request, name, &value.variant);
}

int addStringParameter(request_t* request, const char* name, const char* value) {
    return addParameter(request, name, value, [](auto* to, auto* text) { return variant_setChar(to, text); });
}

int addMapParameter(request_t* request, const char* name, variant_map_t* map) {
    return addParameter(request, name, map, [](auto* to, auto* from) {
        if (!variant_setMapMove(to, from)) return false;
        (void)variant_map_initialize(from);  // a library may leave it uninitialised
        return true;
    });
}

variant_map_t* createMapParameter() {
    variant_map_t* map = static_cast<variant_map_t*>(malloc(sizeof(variant_map_t)));
    if (map) variant_map_initialize(map);
    return map;
}

int addStringParameterToMap(variant_map_t* map, const char* key, const char* value) {
    return variant_map_addChar(map, key, value);
}

int addIntParameterToMap(variant_map_t* map, const char* key, int value) {
    return variant_map_addInt32(map, key, value);
}

int addBoolParameterToMap(variant_map_t* map, const char* key, int flag) {
    return variant_map_addBool(map, key, flag != 0);
}

void freeMapParameter(variant_map_t* map) {
    if (!map) return;
    // Empty once it was added to a call; what was never added goes with this variant.
    ScopedVariant rest;
    if (rest.ready) (void)variant_setMapMove(&rest.variant, map);
    free(map);
}

bool sendPreparedFunction(request_t* request) {
    request_setReplyItemHandler(request, handleAsyncFunctionReturn);
    return sendRequest(iPcbContext, request);
}

request_t* executePreparedPcbFunction(request_t* request) {
    if (!request || sendPreparedFunction(request)) return request;
    freePcbRequestObject(request);
    return nullptr;
}

request_t* executePreparedPcbFunctionAsync(request_t* request) {
    if (!request) return nullptr;
    if (!pushPendingExecution(request)) {
        LOG(ERROR, "No memory to queue request");
        freePcbRequestObject(request);
        return nullptr;
    }
    wakeEventLoop();
    return request;
}

request_t* executePcbFunction(const char* path, const char* function) {
    return executePreparedPcbFunction(prepareToExecutePcbFunction(path, function));
}

// ----- Results

// A new text; null for no value, and for one that cannot be converted.
template <class Variant>
static OwnedText textOf(Variant* value) {
    return OwnedText(value ? variant_char(value) : nullptr);
}

template <class List>
static bool addArguments(cJSON* result, List* arguments) {
    for (auto* argument = argument_valueFirstArgument(arguments); argument;
         argument = argument_valueNextArgument(argument)) {
        const char* name = textOrEmpty(argument_valueName(argument));
        const OwnedText value = textOf(argument_value(argument));
        LOG(DEBUG, "Arg: name = %s, value = %s", name, value.get());
        if (!addJsonStringOrNull(result, name, value.get())) return false;
    }
    return true;
}

// Null when out of memory: a result that lacks a member would look like another answer.
static OwnedText functionReturnToJson(reply_item_t* item) {
    const OwnedJson result(cJSON_CreateObject());
    const OwnedText returned = textOf(reply_item_returnValue(item));
    if (!addJsonStringOrNull(result.get(), "returns", returned.get())) return nullptr;
    auto* arguments = reply_item_returnArguments(item);
    if (arguments && !addArguments(result.get(), arguments)) return nullptr;
    return printJson(result.get());
}

OwnedText functionExecutionResultToJson(reply_item_t* item) {
    if (reply_item_type(item) != KReplyFunctionReturn) return nullptr;
    return functionReturnToJson(item);
}

int handleAsyncFunctionReturn(request_t* request, reply_item_t* item) {
    LOG(DEBUG, "Pcb function return");
    const int type = reply_item_type(item);
    if (type == KReplyError) logErrorItem(item);
    if (type == KReplyFunctionReturn && iFunctionExecuteCallback) {
        const OwnedText result = functionReturnToJson(item);
        iFunctionExecuteCallback(request_path(request), request_functionName(request), result.get());
    }
    return 1;
}

// ----- The call that waits

static int handleSyncFunctionReturn(request_t* request, reply_item_t* item) {
    LOG(DEBUG, "Pcb function return");
    const int type = reply_item_type(item);
    if (type == KReplyError) logErrorItem(item);
    if (type == KReplyFunctionReturn) {
        LOG(DEBUG, "Function executed: object = %s, function = %s", request_path(request),
            request_functionName(request));
        free(iLastFunctionResult);
        iLastFunctionResult = functionReturnToJson(item).release();
    }
    return 1;
}

// Waits once. An event that is not the answer ends the wait, too.
static void waitForResult(connection_info_t* connection) {
    ConnectionList connections(connection);
    if (!connection) setNotConnected();
    timeval limit = {5, 0};
    const int events =
        connections.ready ? outsideGate([&] { return connection_waitForEvents(&connections.list, &limit); }) : -1;
    if (events < 0) {
        logWaitFailure();
    } else if (events == 0) {
        LOG(WARN, "Easy execute PCB function - timeout");
    } else {
        connection_handleEvents(&connections.list);
    }
}

const char* easyExecutePcbFunction(PcbContext* context, const char* path, const char* function) {
    if (!context) return nullptr;
    LOG(DEBUG, "Easy execute PCB function - start");
    const OwnedRequest request(request_create_executeFunction(path, function, KCallSynchronous));
    if (!request) {
        logCreateFailure();
        return nullptr;
    }
    request_setReplyItemHandler(request.get(), handleSyncFunctionReturn);
    if (!sendRequest(context, request.get())) return nullptr;
    free(iLastFunctionResult);
    iLastFunctionResult = nullptr;
    waitForResult(pcb_connection(context->pcb));
    LOG(DEBUG, "Easy execute PCB function - finished");
    return iLastFunctionResult;
}
