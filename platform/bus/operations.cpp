// What clients ask of the bus, one row an operation.
#include <cmath>
#include <cstdint>
#include <cstring>

#include "platform/bus/bus.h"

namespace {

/// One frame of a client.
struct Call {
    Client* client;
    uint64_t id;
    const cJSON* frame;
    const char* path;  // null when the frame has none

    void refuse(uint32_t code, const char* member = nullptr) const { sendError(client, id, code, path, member); }
};

}  // namespace

static void answerHello(const Call& call) {
    introduceClient(call.client, textOrEmpty(jsonText(call.frame, KWireName)),
                    cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(call.frame, KWirePlatform)));
    sendFrame(call.client, call.id, newAnswer(call.id));
}

// The parameter that a frame names; refuses and gives null when there is none.
static parameter_t* namedParameter(const Call& call, object_t* object) {
    const char* name = jsonText(call.frame, KWireParameter);
    if (!name) {
        call.refuse(PCB_ERROR_MALFORMED_REQUEST);
        return nullptr;
    }
    parameter_t* parameter = object_getParameter(object, name);
    if (!parameter) call.refuse(PCB_ERROR_UNKNOWN_PARAMETER, name);
    return parameter;
}

// The object that a frame names; refuses and gives null when there is none.
static object_t* namedObject(const Call& call) {
    if (!call.path) {
        call.refuse(PCB_ERROR_MALFORMED_REQUEST);
        return nullptr;
    }
    object_t* object = findObject(iBus.tree, call.path);
    if (!object) call.refuse(PCB_ERROR_UNKNOWN_OBJECT);
    return object;
}

static void answerGet(const Call& call) {
    object_t* object = namedObject(call);
    const parameter_t* parameter = object ? namedParameter(call, object) : nullptr;
    if (!parameter) return;
    OwnedJson answer = newAnswer(call.id);
    if (answer && !addJsonText(answer.get(), KWireValue, parameter->text())) answer.reset();
    sendFrame(call.client, call.id, std::move(answer));
}

static void answerSet(const Call& call) {
    object_t* object = namedObject(call);
    parameter_t* parameter = object ? namedParameter(call, object) : nullptr;
    if (!parameter) return;
    const char* name = parameter->name.get();
    const char* text = jsonText(call.frame, KWireValue);
    if (!text) return call.refuse(PCB_ERROR_MALFORMED_REQUEST, name);
    if (parameter->readOnly && !isPlatform(call.client)) return call.refuse(PCB_ERROR_READ_ONLY, name);
    if (strlen(text) > KMaxValueLength) return call.refuse(PCB_ERROR_VALUE_TOO_LONG, name);
    if (!fitsType(parameter->type, text)) return call.refuse(PCB_ERROR_WRONG_TYPE, name);
    if (!changeValue(object, parameter, text)) return call.refuse(PCB_ERROR_NO_MEMORY, name);
    sendFrame(call.client, call.id, newAnswer(call.id));
}

static void answerObject(const Call& call) {
    const object_t* object = namedObject(call);
    if (!object) return;
    OwnedJson answer = newAnswer(call.id);
    if (answer && !addJson(answer.get(), KWireObject, objectToJson(object, -1))) answer.reset();
    sendFrame(call.client, call.id, std::move(answer));
}

// Whether a member is missing or a whole number in the range.
static bool isMissingOrWhole(const cJSON* frame, const char* name, double least, double most) {
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(frame, name);
    return !item || (cJSON_IsNumber(item) && item->valuedouble >= least && item->valuedouble <= most &&
                     floor(item->valuedouble) == item->valuedouble);
}

static void answerSubscribe(const Call& call) {
    if (!isMissingOrWhole(call.frame, KWireDepth, INT32_MIN, INT32_MAX) ||
        !isMissingOrWhole(call.frame, KWireFlags, 0, UINT32_MAX)) {
        return call.refuse(PCB_ERROR_MALFORMED_REQUEST);
    }
    if (holdsWord(textOrEmpty(valueOf("Simulation.Objects", "Refused")), textOrEmpty(call.path))) {
        return call.refuse(PCB_ERROR_UNKNOWN_OBJECT);
    }
    if (namedObject(call)) subscribe(call.client, call.id, call.frame);
}

// An argument is a text, or an object that stands for a map.
static bool areArguments(const cJSON* arguments) {
    if (!arguments) return true;
    if (!cJSON_IsObject(arguments)) return false;
    const cJSON* argument = nullptr;
    cJSON_ArrayForEach(argument, arguments) {
        if (!cJSON_IsString(argument) && !cJSON_IsObject(argument)) return false;
    }
    return true;
}

static void answerCall(const Call& call) {
    const bool usable = call.path && jsonText(call.frame, KWireFunction) &&
                        areArguments(cJSON_GetObjectItemCaseSensitive(call.frame, KWireArguments));
    if (!usable) return call.refuse(PCB_ERROR_MALFORMED_REQUEST);
    callFunction(call.client, call.id, call.frame);
}

static void cancelRequest(const Call& call) {
    const uint64_t request = jsonCount(call.frame, KWireRequest);
    cancelSubscription(call.client, request);
    cancelCall(call.client, request);
}

static constexpr struct {
    const char* name;
    void (*answer)(const Call& call);
} KOperations[] = {
    {"hello",     answerHello    },
    {"get",       answerGet      },
    {"set",       answerSet      },
    {"object",    answerObject   },
    {"subscribe", answerSubscribe},
    {"call",      answerCall     },
    {"cancel",    cancelRequest  },
};

void handleFrame(Client* client, const cJSON* frame) {
    const Call call = {client, jsonCount(frame, KWireId), frame, jsonText(frame, KWirePath)};
    const char* name = jsonText(frame, KWireOperation);
    for (const auto& operation : KOperations) {
        if (strcmp(operation.name, name) == 0) return operation.answer(call);
    }
    call.refuse(PCB_ERROR_MALFORMED_REQUEST, name);
}
