// The bus thread's work from a message, a server's answer or a record on. There is no data model; replies end where
// libdbus would send them, requests where libcurl would.
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "common/json/json.h"
#include "common/msg_bus/message_bus_internal.h"
#include "src/dbusinterface/dyndns_service.h"
#include "src/dbusinterface/dyndns_sync.h"
#include "src/dbusinterface/event_pipe.h"
#include "src/dbusinterface/event_record.h"
#include "src/dbusinterface/service_store.h"
#include "src/dyndnsrequest.h"
#include "src/httprequest.h"
#include "src/orvoservicesinfo.h"
#include "src/voltarodbus/voltaro_service.h"
#include "tests/fuzz/fuzz.h"

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
    require(!isText || jsonTextMember(parseJson(text).get(), "status"));
    return TRUE;
}
void dbus_connection_flush(DBusConnection*) {}

PcbContext* iBusPcbClient;
PcbContext* helperPcbDataModelClient() { return iBusPcbClient; }
void saveOrvoServiceData() {}
void saveOrvoServiceDataThrough(PcbContext*) {}

namespace {

struct Offered {
    const char *interface, *method;
    message_bus_method_callback handler;
};

}  // namespace

static constexpr char KDynDns[] = "com.corvane.orsm.dyndns", KVoltaro[] = "com.corvane.orsm.voltaro",
                      KInfo[] = "com.corvane.orsm.orvoservicesinfo";
static constexpr Offered KMethods[] = {
    {KDynDns,  "IsEnabled",     handleDynDnsMethodCall          },
    {KDynDns,  "GetName",       handleDynDnsMethodCall          },
    {KDynDns,  "IsNameTaken",   handleDynDnsMethodCall          },
    {KDynDns,  "Configure",     handleDynDnsMethodCall          },
    {KDynDns,  "SetEnabled",    handleDynDnsMethodCall          },
    {KVoltaro, "Set",           handleVoltaroMethodCall         },
    {KVoltaro, "Get",           handleVoltaroMethodCall         },
    {KVoltaro, "EnableBackend", handleVoltaroMethodCall         },
    {KInfo,    "Get",           handleOrvoServicesInfoMethodCall},
};

// The state in which every input begins.
static void startOver(const char* haId, TriState all) {
    if (!iBusEventBase) {
        iBusEventBase = event_base_new();
        synchronizeDynDnsConfiguration();  // for its timer
        require(initRequestsEngine("ca", "https://a", "https://v") && initOrvoServicesInfo(R"({"status":"OK"})"));
    }
    snprintf(iHomeAutomationId, sizeof iHomeAutomationId, "%s", haId);
    iHomeAutomationEnable = iDnsServerStatus = iDynDnsEnable = all;
    iIsBehindCgNat = all == TRI_TRUE ? TRI_FALSE : TRI_UNKNOWN;
    iApplicationServerUrlDefined = all == TRI_TRUE;
}

// A call that is taken is answered once.
static void makeCall(DBusMessage* call) {
    bool taken = false;
    iReplies = 0;
    for (const auto& method : KMethods) {
        listener only{copyText(method.method), nullptr};
        message_bus service{};
        service.name = copyText(method.interface);
        service.methodCallback = method.handler;
        service.methodListeners = &only;
        taken = taken || handle_message(nullptr, call, &service) == DBUS_HANDLER_RESULT_HANDLED;
    }
    require(iReplies == (taken && !dbus_message_get_no_reply(call) ? 1 : 0));
}

// A message from a method's letter, and a line for each argument whose first letter is its type.
static OwnedMessage buildCall(std::string_view text) {
    const auto& method = KMethods[static_cast<unsigned char>(takeLine(&text)[0] - 'a') % std::size(KMethods)];
    OwnedMessage call(dbus_message_new_method_call("com.corvane.orsm", "/x", method.interface, method.method));
    dbus_message_set_serial(call.get(), 1);
    while (!text.empty()) {
        const std::string line = takeLine(&text);
        const char* value = line.c_str() + !line.empty();
        const dbus_bool_t flag = *value == 't';
        if (line[0] == 'b') dbus_message_append_args(call.get(), DBUS_TYPE_BOOLEAN, &flag, DBUS_TYPE_INVALID);
        if (line[0] != 's' || !dbus_validate_utf8(value, nullptr)) continue;
        dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &value, DBUS_TYPE_INVALID);
    }
    return call;
}

void fuzzCalls(std::string_view bytes) {
    startOver("id", TRI_TRUE);
    const bool isMessage = bytes.starts_with(DBUS_LITTLE_ENDIAN) || bytes.starts_with(DBUS_BIG_ENDIAN);
    const OwnedMessage call(isMessage ? dbus_message_demarshal(bytes.data(), static_cast<int>(bytes.size()), nullptr)
                                      : buildCall(bytes).release());
    // What the first request of each method needs to succeed, and what the cloud says then.
    iAnswers = R"({"status":"SUCCESS","available":true,"params":"{\"email\":\"e@x\",\"password\":\"p&w\"}"}
{"status":"ok","authToken":"t"}
{"status":"ok","state":"on","device":{"state":"off","power":1.5}}
{"status":"ok","state":"on"})";
    if (call) makeCall(call.get());
}

void fuzzAnswers(std::string_view bytes) {
    static constexpr const char* KCalls[] = {"c\nsName", "d\nbt\nsName", "f\nsid\nson", "f\nsid\nstoggle", "g\nsid"};
    startOver("id", TRI_TRUE);
    const size_t chosen = static_cast<unsigned char>(takeLine(&bytes)[0] - 'a') % (std::size(KCalls) + 2);
    iAnswers = bytes;
    if (chosen < std::size(KCalls)) return makeCall(buildCall(KCalls[chosen]).get());
    chosen == std::size(KCalls) ? (void)setupDynDnsOnServer() : runDynDnsSyncStep(-1, 0, nullptr);
}

void fuzzRecords(std::string_view bytes) {
    startOver("", TRI_UNKNOWN);
    static int* const ends = createPipeForProvidingChangesInDataModel(iBusEventBase);
    static constexpr char KAnswer[] = R"({"status":"SUCCESS","dynDNS":{"name":"home","enabled":true}})";
    for (; !bytes.empty(); bytes.remove_prefix(std::min(sizeof(EventRecord), bytes.size()))) {
        iAnswers = KAnswer;
        require(write(ends[1], bytes.data(), std::min(sizeof(EventRecord), bytes.size())) > 0);
        handleEventPipeRecord(ends[0], 0, nullptr);
        require(strlen(iHomeAutomationId) < KHomeAutomationIdSize);
    }
    iAnswers = KAnswer;
    runDynDnsSyncStep(-1, 0, nullptr);
}
