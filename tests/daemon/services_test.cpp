// The D-Bus services of the running daemon, from a client's side: replies to the byte, what stands in the log, and what
// goes to the servers.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <span>

#include "tests/daemon/daemon.h"
#include "tests/world/bus_client.h"

using namespace world;

namespace {

struct Services : testing::Test {
    Services() { gateway_.set("Simulation.GatewayClient", "ConnectDelay", "0"); }
    // The levels above DEBUG, a letter each, of what the last call has logged up to this line.
    std::string levelsUpTo(const std::string& last) const {
        std::string levels, line, all = gateway_.log.content();
        std::istringstream log(all.substr(all.rfind('\n', all.rfind("Method call: ")) + 1));
        while (line != last && std::getline(log, line)) {
            if (line[24] != 'D') levels += line[line[24] == ' ' ? 25 : 24];
        }
        return levels;
    }
    // Calls a method, and checks the reply, its type against the description, and what is logged: a line, and in front
    // of it the levels of the call's lines up to this one ("IIE Name is empty").
    void call(const std::string& service, const char* method, const BusArguments& arguments, const std::string& reply,
              const char* line) {
        SCOPED_TRACE(std::string(method) + ": " + line);
        EXPECT_EQ(client_.call("/" + service, "com.corvane.orsm." + service, method, arguments), reply);
        stored_ = readFile(KStore);
        const std::string xml = readFile(ORSM_SOURCE_FOLDER "/dbus/com.corvane.orsm." + service + ".xml");
        const size_t described = xml.find(std::string("<method name=\"") + method + "\"");
        EXPECT_EQ(xml[xml.find("\" direction=\"out\"", described) - 1],
                  reply == "true" || reply == "false" ? 'b' : 's');
        const size_t letters = line[strspn(line, "IWE")] == ' ' ? strspn(line, "IWE") : 0;
        const std::string last = gateway_.log.next(line + letters);
        EXPECT_EQ(letters ? levelsUpTo(last) : "", std::string(line, letters)) << gateway_.log.content();
        called_.insert(service + method);
    }
    void dyndns(const char* method, const BusArguments& arguments, const std::string& reply, const char* line) {
        call("dyndns", method, arguments, reply, line);
    }
    void voltaro(const char* method, const BusArguments& arguments, const std::string& reply, const char* line) {
        call("voltaro", method, arguments, reply, line);
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
    std::set<std::string> called_;
    std::string stored_;  // when the last reply came
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
    call("orvoservicesinfo", "Get", {"more", true, 7}, R"({"status":"OK"})", "III OrvoServicesInfo Get finished");
    dyndns("IsEnabled", {true, "more"}, KFalse, "IIII Dyn DNS IsEnabled finished");
    dyndns("GetName", {}, R"({"status":"OK","result":null})", "IIII Dyn DNS GetName finished");
    dyndns("IsNameTaken", {""}, KInvalid, "IIE Name is empty");
    dyndns("IsNameTaken", {"a"}, KInvalid, "IIE Invalid name: a");
    dyndns("IsNameTaken", {std::string(64, 'a')}, KInvalid, "IIE Invalid name: aaaa");
    dyndns("IsNameTaken", {"-ab"}, KInvalid, "IIE Invalid name: -ab");
    dyndns("IsNameTaken", {"a\xC3\xA9"}, KInvalid, "IIE Invalid name: a\xC3\xA9");
    dyndns("Configure", {}, KBusError, "IIW No arguments");
    dyndns("Configure", {"true", "box"}, KBusError, "IIW Wrong argument 1 type, required: boolean");
    dyndns("Configure", {true}, KInvalid, "IIIW No argument 2");
    dyndns("Configure", {true}, KInvalid, "IIIWE Null argument 2");
    dyndns("Configure", {7}, KBusError, "IIW unsupported type in dbus message: 105");
    dyndns("Configure", {true, 7}, KInvalid, "IIIW Wrong argument 2 type, required: string");
    dyndns("Configure", {true, "a.c"}, KInvalid, "IIIE Invalid name: a.c");
    dyndns("Configure", {true, "box"}, dynDnsError("NOT_SYNCHRONIZED"), "IIIW HA-ID not available");
    dyndns("SetEnabled", {"true"}, "false", "IIW Wrong argument 1 type, required: boolean");
    voltaro("Set", {}, KNoSwitch, "IIWE Missing dbus method argument: switchId");
    voltaro("Set", {"s1"}, KNoAction, "IIWE Missing dbus method argument: action");
    voltaro("Set", {"s1", "ON"}, KNoAction, "IIE Wrong dbus method argument: unknown action ON");
    voltaro("Set", {"s1", "offline"}, KNoAction, "IIE Wrong dbus method argument: unknown action offline");
    voltaro("Set", {"s1", "on"}, KNotSynchronized, "IIW HA-ID not available");
    voltaro("Get", {}, KNoSwitch, "IIE Missing dbus method argument: switchId");
    voltaro("Get", {"s1"}, KNotSynchronized, "IIW HA-ID not available");
    voltaro("EnableBackend", {"true"}, "false", "IIW Wrong argument 1 type, required: boolean");
    EXPECT_TRUE(gateway_.cloud->journal().empty());
    EXPECT_EQ(called_.size(), gateway_.log.count("Adding listener for")) << "each method has a row here";
}

TEST_F(Services, DynDnsKeepsServerDataModelAndStoreInAgreement) {
    gateway_.start();
    synchronize();
    gateway_.cloud->order({"take", "ab"});
    dyndns("IsNameTaken", {"Free-1-"}, KFalse, "IIIIIIIII Dyn DNS IsNameTaken finished");
    dyndns("IsNameTaken", {"AB"}, KTrue, " INFO Dyn DNS IsNameTaken: true");
    dyndns("IsNameTaken", {std::string(63, 'Z')}, KFalse, " INFO Dyn DNS IsNameTaken: false");
    dyndns("Configure", {true, "Box"}, KTrue, "IIIIIIIIIIIIIIII Dyn DNS Configure finished");
    EXPECT_NE(stored_.find(R"(string HostName = "box";)"), std::string::npos);
    dyndns("GetName", {}, R"({"status":"OK","result":"box"})", "III GetName response: ");
    dyndns("IsEnabled", {}, KTrue, "III Dyn DNS IsEnabled: true");
    gateway_.set("OrvoService.DynDNS", "HostName", R"(a"b\c)");
    dyndns("GetName", {}, R"({"status":"OK","result":"a\"b\\c"})", "Dyn DNS GetName finished");
    gateway_.settle();  // with this the echo of the write has passed, too
    EXPECT_EQ(gateway_.log.count("Setup dyn dns on server"), 0U);

    // With home automation off nothing goes out.
    gateway_.set("NMC.HomeAutomation", "Enable", "0");
    gateway_.settle();
    dyndns("Configure", {true, "box"}, dynDnsError("NOT_SYNCHRONIZED"), "IIIW HA-ID not available");
    dyndns("SetEnabled", {false}, "true", "IIIIIII No possibility to setup dyn dns on server");
    dyndns("SetEnabled", {true}, "true", "IIII Dyn DNS SetEnabled finished");
    gateway_.set("NMC.HomeAutomation", "Enable", "1");
    gateway_.log.next("DynDNS hostname box saved in PCB");
    gateway_.settle();

    // The switch alone reaches the server through the data model. Its address is taken over as it is.
    gateway_.set("OrvoService.HomeAutomation", "ApplicationServer", gateway_.cloud->url() + "/");
    dyndns("SetEnabled", {false}, "true", "IIIIIIIIIIIIIIIW Failed to configure DynDNS: NOT_FOUND");
    EXPECT_EQ(gateway_.log.count("connection mode = on saved"), gateway_.log.count("connection mode = ondemand saved"));
    EXPECT_EQ(gateway_.log.count("connection mode = on saved"), gateway_.cloud->journal().size() - 3);  // but for names
    gateway_.set("OrvoService.HomeAutomation", "ApplicationServer", gateway_.cloud->url());
    gateway_.settle();
    dyndns("Configure", {true, ""}, KTrue, "IIIIIIIIIIIIIIII Dyn DNS Configure finished");
    EXPECT_EQ(gateway_.get("OrvoService.DynDNS", "HostName"), "");
    EXPECT_EQ(gateway_.cloud->wire(),
              get("/hm/dyndns?haId=HA-1") + get("/hm/dyndns/verify?name=free-1-") + get("/hm/dyndns/verify?name=ab") +
                  get("/hm/dyndns/verify?name=" + std::string(63, 'z')) +
                  post("/hm/dyndns/set", "json", R"({"name":"box","haId":"HA-1","enabled":true})") +
                  get("/hm/dyndns?haId=HA-1") +
                  post("//hm/dyndns/set", "json", R"({"name":"box","haId":"HA-1","enabled":false})") +
                  post("/hm/dyndns/set", "json", R"({"name":"","haId":"HA-1","enabled":true})"));
}

TEST_F(Services, AnswerWhenTheDataModelHasNoSuchObject) {
    writeFile("/var/run/small.odl",
              "object OrvoService { object GatewayClient { bool ConnectionStatus = \"false\"; } }\n"
              "object NMC { object HomeAutomation { string HA-ID = \"HA-1\"; bool Enable = \"1\"; } }\n"
              "object DNS { object Server { bool Status = \"1\"; } }\n"
              "object NeMo { object Intf { object data { string Flags = \"\"; string Addresses = \"\"; } } }\n");
    gateway_.bus.reset();
    gateway_.bus = startPcbBus("/var/run/small.odl");
    gateway_.start();
    EXPECT_EQ(gateway_.log.count("ERROR Request failed, error - 131073 - unknown object - OrvoService.DynDNS"), 1U);
    dyndns("IsEnabled", {}, KBusError, "IIEE Dyn DNS IsEnabled error");
    dyndns("GetName", {}, KBusError, "IIEE Dyn DNS GetName error");
    dyndns("SetEnabled", {true}, "false", "IIIEE Cannot SetEnabled DynDNS value in PCB");
    dyndns("Configure", {true, "box"}, KTrue, "IIIEIIIIIEEEE Cannot set DynDNS hostname value in PCB");
    dyndns("Configure", {true, "box"}, KTrue, "IIIEIIIIIEE Cannot set DynDNS enable value in PCB");
    dyndns("Configure", {true, ""}, KTrue, "IIIEIIIIIEEEE Cannot clear DynDNS hostname value in PCB");
    voltaro("EnableBackend", {true}, "false", "IIEI Voltaro EnableBackend finished");
}

TEST_F(Services, VoltaroSwitchesAndReadsPlugs) {
    gateway_.start();
    synchronize();
    gateway_.cloud->order({"plug", "p-1", "off", "12.50"});
    gateway_.cloud->order({"account", "HA-1", "me+you@x y", "p&=%"});
    const std::string on = R"({"status":"OK","state":"on"})", off = R"({"status":"OK","state":"off"})";
    const std::string noAnswer = voltaroError("SERVER_CONNECTION_ERROR");
    voltaro("Set", {"p-1", "toggle"}, on, "IIIIIIIIIIIIIIIIIIIIIIIIIIIIIIII Voltaro Set finished");
    const std::string form = "x-www-form-urlencoded", token = "Auth-Token: token-1|";
    EXPECT_EQ(gateway_.cloud->wire(), get("/hm/dyndns?haId=HA-1") + get("/hm/stardevice/HA-1/params") +
                                          post("/api/auth", form, "email=me%2Byou%40x%20y&password=p%26%3D%25") +
                                          post("/api/device", form, "id=p-1&minimal=false", token) +
                                          post("/api/device/switch", form, "id=p-1&on=true", token));
    voltaro("Get", {"p-1"}, R"({"status":"OK","switch":{"state":"on","power":12.5}})",
            "IIIIIIIIIIIIIIIIIIIIIII Voltaro Get finished");
    voltaro("Get", {true}, noAnswer, "IIIIIIIIIIIIIIIIIIIIIE Request returned error error");
    voltaro("Set", {"p-1", "off"}, off, "IIIIIIIIIIIIIIIIIIIIIIII Voltaro Set finished");
    voltaro("EnableBackend", {true}, "true", "III Voltaro Enable set to 1");
    EXPECT_EQ(gateway_.get("OrvoService.Voltaro", "Enable"), "true");
    EXPECT_NE(readFile(KStore).find("object Voltaro {\n        bool Enable = \"true\""), std::string::npos);
}

TEST_F(Services, HandleBadServerAnswersAndKeepTheAccountSecret) {
    gateway_.launch("orvoservicemanager", "logger.level=INFO\n");
    gateway_.log.next("CG-NAT status: false");
    synchronize();
    gateway_.cloud->order({"plug", "p-1", "on", "12.5"});
    gateway_.cloud->order({"account", "HA-1", "canary+mail", "canary&word"});
    // A fault of cloud-sim or a body; the reply's status or the reply; and the line.
    using Case = std::tuple<const char*, const char*, const char*>;
    const auto play = [&](const char* resource, std::span<const Case> cases, const std::string& service,
                          const char* method, const BusArguments& arguments) {
        for (const auto& [answer, reply, line] : cases) {
            *answer == '{' ? gateway_.cloud->answer(resource, 200, answer) : gateway_.cloud->fault(resource, answer);
            const std::string error = service == "dyndns" ? dynDnsError(reply) : voltaroError(reply);
            call(service, method, arguments, isupper(*reply) ? error : reply, line);
        }
    };
    constexpr char KNoServer[] = "SERVER_CONNECTION_ERROR", KOdd[] = "SERVER_INTERNAL_ERROR";
    constexpr char KNoAccount[] = "NO_PAIRED_VOLTARO_ACCOUNT", KNoLogin[] = "CANNOT_LOGIN_TO_VOLTARO";
    constexpr char KOffline[] = "SWITCH_IS_OFFLINE", KAlready[] = "SWITCH_ALREADY_HAS_SUCH_STATE";
    constexpr char KOff[] = R"({"status":"OK","state":"off"})", KNoText[] = DBUS_ERROR_FAILED;
    constexpr char KNoEmail[] = R"({"status":"SUCCESS","params":"{\"password\":\"x\"}"})";
    constexpr char KNotUtf8[] = "{\"status\":\"ok\",\"device\":{\"state\":\"\xFF\",\"power\":1}}";
    const Case verify[] = {
        {"close",                                    KNoServer,     "ERROR Dyn DNS IsNameTaken error"           },
        {"http500",                                  KOdd,          " WARN Dyn DNS status error: INTERNAL_ERROR"},
        {"not-json",                                 KOdd,          "Dyn DNS IsNameTaken finished"              },
        {R"({"status":"SUCCESS"})",                  KOdd,          "Dyn DNS IsNameTaken OK: "                  },
        {R"({"Status":"SUCCESS","AVAILABLE":1})",    KTrue.c_str(), "IsNameTaken: true"                         },
        {R"({"status":"sUCCESS","available":true})", KOdd,          "error: sUCCESS"                            },
    };
    const Case set[] = {
        {"close",    KNoServer, "ERROR Dyn DNS Configure error"                },
        {"not-json", KOdd,      "Dyn DNS Configure OK: "                       },
        {"redirect", KOdd,      " WARN Failed to configure DynDNS: BAD_REQUEST"},
    };
    const Case params[] = {
        {"close",                                          KNoServer,  "ERROR getParamsForHaId error"               },
        {"duplicate",                                      KOdd,       " WARN Failed to get params: DUPLICATE"      },
        {"not-json",                                       KOdd,       "Curl HTTP GET success"                      },
        {R"({"status":"SUCCESS"})",                        KNoAccount, "Curl HTTP GET success"                      },
        {R"({"status":"SUCCESS","params":{"email":"x"}})", KNoAccount, "GET success"                                },
        {KNoEmail,                                         KNoAccount, " WARN Cannot find Voltaro email or password"},
        {R"({"status":"SUCCESS","params":"{"})",           KOdd,       "Curl HTTP GET success"                      },
    };
    const Case auth[] = {
        {"close",                              KNoLogin, "ERROR Cannot login to Voltaro"       },
        {R"({"status":"OK","authToken":"t"})", KNoLogin, "ERROR Auth request returned error OK"},
        {R"({"status":"ok","authToken":7})",   KNoLogin, "ERROR Cannot find authToken"         },
    };
    const Case device[] = {
        {"close",                                      KNoServer, "ERROR Error while executing request "    },
        {"http500",                                    KNoServer, "ERROR Request returned error "           },
        {R"({"status":"ok"})",                         KOdd,      " WARN No device data in getSwitchDetails"},
        {R"({"status":"ok","device":{"state":"on"}})", KOdd,      "Get switch details OK"                   },
        {KNotUtf8,                                     KNoText,   "failed to send DBus method response"     },
    };
    const Case deviceOfToggle[] = {
        {R"({"status":"ok","device":{"state":1,"power":1}})", KNoServer, "ERROR Unknown device state"          },
        {R"({"status":"ok"})",                                KNoServer, "ERROR No device contents"            },
        {"close",                                             KNoServer, "ERROR Error while executing request "},
    };
    const Case switches[] = {
        {"not-json",                                          KNoServer, "Request returned OK"                     },
        {R"({"status":"ok"})",                                KNoServer, "ERROR Cannot find state in response json"},
        {R"({"status":"ok","state":"dimmed"})",               KOff,      "Current switch state: dimmed"            },
        {R"({"status":"no","error":"device.not.connected"})", KOffline,  "error no"                                },
        {R"({"status":"no","error":"switch.not.allowed"})",   KAlready,  "error no"                                },
        {R"({"status":"no","error":7})",                      KNoServer, "ERROR Request returned error no"         },
    };
    play("verify", verify, "dyndns", "IsNameTaken", {"free"});
    play("set", set, "dyndns", "Configure", {true, "box"});
    play("params", params, "voltaro", "Get", {"p-1"});
    play("auth", auth, "voltaro", "Get", {"p-1"});
    play("device", device, "voltaro", "Get", {"p-1"});
    play("device", deviceOfToggle, "voltaro", "Set", {"p-1", "toggle"});
    play("switch", switches, "voltaro", "Set", {"p-1", "on"});
    voltaro("Set", {"p-1", "toggle"}, KOff, "IIIIIIIIIIIIIIIIIIIIIIIIIIIIIIII Voltaro Set finished");
    for (const char* secret : {"canary", "token-"}) {
        EXPECT_NE(gateway_.cloud->wire().find(secret), std::string::npos);
        EXPECT_EQ((gateway_.log.content() + readFile(KStore)).find(secret), std::string::npos) << secret;
    }
}

TEST_F(Services, DescriptionsEqualTheInstalledFiles) {
    gateway_.start();
    size_t services = 0;
    for (const auto& file : std::filesystem::directory_iterator(ORSM_SOURCE_FOLDER "/dbus")) {
        if (file.path().extension() != ".xml") continue;
        const std::string path = "/" + file.path().stem().extension().string().substr(1);
        EXPECT_EQ(client_.call(path, DBUS_INTERFACE_INTROSPECTABLE, "Introspect"), readFile(file.path())) << path;
        ++services;
    }
    EXPECT_EQ(gateway_.log.count(" INFO Enabling "), services);
    EXPECT_EQ(gateway_.log.count(" INFO Voltaro message bus created"), 1U);
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
