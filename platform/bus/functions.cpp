// The functions that the gateway's objects offer, and the queue of calls that wait for their answer.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "platform/bus/bus.h"

static constexpr char KSimulation[] = "Simulation.Functions";

namespace {

struct PendingCall {
    Client* client = nullptr;
    uint64_t id = 0;
    OwnedText path, function;
    OwnedJson arguments;
    int64_t asked = 0;  // milliseconds of the monotonic clock
    PendingCall* next = nullptr;
};

struct Result {
    uint32_t error = 0;
    OwnedJson returns;  // by its own type; none: the function returns nothing
    OwnedJson outArguments = nullptr;
};

}  // namespace

static PendingCall* firstCall = nullptr;
static event* callTimer = nullptr;

static Result runOpenQuery(object_t* data, const cJSON* arguments) {
    const OwnedText number = openQuery(data, arguments);
    OwnedJson returns(number ? cJSON_CreateNumber(strtod(number.get(), nullptr)) : nullptr);
    if (!returns) return {PCB_ERROR_NO_MEMORY, nullptr};
    return {0, std::move(returns)};
}

static Result runCloseQuery(object_t* data, const cJSON* arguments) {
    closeQuery(data, arguments);
    return {};
}

static Result runHasFlag(object_t* data, const cJSON* arguments) {
    const parameter_t* flags = object_getParameter(data, "Flags");
    const char* flag = textOrEmpty(jsonText(arguments, "flag"));
    OwnedJson returns(cJSON_CreateBool(flags && holdsWord(flags->text(), flag)));
    if (!returns) return {PCB_ERROR_NO_MEMORY, nullptr};
    return {0, std::move(returns)};
}

static Result runNotify(object_t*, const cJSON* arguments) {
    const char* path = jsonText(arguments, "object");
    if (!path || !findObject(iBus.tree, path)) return {PCB_ERROR_UNKNOWN_OBJECT, nullptr};
    notifyCustom(path, textOrEmpty(jsonText(arguments, "value")));
    return {};
}

// Adds each argument, and each member of a map, as an out-argument of its own type; false when out of memory.
static bool addEchoes(cJSON* outArguments, const cJSON* arguments) {
    const cJSON* argument = nullptr;
    cJSON_ArrayForEach(argument, arguments) {
        if (cJSON_IsObject(argument)) {
            if (!addEchoes(outArguments, argument)) return false;
            continue;
        }
        OwnedJson item(cJSON_CreateObject());
        const bool complete = item && addJsonText(item.get(), KWireName, argument->string) &&
                              addJson(item.get(), KWireValue, OwnedJson(cJSON_Duplicate(argument, false)));
        if (!complete || !cJSON_AddItemToArray(outArguments, item.get())) return false;
        (void)item.release();  // the array owns it now
    }
    return true;
}

// Gives its arguments back, in their order.
static Result runEcho(object_t*, const cJSON* arguments) {
    Result result = {0, nullptr, OwnedJson(cJSON_CreateArray())};
    if (addEchoes(result.outArguments.get(), arguments)) return result;
    return {PCB_ERROR_NO_MEMORY, nullptr};
}

static constexpr struct {
    const char *path, *name;
    Result (*run)(object_t* object, const cJSON* arguments);
} KFunctions[] = {
    {"NeMo.Intf.data", "openQuery",  runOpenQuery },
    {"NeMo.Intf.data", "closeQuery", runCloseQuery},
    {"NeMo.Intf.data", "hasFlag",    runHasFlag   },
    {KSimulation,      "notify",     runNotify    },
    {KSimulation,      "echo",       runEcho      },
};

static Result run(const PendingCall* call) {
    object_t* object = findObject(iBus.tree, call->path.get());
    if (!object) return {PCB_ERROR_UNKNOWN_OBJECT, nullptr};
    for (const auto& function : KFunctions) {
        if (strcmp(function.path, call->path.get()) != 0 || strcmp(function.name, call->function.get()) != 0) continue;
        if (holdsWord(textOrEmpty(valueOf(KSimulation, "Failing")), function.name)) {
            return {PCB_ERROR_FUNCTION_FAILED, nullptr};
        }
        return function.run(object, call->arguments.get());
    }
    return {PCB_ERROR_UNKNOWN_FUNCTION, nullptr};
}

static void serve(const PendingCall* call) {
    Result result = run(call);
    const char* function = call->function.get();
    if (result.error) {
        printf("pcb-bus: %.40s failed: %s\n", function, error_string(result.error));
        return sendError(call->client, call->id, result.error, call->path.get(), function);
    }
    const OwnedText returned = result.returns ? printJson(result.returns.get()) : nullptr;
    printf("pcb-bus: %.40s returned %s\n", function, returned ? returned.get() : "nothing");
    OwnedJson answer = newAnswer(call->id);
    const bool complete = answer && (!result.returns || addJson(answer.get(), KWireReturns, std::move(result.returns)));
    if (complete && result.outArguments) {
        cJSON_AddItemToObjectCS(answer.get(), KWireArguments, result.outArguments.release());
    }
    sendFrame(call->client, call->id, complete ? std::move(answer) : nullptr);
}

static int64_t now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1000000;
}

void serveDueCalls() {
    const long delay = millisecondsOf(KSimulation, "Delay", 0);
    while (firstCall && firstCall->asked + delay <= now()) {
        const OwnedRecord<PendingCall> call(firstCall);
        firstCall = call->next;
        serve(call.get());
    }
    if (!firstCall) return;
    const long rest = static_cast<long>(std::max<int64_t>(firstCall->asked + delay - now(), 1));
    const timeval time = {rest / 1000, rest % 1000 * 1000};
    event_base_update_cache_time(iBus.base);
    event_add(callTimer, &time);
}

void callFunction(Client* client, uint64_t id, const cJSON* frame) {
    const cJSON* arguments = cJSON_GetObjectItemCaseSensitive(frame, KWireArguments);
    auto call = newRecord<PendingCall>();
    if (!call) return sendError(client, id, PCB_ERROR_NO_MEMORY, nullptr, nullptr);
    call->client = client;
    call->id = id;
    call->path = copyText(jsonText(frame, KWirePath));
    call->function = copyText(jsonText(frame, KWireFunction));
    call->arguments.reset(arguments ? cJSON_Duplicate(arguments, true) : nullptr);
    if (!call->path || !call->function || (arguments && !call->arguments)) {
        return sendError(client, id, PCB_ERROR_NO_MEMORY, nullptr, nullptr);
    }
    call->asked = now();
    PendingCall** end = &firstCall;
    while (*end) {
        end = &(*end)->next;
    }
    *end = call.release();
    serveDueCalls();
}

template <class Condition>
static void removeIf(const Condition& condition) {
    for (PendingCall** link = &firstCall; *link;) {
        PendingCall* call = *link;
        if (!condition(call)) {
            link = &call->next;
            continue;
        }
        *link = call->next;
        const OwnedRecord<PendingCall> released(call);
    }
}

void cancelCall(const Client* client, uint64_t id) {
    removeIf([&](const PendingCall* call) { return call->client == client && call->id == id; });
}

void cancelCalls(const Client* client) {
    removeIf([&](const PendingCall* call) { return call->client == client; });
}

bool startFunctions() {
    callTimer = evtimer_new(
        iBus.base, [](evutil_socket_t, short, void*) { serveDueCalls(); }, nullptr);
    return callTimer;
}

void stopFunctions() {
    if (callTimer) event_free(callTimer);
}
