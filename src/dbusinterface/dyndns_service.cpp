#include "src/dbusinterface/dyndns_service.h"

#include <cstring>

#include "common/json/json.h"
#include "common/log/log.h"
#include "src/dbusinterface/data_model_names.h"
#include "src/dbusinterface/dyndns_registration.h"
#include "src/dbusinterface/dyndns_state.h"
#include "src/dbusinterface/dyndns_sync.h"
#include "src/dbusinterface/gateway_client.h"
#include "src/dbusinterface/service_store.h"
#include "src/dyndnsrequest/dyndnsrequest.h"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "src/dbusinterface";

message_bus* iDynDnsMessageBus;

static constexpr char KTrue[] = R"({"status":"OK","result":true})";
static constexpr char KFalse[] = R"({"status":"OK","result":false})";
static constexpr char KInvalidName[] = R"({"status":"INVALID_NAME","result":null})";
static constexpr char KNotSynchronized[] = R"({"status":"NOT_SYNCHRONIZED","result":null})";
static constexpr char KDbusError[] = R"({"status":"DBUS_ERROR","result":null})";
static constexpr char KOutOfMemory[] = R"({"status":"OUT_OF_MEMORY_ERROR","result":null})";
static constexpr char KServerConnectionError[] = R"({"status":"SERVER_CONNECTION_ERROR","result":null})";
static constexpr char KServerInternalError[] = R"({"status":"SERVER_INTERNAL_ERROR","result":null})";

static constexpr size_t KShortestName = 2;  // bytes
static constexpr size_t KLongestName = 63;

bool isLetterOrDigit(char c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

bool isDynDnsNameValid(const char* name) {
    if (!name) return false;
    const size_t length = strlen(name);
    if (length < KShortestName || length > KLongestName || !isLetterOrDigit(*name)) return false;
    for (const char* c = name + 1; *c; ++c) {
        if (!isLetterOrDigit(*c) && *c != '-') return false;
    }
    return true;
}

char* strtolower(const char* source, char* destination) {
    if (!source || !destination) return nullptr;
    for (size_t i = 0; source[i]; ++i) {
        const bool isCapital = source[i] >= 'A' && source[i] <= 'Z';
        destination[i] = isCapital ? static_cast<char>(source[i] - 'A' + 'a') : source[i];
    }
    return destination;
}

OwnedText generateDbusResponseJson_StringResult(const char* status, const char* result) {
    const OwnedJson reply(cJSON_CreateObject());
    if (!addJsonStringOrNull(reply.get(), "status", status) || !addJsonStringOrNull(reply.get(), "result", result)) {
        LOG(ERROR, "Cannot create json object");
        return nullptr;
    }
    OwnedText text = printJson(reply.get());
    if (!text) LOG(ERROR, "Cannot create json string");
    return text;
}

// A lowered copy of a name; null when out of memory (logged).
static OwnedText lowered(const char* name) {
    OwnedText copy = copyText(name);
    if (!copy) {
        LOG(ERROR, "No memory to lowercase name");
        return nullptr;
    }
    strtolower(copy.get(), copy.get());
    return copy;
}

static Reply answerIsEnabled(const MethodCall&) {
    LOG(INFO, "Dyn DNS IsEnabled requested");
    const OwnedText enable = easyGetPcbParamAsString(iBusPcbClient, KDynDnsObject, KDynDnsEnable);
    if (!enable) {
        LOG(ERROR, "Dyn DNS IsEnabled error");
        return KDbusError;
    }
    const bool enabled = isDataModelTrue(enable.get());
    LOG(INFO, enabled ? "Dyn DNS IsEnabled: true" : "Dyn DNS IsEnabled: false");
    return {enabled ? KTrue : KFalse, "Dyn DNS IsEnabled finished"};
}

static Reply answerGetName(const MethodCall&) {
    LOG(INFO, "Dyn DNS GetName requested");
    const OwnedText name = easyGetPcbParamAsString(iBusPcbClient, KDynDnsObject, KHostName);
    if (!name) {
        LOG(ERROR, "Dyn DNS GetName error");
        return KDbusError;
    }
    OwnedText reply = generateDbusResponseJson_StringResult("OK", *name ? name.get() : nullptr);
    if (!reply) return KOutOfMemory;
    LOG(INFO, "Dyn DNS GetName response: %s", reply.get());
    return {std::move(reply), "Dyn DNS GetName finished"};
}

// The reply to a server's answer about a name.
static const char* nameTakenReply(const char* body) {
    LOG(INFO, "Dyn DNS IsNameTaken OK: %s", body);
    const OwnedJson answer = parseSuccessfulAnswer(body, "Dyn DNS status error: %s");
    const cJSON* available = cJSON_GetObjectItem(answer.get(), "available");
    if (!available) return KServerInternalError;
    const bool taken = !cJSON_IsTrue(available);
    LOG(INFO, taken ? "Dyn DNS IsNameTaken: true" : "Dyn DNS IsNameTaken: false");
    return taken ? KTrue : KFalse;
}

static const char* isNameTaken(const char* name) {
    if (!name || !*name) {
        LOG(ERROR, "Name is empty");
        return KInvalidName;
    }
    if (!isDynDnsNameValid(name)) {
        LOG(ERROR, "Invalid name: %s", name);
        return KInvalidName;
    }
    const OwnedText lower = lowered(name);
    if (!lower) return KOutOfMemory;
    const OwnedText body = verifyDynDnsName(lower.get());
    if (!body) {
        LOG(ERROR, "Dyn DNS IsNameTaken error");
        return KServerConnectionError;
    }
    return nameTakenReply(body.get());
}

static Reply answerIsNameTaken(const MethodCall& call) {
    LOG(INFO, "Dyn DNS IsNameTaken requested");
    return {isNameTaken(call.firstArgument), "Dyn DNS IsNameTaken finished"};
}

// Reads Configure's arguments.
static Refusal readConfigureArguments(DBusMessage* message, int* enabled, OwnedText* name) {
    if (!get_first_argument_bool_value(message, enabled)) return KDbusError;
    LOG(INFO, *enabled ? "Enabled: true" : "Enabled: false");
    const char* given = get_second_argument_string_value(message);
    if (!given) {
        LOG(ERROR, "Null argument 2");
        return KInvalidName;
    }
    if (*given && !isDynDnsNameValid(given)) {
        LOG(ERROR, "Invalid name: %s", given);
        return KInvalidName;
    }
    *name = lowered(given);
    return *name ? nullptr : KOutOfMemory;
}

// Registers the name on the server.
static Refusal configureOnServer(int enabled, const char* name) {
    if (!*iHomeAutomationId || iHomeAutomationEnable != TRI_TRUE) {
        LOG(WARN, "HA-ID not available");
        return KNotSynchronized;
    }
    const DynDnsConfiguration record = {iHomeAutomationId, name, enabled};
    const OwnedText body = withGatewayClient([&] { return setDynDnsConfiguration(record); });
    if (!body) {
        LOG(ERROR, "Dyn DNS Configure error");
        return KServerConnectionError;
    }
    LOG(INFO, "Dyn DNS Configure OK: %s", body.get());
    return parseSuccessfulAnswer(body.get(), "Failed to configure DynDNS: %s") ? nullptr : KServerInternalError;
}

static Reply answerConfigure(const MethodCall& call) {
    LOG(INFO, "Dyn DNS Configure requested");
    int enabled = 0;
    OwnedText name;
    if (const Refusal refusal = readConfigureArguments(call.message, &enabled, &name)) return refusal;
    if (const Refusal refusal = configureOnServer(enabled, name.get())) return refusal;
    forgetOwedPush();
    // The reply says what the server accepted, even when the data model refuses the values.
    if (!storeDynDnsEnable(enabled)) LOG(ERROR, "Cannot set DynDNS enable value in PCB");
    (void)storeDynDnsHostName(name.get());
    saveOrvoServiceData();
    return {KTrue, "Dyn DNS Configure response: true", "Dyn DNS Configure finished"};
}

static Reply answerSetEnabled(const MethodCall& call) {
    LOG(INFO, "Dyn DNS SetEnabled requested");
    int enabled = 0;
    if (!get_first_argument_bool_value(call.message, &enabled)) return false;
    LOG(INFO, enabled ? "Requested enabled=true" : "Requested enabled=false");
    if (!easySetPcbParamBoolValue(iBusPcbClient, KDynDnsObject, KDynDnsEnable, enabled)) {
        LOG(ERROR, "Cannot SetEnabled DynDNS value in PCB");
        return false;
    }
    return {true, "Dyn DNS SetEnabled finished"};
}

static constexpr Method KMethods[] = {
    {"IsEnabled",   "",   false, answerIsEnabled  },
    {"GetName",     "",   false, answerGetName    },
    {"IsNameTaken", "s",  true,  answerIsNameTaken},
    {"Configure",   "bs", true,  answerConfigure  },
    {"SetEnabled",  "b",  true,  answerSetEnabled },
};

constexpr BusService KDynDnsService = {
    .sourcePath = KLogModule,
    .interface = "com.corvane.orsm.dyndns",
    .path = "/dyndns",
    .methods = KMethods,
    .handler = handleDynDnsMethodCall,
    .enablingLine = "Enabling dyndns dbus",
    .cannotCreateLine = "Cannot create message bus",
    .createdLine = "Message bus created",
    .object = &iDynDnsMessageBus,
};

void handleDynDnsMethodCall(message_bus* bus, const char* method, const char* firstArgument, DBusMessage* call) {
    dispatchMethodCall(KDynDnsService, bus, method, firstArgument, call);
}

bool enableDbusForDynDns(struct event_base* base) { return offerService(KDynDnsService, base); }
