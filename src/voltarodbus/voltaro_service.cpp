#include "src/voltarodbus/voltaro_service.h"

#include <cstring>

#include "common/json/json.h"
#include "common/log/log.h"
#include "common/text/text.h"
#include "src/dbusinterface/data_model_names.h"
#include "src/dbusinterface/dyndns_state.h"
#include "src/dbusinterface/service_store.h"
#include "src/dyndnsrequest/dyndnsrequest.h"
#include "src/voltarodbus/voltaro_cloud.h"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "src/voltarodbus";

message_bus* iVoltaroMessageBus;

static constexpr char KOn[] = R"({"status":"OK","state":"on"})";
static constexpr char KOff[] = R"({"status":"OK","state":"off"})";
static constexpr char KSwitchNotFound[] = R"({"status":"SWITCH_NOT_FOUND"})";
static constexpr char KActionNotDefined[] = R"({"status":"ACTION_NOT_DEFINED"})";
static constexpr char KNotSynchronized[] = R"({"status":"NOT_SYNCHRONIZED"})";
static constexpr char KServerConnectionError[] = R"({"status":"SERVER_CONNECTION_ERROR"})";
static constexpr char KServerInternalError[] = R"({"status":"SERVER_INTERNAL_ERROR"})";
static constexpr char KNoPairedAccount[] = R"({"status":"NO_PAIRED_VOLTARO_ACCOUNT"})";
static constexpr char KCannotLogin[] = R"({"status":"CANNOT_LOGIN_TO_VOLTARO"})";
static constexpr char KSwitchIsOffline[] = R"({"status":"SWITCH_IS_OFFLINE"})";
static constexpr char KAlreadyHasSuchState[] = R"({"status":"SWITCH_ALREADY_HAS_SUCH_STATE"})";
static constexpr char KOutOfMemory[] = R"({"status":"OUT_OF_MEMORY_ERROR"})";

namespace {

struct NamedAction {
    const char* word;
    SwitchAction action;
};

}  // namespace

static constexpr NamedAction KActions[] = {
    {"on",     SWITCH_ACTION_ON    },
    {"off",    SWITCH_ACTION_OFF   },
    {"toggle", SWITCH_ACTION_TOGGLE},
};

static Refusal refusalOf(SwitchChangeError error) {
    switch (error) {
        case SWITCH_ERROR_NONE: return KServerConnectionError;
        case SWITCH_ERROR_NOT_CONNECTED: return KSwitchIsOffline;
        case SWITCH_ERROR_NOT_ALLOWED: return KAlreadyHasSuchState;
    }
    return KServerConnectionError;
}

// ----- The account of the gateway: the steps that Set and Get share

// Takes the account out of the server's answer; `account` receives its tree, in which email and password are texts that
// are not empty.
static Refusal readAccount(const char* body, OwnedJson* account) {
    const OwnedJson answer = parseJson(body);
    const char* status = jsonTextMember(answer.get(), "status");
    if (!status) return KServerInternalError;
    if (strcmp(status, "SUCCESS") != 0) {
        LOG(WARN, "Failed to get params: %s", status);
        return KServerInternalError;
    }
    const char* params = jsonTextMember(answer.get(), "params");
    if (!params || !*params) return KNoPairedAccount;
    *account = parseJson(params);
    if (!*account) return KServerInternalError;
    const char* email = jsonTextMember(account->get(), "email");
    const char* password = jsonTextMember(account->get(), "password");
    if (!email || !*email || !password || !*password) {
        LOG(WARN, "Cannot find Voltaro email or password");
        return KNoPairedAccount;
    }
    return nullptr;
}

static Refusal loginToPairedAccount(OwnedText* token) {
    const char* haId = getHomeAutomationId();
    if (!*haId) {
        LOG(WARN, "HA-ID not available");
        return KNotSynchronized;
    }
    const OwnedText body = getParamsForHaId(haId);
    if (!body) {
        LOG(ERROR, "getParamsForHaId error");
        return KServerConnectionError;
    }
    LOG(DEBUG, "getParamsForHaId OK: %s", body.get());
    OwnedJson account;
    if (const Refusal refusal = readAccount(body.get(), &account)) return refusal;
    *token = loginToVoltaro(jsonTextMember(account.get(), "email"), jsonTextMember(account.get(), "password"));
    if (!*token) {
        LOG(ERROR, "Cannot login to Voltaro");
        return KCannotLogin;
    }
    return nullptr;
}

// ----- Set

static const NamedAction* findAction(const char* word) {
    for (const NamedAction& known : KActions) {
        if (strcmp(word, known.word) == 0) return &known;
    }
    return nullptr;
}

static Reply answerSet(const MethodCall& call) {
    LOG(INFO, "Voltaro Set requested");
    const char* switchId = get_first_argument_string_value(call.message);
    if (!switchId || !*switchId) {
        LOG(ERROR, "Missing dbus method argument: switchId");
        return KSwitchNotFound;
    }
    const char* word = get_second_argument_string_value(call.message);
    if (!word || !*word) {
        LOG(ERROR, "Missing dbus method argument: action");
        return KActionNotDefined;
    }
    const NamedAction* action = findAction(word);
    if (!action) {
        LOG(ERROR, "Wrong dbus method argument: unknown action %s", word);
        return KActionNotDefined;
    }
    OwnedText token;
    if (const Refusal refusal = loginToPairedAccount(&token)) return refusal;
    SwitchChangeError error = SWITCH_ERROR_NONE;
    const OwnedText state = changeStateOfSwitch(token.get(), switchId, action->action, &error);
    if (!state) return refusalOf(error);
    LOG(DEBUG, "changeStateOfSwitch OK: %s", state.get());
    return {strcmp(state.get(), "on") == 0 ? KOn : KOff, "Voltaro Set finished"};
}

// ----- Get

// Checks the cloud's answer once more and finds the plug's data in it.
static Refusal readPlug(const cJSON* details, cJSON** device) {
    if (!details) return KServerInternalError;
    const char* status = jsonTextMember(details, "status");
    if (!status) {
        LOG(WARN, "Cannot parse getSwitchDetails");
        return KServerInternalError;
    }
    if (strcmp(status, "ok") != 0) {
        LOG(WARN, "Failed to getSwitchDetails: %s", status);
        return KServerInternalError;
    }
    *device = cJSON_GetObjectItem(details, "device");
    if (!cJSON_IsObject(*device)) {
        LOG(WARN, "No device data in getSwitchDetails");
        return KServerInternalError;
    }
    const bool complete = jsonTextMember(*device, "state") && cJSON_GetObjectItem(*device, "power");
    return complete ? nullptr : KServerInternalError;
}

// The success reply; null when out of memory. Moves the two values from the cloud's answer. Copies would need memory,
// and cJSON loses reference nodes when it runs out of memory.
static OwnedText plugReply(cJSON* device) {
    const OwnedJson reply(cJSON_CreateObject());
    if (!cJSON_AddStringToObject(reply.get(), "status", "OK")) return nullptr;
    cJSON* plug = cJSON_AddObjectToObject(reply.get(), "switch");
    if (!plug) return nullptr;
    cJSON_AddItemToObjectCS(plug, "state", cJSON_DetachItemFromObject(device, "state"));
    cJSON_AddItemToObjectCS(plug, "power", cJSON_DetachItemFromObject(device, "power"));
    return printJson(reply.get());
}

static Reply answerGet(const MethodCall& call) {
    LOG(INFO, "Voltaro Get requested");
    const char* switchId = call.firstArgument;
    if (!switchId || !*switchId) {
        LOG(ERROR, "Missing dbus method argument: switchId");
        return KSwitchNotFound;
    }
    OwnedText token;
    if (const Refusal refusal = loginToPairedAccount(&token)) return refusal;
    const OwnedText details = getSwitchDetails(token.get(), switchId);
    if (!details) return KServerConnectionError;
    LOG(DEBUG, "getSwitchDetails OK: %s", details.get());
    const OwnedJson parsed = parseJson(details.get());
    cJSON* device = nullptr;
    if (const Refusal refusal = readPlug(parsed.get(), &device)) return refusal;
    OwnedText reply = plugReply(device);
    if (!reply) {
        LOG(ERROR, "Cannot create json string");
        return KOutOfMemory;
    }
    return {std::move(reply), "Voltaro Get finished"};
}

// ----- EnableBackend

static bool enableBackend(DBusMessage* message) {
    int enabled = 0;
    if (!get_first_argument_bool_value(message, &enabled)) return false;
    if (!easySetPcbParamBoolValue(helperPcbDataModelClient(), KVoltaroObject, KVoltaroEnable, enabled)) return false;
    LOG(INFO, "Voltaro Enable set to %d", enabled);
    saveOrvoServiceData();
    return true;
}

static Reply answerEnableBackend(const MethodCall& call) {
    LOG(INFO, "Voltaro EnableBackend requested");
    return {enableBackend(call.message), "Voltaro EnableBackend finished"};
}

// ----- The service

static constexpr Method KMethods[] = {
    {"Set",           "ss", true, answerSet          },
    {"Get",           "s",  true, answerGet          },
    {"EnableBackend", "b",  true, answerEnableBackend},
};

constexpr BusService KVoltaroService = {
    .sourcePath = KLogModule,
    .interface = "com.corvane.orsm.voltaro",
    .path = "/voltaro",
    .methods = KMethods,
    .handler = handleVoltaroMethodCall,
    .enablingLine = "Enabling Voltaro dbus",
    .cannotCreateLine = "Cannot create Voltaro message bus",
    .createdLine = "Voltaro message bus created",
    .object = &iVoltaroMessageBus,
};

void handleVoltaroMethodCall(message_bus* bus, const char* method, const char* firstArgument, DBusMessage* call) {
    dispatchMethodCall(KVoltaroService, bus, method, firstArgument, call);
}

int enableDbusForVoltaro(struct event_base* base) { return offerService(KVoltaroService, base) ? 1 : 0; }

void disableDbusForVoltaro() { withdrawService(KVoltaroService); }
