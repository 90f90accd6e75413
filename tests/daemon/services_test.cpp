// The D-Bus services of the running daemon, from a client's side: replies to the byte, what stands in the log, and what
// goes to the servers.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include "tests/daemon/daemon.h"
#include "tests/world/bus_client.h"

using namespace world;

namespace {

struct Services : testing::Test {
    // Calls a method, and checks the reply, its type against the description, and the line that is logged.
    void call(const std::string& service, const char* method, const BusArguments& arguments, const std::string& reply,
              const char* line) {
        SCOPED_TRACE(std::string(method) + ": " + line);
        EXPECT_EQ(client_.call("/" + service, "com.corvane.orsm." + service, method, arguments), reply);
        const std::string xml = readFile(ORSM_SOURCE_FOLDER "/dbus/com.corvane.orsm." + service + ".xml");
        const size_t described = xml.find(std::string("<method name=\"") + method + "\"");
        EXPECT_EQ(xml[xml.find("\" direction=\"out\"", described) - 1],
                  reply == "true" || reply == "false" ? 'b' : 's');
        gateway_.log.next(line);
    }
    void dyndns(const char* method, const BusArguments& arguments, const std::string& reply, const char* line) {
        call("dyndns", method, arguments, reply, line);
    }
    void voltaro(const char* method, const BusArguments& arguments, const std::string& reply, const char* line) {
        call("voltaro", method, arguments, reply, line);
    }
    // Orders what the next answer is: a fault of cloud-sim, or a body.
    Services& after(const char* resource, const char* answer) {
        *answer == '{' ? gateway_.cloud->answer(resource, 200, answer) : gateway_.cloud->fault(resource, answer);
        return *this;
    }
    void synchronize() {
        gateway_.set("NMC.HomeAutomation", "HA-ID", "HA-1");
        gateway_.log.next("DynDNS empty hostname saved in PCB");
        gateway_.log.next("saved to OrvoService");
    }
    void TearDown() override {
        EXPECT_EQ(gateway_.end(), 0);
        EXPECT_EQ(gateway_.daemon->output(), "");
    }

    Gateway gateway_;
    BusClient client_;
};

std::string dynDnsError(const char* status) { return std::string(R"({"status":")") + status + R"(","result":null})"; }
std::string get(const std::string& target) { return "GET " + target + "|Accept: */*|\n"; }
std::string post(const std::string& target, const std::string& type, const std::string& body,
                 const std::string& token = "") {
    return "POST " + target + "|Accept: */*|Content-Type: application/" + type + "|" + token +
           "Content-Length: " + std::to_string(body.size()) + "|" + body + "\n";
}

std::string voltaroError(const char* status) { return std::string(R"({"status":")") + status + R"("})"; }

const std::string KTrue = R"({"status":"OK","result":true})";
const std::string KFalse = R"({"status":"OK","result":false})";
const std::string KInvalid = dynDnsError("INVALID_NAME");
const std::string KBusError = dynDnsError("DBUS_ERROR");
const std::string KNoSwitch = voltaroError("SWITCH_NOT_FOUND");
const std::string KNoAction = voltaroError("ACTION_NOT_DEFINED");
const std::string KNotSynchronized = voltaroError("NOT_SYNCHRONIZED");

}  // namespace

TEST_F(Services, CheckArgumentsAndConditionsInOrder) {
    gateway_.start();
    call("orvoservicesinfo", "Get", {"more", true, 7}, R"({"status":"OK"})", "Get");
    dyndns("IsEnabled", {true, "more"}, KFalse, "Dyn DNS IsEnabled finished");
    dyndns("GetName", {}, R"({"status":"OK","result":null})", "Dyn DNS GetName finished");
    dyndns("IsNameTaken", {""}, KInvalid, "ERROR Name is empty");
    dyndns("IsNameTaken", {"a"}, KInvalid, "ERROR Invalid name: a");
    dyndns("IsNameTaken", {std::string(64, 'a')}, KInvalid, "ERROR Invalid name: aaaa");
    dyndns("IsNameTaken", {"-ab"}, KInvalid, "ERROR Invalid name: -ab");
    dyndns("IsNameTaken", {"a\xC3\xA9"}, KInvalid, "ERROR Invalid name: a\xC3\xA9");
    dyndns("Configure", {}, KBusError, " WARN No arguments");
    dyndns("Configure", {"true", "box"}, KBusError, "Wrong argument 1 type, required: boolean");
    dyndns("Configure", {true}, KInvalid, " WARN No argument 2");
    dyndns("Configure", {true}, KInvalid, "ERROR Null argument 2");
    dyndns("Configure", {7}, KBusError, "unsupported type in dbus message: 105");
    dyndns("Configure", {true, 7}, KInvalid, "Wrong argument 2 type, required: string");
    dyndns("Configure", {true, "a.c"}, KInvalid, "ERROR Invalid name: a.c");
    dyndns("Configure", {true, "box"}, dynDnsError("NOT_SYNCHRONIZED"), " WARN HA-ID not available");
    dyndns("SetEnabled", {"true"}, "false", "Wrong argument 1 type, required: boolean");
    voltaro("Set", {}, KNoSwitch, "ERROR Missing dbus method argument: switchId");
    voltaro("Set", {"s1"}, KNoAction, "ERROR Missing dbus method argument: action");
    voltaro("Set", {"s1", "ON"}, KNoAction, "ERROR Wrong dbus method argument: unknown action ON");
    voltaro("Set", {"s1", "on"}, KNotSynchronized, " WARN HA-ID not available");
    voltaro("Get", {}, KNoSwitch, "ERROR Missing dbus method argument: switchId");
    voltaro("Get", {"s1"}, KNotSynchronized, " WARN HA-ID not available");
    voltaro("EnableBackend", {"true"}, "false", "Wrong argument 1 type, required: boolean");
    EXPECT_EQ(gateway_.log.count(" WARN Null argument"), 0U) << "two lines for one fault";
    EXPECT_TRUE(gateway_.cloud->journal().empty());
}

TEST_F(Services, DynDnsKeepsServerDataModelAndStoreInAgreement) {
    gateway_.start();
    synchronize();
    gateway_.cloud->order({"take", "busy"});
    dyndns("IsNameTaken", {"Free-1-"}, KFalse, " INFO Dyn DNS IsNameTaken: false");
    dyndns("IsNameTaken", {"busy"}, KTrue, " INFO Dyn DNS IsNameTaken: true");
    dyndns("IsNameTaken", {std::string(63, 'Z')}, KFalse, "Dyn DNS IsNameTaken: false");
    dyndns("Configure", {true, "Box"}, KTrue, " INFO Dyn DNS Configure response: true");
    dyndns("GetName", {}, R"({"status":"OK","result":"box"})", "GetName response: ");
    dyndns("IsEnabled", {}, KTrue, " INFO Dyn DNS IsEnabled: true");
    EXPECT_NE(readFile(KStore).find(R"(string HostName = "box";)"), std::string::npos);
    gateway_.settle();  // with this the echo of the write has passed, too
    EXPECT_EQ(gateway_.log.count("Setup dyn dns on server"), 0U);

    // With home automation off nothing goes out.
    gateway_.set("NMC.HomeAutomation", "Enable", "0");
    gateway_.settle();
    dyndns("Configure", {true, "box"}, dynDnsError("NOT_SYNCHRONIZED"), " WARN ");
    dyndns("SetEnabled", {false}, "true", "No possibility to setup dyn dns on server");
    dyndns("SetEnabled", {true}, "true", "No possibility to setup dyn dns on server");
    gateway_.set("NMC.HomeAutomation", "Enable", "1");
    gateway_.log.next("DynDNS hostname box saved in PCB");
    gateway_.settle();

    // The switch alone reaches the server through the data model. Its address is taken over as it is.
    gateway_.set("OrvoService.HomeAutomation", "ApplicationServer", gateway_.cloud->url() + "/");
    dyndns("SetEnabled", {false}, "true", "Failed to configure DynDNS: NOT_FOUND");
    EXPECT_EQ(gateway_.log.count("connection mode = on saved"), gateway_.log.count("connection mode = ondemand saved"));
    EXPECT_EQ(gateway_.log.count("connection mode = on saved"), gateway_.cloud->journal().size() - 3);  // but for names
    gateway_.set("OrvoService.HomeAutomation", "ApplicationServer", gateway_.cloud->url());
    gateway_.settle();
    dyndns("Configure", {true, ""}, KTrue, "DynDNS empty hostname saved in PCB");
    EXPECT_EQ(gateway_.get("OrvoService.DynDNS", "HostName"), "");
    EXPECT_EQ(gateway_.cloud->wire(),
              get("/hm/dyndns?haId=HA-1") + get("/hm/dyndns/verify?name=free-1-") + get("/hm/dyndns/verify?name=busy") +
                  get("/hm/dyndns/verify?name=" + std::string(63, 'z')) +
                  post("/hm/dyndns/set", "json", R"({"name":"box","haId":"HA-1","enabled":true})") +
                  get("/hm/dyndns?haId=HA-1") +
                  post("//hm/dyndns/set", "json", R"({"name":"box","haId":"HA-1","enabled":false})") +
                  post("/hm/dyndns/set", "json", R"({"name":"","haId":"HA-1","enabled":true})"));
}

TEST_F(Services, AnswerWhenTheDataModelHasNoSuchObject) {
    writeFile("/var/run/small.odl",
              "object OrvoService { object GatewayClient { bool ConnectionStatus = \"true\"; } }\n"
              "object NMC { object HomeAutomation { string HA-ID = \"HA-1\"; bool Enable = \"1\"; } }\n"
              "object DNS { object Server { bool Status = \"1\"; } }\n"
              "object NeMo { object Intf { object data { string Flags = \"\"; string Addresses = \"\"; } } }\n");
    gateway_.bus.reset();
    gateway_.bus = startPcbBus("/var/run/small.odl");
    gateway_.start();
    EXPECT_EQ(gateway_.log.count("ERROR Request failed, error - 131073 - unknown object - OrvoService.DynDNS"), 1U);
    dyndns("IsEnabled", {}, KBusError, "ERROR Dyn DNS IsEnabled error");
    dyndns("GetName", {}, KBusError, "ERROR Dyn DNS GetName error");
    dyndns("SetEnabled", {true}, "false", "ERROR Cannot SetEnabled DynDNS value in PCB");
    dyndns("Configure", {true, "box"}, KTrue, "ERROR Cannot set DynDNS enable value in PCB");
    dyndns("Configure", {true, "box"}, KTrue, "ERROR Cannot set DynDNS hostname value in PCB");
    dyndns("Configure", {true, ""}, KTrue, "ERROR Cannot clear DynDNS hostname value in PCB");
    voltaro("EnableBackend", {true}, "false", "param Enable (0x00020001 - ");
}

TEST_F(Services, VoltaroSwitchesAndReadsPlugs) {
    gateway_.start();
    synchronize();
    gateway_.cloud->order({"plug", "p-1", "off", "12.50"});
    gateway_.cloud->order({"account", "HA-1", "me+you@x y", "p&=%"});
    const std::string on = R"({"status":"OK","state":"on"})", off = R"({"status":"OK","state":"off"})";
    const std::string noAnswer = voltaroError("SERVER_CONNECTION_ERROR");
    voltaro("Set", {"p-1", "toggle"}, on, "Current switch state: on");
    const std::string form = "x-www-form-urlencoded", token = "Auth-Token: token-1|";
    EXPECT_EQ(gateway_.cloud->wire(), get("/hm/dyndns?haId=HA-1") + get("/hm/stardevice/HA-1/params") +
                                          post("/api/auth", form, "email=me%2Byou%40x%20y&password=p%26%3D%25") +
                                          post("/api/device", form, "id=p-1&minimal=false", token) +
                                          post("/api/device/switch", form, "id=p-1&on=true", token));
    voltaro("Get", {"p-1"}, R"({"status":"OK","switch":{"state":"on","power":12.5}})", "Get switch details OK");
    voltaro("Get", {true}, noAnswer, "ERROR Request returned error error");
    voltaro("Set", {"p-1", "off"}, off, "Current switch state: off");
    voltaro("EnableBackend", {true}, "true", " INFO Voltaro Enable set to 1");
    EXPECT_EQ(gateway_.get("OrvoService.Voltaro", "Enable"), "true");
    EXPECT_NE(readFile(KStore).find("object Voltaro {\n        bool Enable = \"true\""), std::string::npos);
}

TEST_F(Services, HandleBadServerAnswersAndKeepTheAccountSecret) {
    gateway_.launch("orvoservicemanager", "logger.level=INFO\n");
    gateway_.log.next("CG-NAT status: false");
    synchronize();
    gateway_.cloud->order({"plug", "p-1", "on", "12.5"});
    gateway_.cloud->order({"account", "HA-1", "canary+mail", "canary&word"});
    const BusArguments free = {"free"}, box = {true, "box"}, plug = {"p-1"}, on = {"p-1", "on"};
    const std::string noServer = dynDnsError("SERVER_CONNECTION_ERROR"), odd = dynDnsError("SERVER_INTERNAL_ERROR");
    const std::string noCloud = voltaroError("SERVER_CONNECTION_ERROR"),
                      oddCloud = voltaroError("SERVER_INTERNAL_ERROR");
    const std::string noLogin = voltaroError("CANNOT_LOGIN_TO_VOLTARO"), off = R"({"status":"OK","state":"off"})";
    const std::string noAccount = voltaroError("NO_PAIRED_VOLTARO_ACCOUNT"), notText = DBUS_ERROR_FAILED;
    after("verify", "close").dyndns("IsNameTaken", free, noServer, "ERROR Dyn DNS IsNameTaken error");
    after("verify", "http500").dyndns("IsNameTaken", free, odd, " WARN Dyn DNS status error: INTERNAL_ERROR");
    after("verify", "not-json").dyndns("IsNameTaken", free, odd, "Dyn DNS IsNameTaken finished");
    after("verify", R"({"status":"SUCCESS"})").dyndns("IsNameTaken", free, odd, "Dyn DNS IsNameTaken OK: ");
    after("verify", R"({"Status":"SUCCESS","AVAILABLE":1})").dyndns("IsNameTaken", free, KTrue, "IsNameTaken: true");
    after("verify", R"({"status":"sUCCESS","available":true})").dyndns("IsNameTaken", free, odd, "error: sUCCESS");
    after("verify", "nested").dyndns("IsNameTaken", free, odd, "Dyn DNS IsNameTaken finished");
    after("set", "close").dyndns("Configure", box, noServer, "ERROR Dyn DNS Configure error");
    after("set", "not-json").dyndns("Configure", box, odd, "Dyn DNS Configure OK: ");
    after("set", "redirect").dyndns("Configure", box, odd, " WARN Failed to configure DynDNS: BAD_REQUEST");
    after("params", "close").voltaro("Get", plug, noCloud, "ERROR getParamsForHaId error");
    after("params", "duplicate").voltaro("Get", plug, oddCloud, " WARN Failed to get params: DUPLICATE");
    after("params", R"({"status":"SUCCESS"})").voltaro("Get", plug, noAccount, "Curl HTTP GET success");
    after("params", R"({"status":"SUCCESS","params":{"email":"x"}})").voltaro("Get", plug, noAccount, "GET success");
    after("params", R"({"status":"SUCCESS","params":"{\"email\":\"x\"}"})")
        .voltaro("Get", plug, noAccount, " WARN Cannot find Voltaro email or password");
    after("params", R"({"status":"SUCCESS","params":"{"})").voltaro("Get", plug, oddCloud, "Curl HTTP GET success");
    after("auth", "close").voltaro("Get", plug, noLogin, "ERROR Cannot login to Voltaro");
    after("auth", R"({"status":"OK","authToken":"t"})")
        .voltaro("Get", plug, noLogin, "ERROR Auth request returned error OK");
    after("auth", R"({"status":"ok","authToken":7})").voltaro("Get", plug, noLogin, "ERROR Cannot find authToken");
    after("device", "close").voltaro("Get", plug, noCloud, "ERROR Error while executing request ");
    after("device", "http500").voltaro("Get", plug, noCloud, "ERROR Request returned error ");
    after("device", R"({"status":"ok"})").voltaro("Get", plug, oddCloud, " WARN No device data in getSwitchDetails");
    after("device", R"({"status":"ok","device":{"state":"on"}})")
        .voltaro("Get", plug, oddCloud, "Get switch details OK");
    after("device", R"({"status":"ok","device":{"state":1,"power":1}})").voltaro("Get", plug, oddCloud, "details OK");
    after("device", R"({"status":"ok","device":{"state":1,"power":1}})")
        .voltaro("Set", {"p-1", "toggle"}, noCloud, "ERROR Unknown device state");
    after("device", "{\"status\":\"ok\",\"device\":{\"state\":\"\xFF\",\"power\":1}}")
        .voltaro("Get", plug, notText, "failed to send DBus method response");
    after("switch", "not-json").voltaro("Set", on, noCloud, "Request returned OK");
    after("switch", R"({"status":"ok"})").voltaro("Set", on, noCloud, "ERROR Cannot find state in response json");
    after("switch", R"({"status":"ok","state":"dimmed"})").voltaro("Set", on, off, "Current switch state: dimmed");
    after("switch", R"({"status":"no","error":"device.not.connected"})")
        .voltaro("Set", on, voltaroError("SWITCH_IS_OFFLINE"), "error no");
    after("switch", R"({"status":"no","error":"switch.not.allowed"})")
        .voltaro("Set", on, voltaroError("SWITCH_ALREADY_HAS_SUCH_STATE"), "error no");
    after("switch", R"({"status":"no","error":7})").voltaro("Set", on, noCloud, "ERROR Request returned error no");
    voltaro("Set", {"p-1", "toggle"}, off, "Voltaro Set finished");
    for (const char* secret : {"canary", "token-"}) {
        EXPECT_NE(gateway_.cloud->wire().find(secret), std::string::npos);
        EXPECT_EQ((gateway_.log.content() + readFile(KStore)).find(secret), std::string::npos) << secret;
    }
}

TEST_F(Services, DescriptionsEqualTheInstalledFiles) {
    gateway_.start();
    for (const std::string service : {"dyndns", "voltaro", "orvoservicesinfo"}) {
        EXPECT_EQ(client_.call("/" + service, DBUS_INTERFACE_INTROSPECTABLE, "Introspect"),
                  readFile(ORSM_SOURCE_FOLDER "/dbus/com.corvane.orsm." + service + ".xml"));
    }
    EXPECT_EQ(gateway_.log.count("Adding listener for"), 9U) << "one a method";
}

static constexpr int KStandardInput = STDIN_FILENO;

TEST_F(Services, SurviveFileDescriptorsFromClients) {
    gateway_.start();
    const rlimit few = {64, 64};
    ASSERT_EQ(prlimit(gateway_.daemon->pid(), RLIMIT_NOFILE, &few, nullptr), 0);
    const auto withDescriptors = [](int) {
        DBusMessage* call = BusClient::message("/", DBUS_INTERFACE_INTROSPECTABLE, "Introspect", {});
        for (int attached = 0; attached < 16; ++attached) {
            dbus_message_append_args(call, DBUS_TYPE_UNIX_FD, &KStandardInput, DBUS_TYPE_INVALID);
        }
        return call;
    };
    EXPECT_TRUE(client_.callMany(100, 4, withDescriptors, [](DBusMessage* reply) {
        EXPECT_EQ(dbus_message_get_type(reply), DBUS_MESSAGE_TYPE_METHOD_RETURN);
    }));
    call("orvoservicesinfo", "Get", {}, R"({"status":"OK"})", "Get");
}
