// The bus thread's work that follows a message or a server's answer. There is no data model. Replies end in
// dbus_connection_send, and requests in the functions of httprequest.h, which are replaced here.
#include <cstring>

#include "common/json/json.h"
#include "common/msg_bus/message_bus_internal.h"
#include "src/dbusinterface/dyndns_sync.h"
#include "src/dbusinterface/service_store.h"
#include "src/dyndnsrequest/dyndnsrequest.h"
#include "src/httprequest/httprequest.h"
#include "src/main/public_interface.h"
#include "src/orvoservicesinfo/orvoservicesinfo.h"
#include "tests/fuzz/fuzz.h"
#include "tests/world/bus_client.h"

static std::string_view iAnswers;  // of the servers, a line each; a request without one fails
static int iReplies;               // that were sent

static OwnedText answer(const char* url) {
    require(url);
    return iAnswers.empty() ? nullptr : copyText(takeLine(&iAnswers).c_str());
}
OwnedText curlGet(const char* url, const char*) { return answer(url); }
OwnedText curlPostV1(const char* url, const char*, const char*, const cJSON*) { return answer(url); }
OwnedText curlPostV2(const char* url, const char*, const char*, const char*) { return answer(url); }

// A reply is a boolean, an error, or a text that is JSON with a status.
dbus_bool_t dbus_connection_send(DBusConnection*, DBusMessage* reply, dbus_uint32_t*) {
    ++iReplies;
    const char* text = nullptr;
    const bool isText = dbus_message_get_type(reply) != DBUS_MESSAGE_TYPE_ERROR &&
                        dbus_message_get_args(reply, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    const auto hasStatus = [&] { return jsonTextMember(parseJson(text).get(), "status") != nullptr; };
    require(!isText || hasStatus() || hasStatus());  // memory is short once
    return TRUE;
}
void dbus_connection_flush(DBusConnection*) {}

PcbContext* iBusPcbClient;
PcbContext* helperPcbDataModelClient() { return iBusPcbClient; }
void saveOrvoServiceData() {}
void saveOrvoServiceDataThrough(PcbContext*) {}

// The state in which every input begins.
static void startOver() {
    if (!iBusEventBase) {
        iBusEventBase = event_base_new();
        synchronizeDynDnsConfiguration();  // for its timer
        require(initRequestsEngine("ca", "https://a", "https://v") && initOrvoServicesInfo(R"({"status":"OK"})"));
    }
    strcpy(iHomeAutomationId, "id");
    iHomeAutomationEnable = iDnsServerStatus = iDynDnsEnable = TRI_TRUE;
    iIsBehindCgNat = TRI_FALSE;
    iApplicationServerUrlDefined = true;
}

// A call that is taken is answered once.
static void makeCall(DBusMessage* call) {
    bool taken = false;
    iReplies = 0;
    for (const BusService* service : busServices()) {
        for (const Method& method : service->methods) {
            listener only{copyText(method.name), nullptr};
            message_bus bus{};
            bus.name = copyText(service->interface);
            bus.methodCallback = service->handler;
            bus.methodListeners = &only;
            if (!only.name || !bus.name) continue;  // out of memory
            taken = taken || handle_message(nullptr, call, &bus) == DBUS_HANDLER_RESULT_HANDLED;
        }
    }
    require(iReplies == (taken && !dbus_message_get_no_reply(call) ? 1 : 0));
}

void fuzzCalls(std::string_view bytes) {
    startOver();
    const OwnedMessage call(dbus_message_demarshal(bytes.data(), static_cast<int>(bytes.size()), nullptr));
    // What the first request of each method needs to succeed, and what the cloud says then.
    iAnswers = R"({"status":"SUCCESS","available":true,"params":"{\"email\":\"e@x\",\"password\":\"p&w\"}"}
{"status":"ok","authToken":"t"}
{"status":"ok","state":"on","device":{"state":"off","power":1.5}}
{"status":"ok","state":"on"})";
    if (call) makeCall(call.get());
}

void fuzzAnswers(std::string_view bytes) {
    static const std::tuple<const char*, const char*, world::BusArguments> KCalls[] = {
        {"/dyndns",  "IsNameTaken", {"Name"}        },
        {"/dyndns",  "Configure",   {true, "Name"}  },
        {"/voltaro", "Set",         {"id", "on"}    },
        {"/voltaro", "Set",         {"id", "toggle"}},
        {"/voltaro", "Get",         {"id"}          },
    };
    startOver();
    const size_t chosen = static_cast<unsigned char>(takeLine(&bytes)[0] - 'a') % (std::size(KCalls) + 2);
    iAnswers = bytes;
    if (chosen >= std::size(KCalls)) {
        return chosen == std::size(KCalls) ? (void)setupDynDnsOnServer() : runDynDnsSyncStep(-1, 0, nullptr);
    }
    const auto& [path, method, arguments] = KCalls[chosen];
    const std::string interface = std::string("com.corvane.orsm.") + (path + 1);
    const OwnedMessage call(world::BusClient::message(path, interface, method, arguments));
    dbus_message_set_serial(call.get(), 1);
    makeCall(call.get());
}
