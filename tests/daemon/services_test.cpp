// The D-Bus services of the running daemon, from a client's side: replies to the byte, what stands in the log, and what
// goes to the servers.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <sstream>

#include "tests/daemon/daemon.h"
#include "tests/world/bus_client.h"

using namespace world;

namespace {

struct Call {
    const char* method;
    BusArguments arguments;
    std::string reply;
    const char* line;  // that the call logs
};

class Services : public testing::Test {
  protected:
    // Makes the calls one after the other and checks reply and log of each.
    void run(const std::string& service, const std::vector<Call>& calls) {
        for (const auto& [method, arguments, reply, line] : calls) {
            SCOPED_TRACE(method + (" -> " + reply));
            EXPECT_EQ(client_.call("/" + service, "com.corvane.orsm." + service, method, arguments), reply);
            gateway_.log.next(line);
        }
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
std::string voltaroError(const char* status) { return std::string(R"({"status":")") + status + R"("})"; }

const std::string KTrue = R"({"status":"OK","result":true})";
const std::string KFalse = R"({"status":"OK","result":false})";
const std::string KInvalid = dynDnsError("INVALID_NAME");
const std::string KBusError = dynDnsError("DBUS_ERROR");
const std::string KNoSwitch = voltaroError("SWITCH_NOT_FOUND");
const std::string KNoAction = voltaroError("ACTION_NOT_DEFINED");
const std::string KNotSynchronized = voltaroError("NOT_SYNCHRONIZED");

}  // namespace

// One row a call: wrapped rows could not be compared by eye.
// clang-format off

TEST_F(Services, CheckArgumentsAndConditionsInOrder) {
    gateway_.start();
    run("orvoservicesinfo", {{"Get", {"more", true, 7}, R"({"status":"OK"})", "Get"}});
    run("dyndns", {
        {"IsEnabled", {true, "more"}, KFalse, "Dyn DNS IsEnabled finished"},
        {"GetName", {}, R"({"status":"OK","result":null})", "Dyn DNS GetName finished"},
        {"IsNameTaken", {""}, KInvalid, "ERROR Name is empty"},
        {"IsNameTaken", {"a"}, KInvalid, "ERROR Invalid name: a"},
        {"IsNameTaken", {std::string(64, 'a')}, KInvalid, "ERROR Invalid name: aaaa"},
        {"IsNameTaken", {"-ab"}, KInvalid, "ERROR Invalid name: -ab"},
        {"IsNameTaken", {"a\xC3\xA9"}, KInvalid, "ERROR Invalid name: a\xC3\xA9"},
        {"Configure", {}, KBusError, " WARN No arguments"},
        {"Configure", {"true", "box"}, KBusError, "Wrong argument 1 type, required: boolean"},
        {"Configure", {true}, KInvalid, " WARN No argument 2"},
        {"Configure", {true}, KInvalid, "ERROR Null argument 2"},
        {"Configure", {7}, KBusError, "unsupported type in dbus message: 105"},
        {"Configure", {true, 7}, KInvalid, "Wrong argument 2 type, required: string"},
        {"Configure", {true, "a.c"}, KInvalid, "ERROR Invalid name: a.c"},
        {"Configure", {true, "box"}, dynDnsError("NOT_SYNCHRONIZED"), " WARN HA-ID not available"},
        {"SetEnabled", {"true"}, "false", "Wrong argument 1 type, required: boolean"},
    });
    run("voltaro", {
        {"Set", {}, KNoSwitch, "ERROR Missing dbus method argument: switchId"},
        {"Set", {"s1"}, KNoAction, "ERROR Missing dbus method argument: action"},
        {"Set", {"s1", "ON"}, KNoAction, "ERROR Wrong dbus method argument: unknown action ON"},
        {"Set", {"s1", "on"}, KNotSynchronized, " WARN HA-ID not available"},
        {"Get", {}, KNoSwitch, "ERROR Missing dbus method argument: switchId"},
        {"Get", {"s1"}, KNotSynchronized, " WARN HA-ID not available"},
        {"EnableBackend", {"true"}, "false", "Wrong argument 1 type, required: boolean"},
    });
    EXPECT_TRUE(gateway_.cloud->journal().empty());
}

TEST_F(Services, DynDnsAsksTheServerAndKeepsAllThreeInAgreement) {
    gateway_.start();
    synchronize();
    gateway_.cloud->order({"take", "busy"});
    run("dyndns", {
        {"IsNameTaken", {"Free-1-"}, KFalse, " INFO Dyn DNS IsNameTaken: false"},
        {"IsNameTaken", {"busy"}, KTrue, " INFO Dyn DNS IsNameTaken: true"},
        {"IsNameTaken", {std::string(63, 'Z')}, KFalse, "Dyn DNS IsNameTaken: false"},
        {"Configure", {true, "Box"}, KTrue, " INFO Dyn DNS Configure response: true"},
        {"GetName", {}, R"({"status":"OK","result":"box"})", "GetName response: "},
        {"IsEnabled", {}, KTrue, " INFO Dyn DNS IsEnabled: true"},
    });
    EXPECT_NE(readFile(KStore).find(R"(string HostName = "box";)"), std::string::npos);
    gateway_.settle();  // with this the echo of the write has passed, too
    EXPECT_EQ(gateway_.log.count("Setup dyn dns on server"), 0U);

    // With home automation off nothing goes out.
    gateway_.set("NMC.HomeAutomation", "Enable", "0");
    gateway_.settle();
    run("dyndns", {
        {"Configure", {true, "box"}, dynDnsError("NOT_SYNCHRONIZED"), " WARN "},
        {"SetEnabled", {false}, "true", "No possibility to setup dyn dns on server"},
        {"SetEnabled", {true}, "true", "No possibility to setup dyn dns on server"},
    });
    gateway_.set("NMC.HomeAutomation", "Enable", "1");
    gateway_.log.next("DynDNS hostname box saved in PCB");
    gateway_.settle();

    // The switch alone reaches the server through the data model. Its address is taken over as it is.
    gateway_.set("OrvoService.HomeAutomation", "ApplicationServer", gateway_.cloud->url() + "/");
    run("dyndns", {{"SetEnabled", {false}, "true", "Failed to configure DynDNS: NOT_FOUND"}});
    EXPECT_EQ(gateway_.log.count("connection mode = on saved"), gateway_.log.count("connection mode = ondemand saved"));
    EXPECT_EQ(gateway_.log.count("connection mode = on saved"), gateway_.cloud->journal().size() - 3);  // but for names
    gateway_.set("OrvoService.HomeAutomation", "ApplicationServer", gateway_.cloud->url());
    gateway_.settle();
    run("dyndns", {{"Configure", {true, ""}, KTrue, "DynDNS empty hostname saved in PCB"}});
    EXPECT_EQ(gateway_.get("OrvoService.DynDNS", "HostName"), "");
    EXPECT_EQ(gateway_.cloud->wire(), R"(GET /hm/dyndns?haId=HA-1|Accept: */*|
GET /hm/dyndns/verify?name=free-1-|Accept: */*|
GET /hm/dyndns/verify?name=busy|Accept: */*|
GET /hm/dyndns/verify?name=)" + std::string(63, 'z') + R"(|Accept: */*|
POST /hm/dyndns/set|Accept: */*|Content-Type: application/json|Content-Length: 43|{"name":"box","haId":"HA-1","enabled":true}
GET /hm/dyndns?haId=HA-1|Accept: */*|
POST //hm/dyndns/set|Accept: */*|Content-Type: application/json|Content-Length: 44|{"name":"box","haId":"HA-1","enabled":false}
POST /hm/dyndns/set|Accept: */*|Content-Type: application/json|Content-Length: 40|{"name":"","haId":"HA-1","enabled":true}
)");
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
    run("dyndns", {
        {"IsEnabled", {}, KBusError, "ERROR Dyn DNS IsEnabled error"},
        {"GetName", {}, KBusError, "ERROR Dyn DNS GetName error"},
        {"SetEnabled", {true}, "false", "ERROR Cannot SetEnabled DynDNS value in PCB"},
        {"Configure", {true, "box"}, KTrue, "ERROR Cannot set DynDNS enable value in PCB"},
        {"Configure", {true, "box"}, KTrue, "ERROR Cannot set DynDNS hostname value in PCB"},
        {"Configure", {true, ""}, KTrue, "ERROR Cannot clear DynDNS hostname value in PCB"},
    });
    run("voltaro", {{"EnableBackend", {true}, "false", "param Enable (0x00020001 - "}});
}

TEST_F(Services, VoltaroSwitchesAndReadsPlugs) {
    gateway_.start();
    synchronize();
    gateway_.cloud->order({"plug", "p-1", "off", "12.50"});
    gateway_.cloud->order({"account", "HA-1", "me+you@x y", "p&=%"});
    const std::string on = R"({"status":"OK","state":"on"})", off = R"({"status":"OK","state":"off"})";
    const std::string noAnswer = voltaroError("SERVER_CONNECTION_ERROR");
    run("voltaro", {{"Set", {"p-1", "toggle"}, on, "Current switch state: on"}});
    EXPECT_EQ(gateway_.cloud->wire(), R"(GET /hm/dyndns?haId=HA-1|Accept: */*|
GET /hm/stardevice/HA-1/params|Accept: */*|
POST /api/auth|Accept: */*|Content-Type: application/x-www-form-urlencoded|Content-Length: 42|email=me%2Byou%40x%20y&password=p%26%3D%25
POST /api/device|Accept: */*|Content-Type: application/x-www-form-urlencoded|Auth-Token: token-1|Content-Length: 20|id=p-1&minimal=false
POST /api/device/switch|Accept: */*|Content-Type: application/x-www-form-urlencoded|Auth-Token: token-1|Content-Length: 14|id=p-1&on=true
)");
    gateway_.cloud->answer("device", 200, R"({"status":"ok","device":{"state":1,"power":1}})");
    run("voltaro", {
        {"Set", {"p-1", "toggle"}, noAnswer, "ERROR Unknown device state"},
        {"Get", {"p-1"}, R"({"status":"OK","switch":{"state":"on","power":12.5}})", "Get switch details OK"},
        {"Get", {true}, noAnswer, "ERROR Request returned error error"},
        {"Set", {"p-1", "off"}, off, "Current switch state: off"},
        {"EnableBackend", {true}, "true", " INFO Voltaro Enable set to 1"},
    });
    // clang-format on
    EXPECT_EQ(gateway_.get("OrvoService.Voltaro", "Enable"), "true");
    EXPECT_NE(readFile(KStore).find("object Voltaro {\n        bool Enable = \"true\""), std::string::npos);
}

TEST_F(Services, AnswerExactlyWhatTheirDescriptionsSay) {
    gateway_.start();
    size_t described = 0;
    for (const char* service : {"dyndns", "voltaro", "orvoservicesinfo"}) {
        const std::string interface = std::string("com.corvane.orsm.") + service;
        const std::string description =
            client_.call(std::string("/") + service, DBUS_INTERFACE_INTROSPECTABLE, "Introspect");
        EXPECT_EQ(description, readFile(ORSM_SOURCE_FOLDER "/dbus/" + interface + ".xml"));
        std::istringstream xml(description);
        std::string method;
        BusArguments arguments;
        for (std::string line; std::getline(xml, line);) {
            char name[64], type = 0, direction = 0;
            if (sscanf(line.c_str(), " <method name=\"%63[^\"]\"", name) == 1) method = name;
            sscanf(line.c_str(), " <arg name=\"%*[^\"]\" type=\"%c\" direction=\"%c", &type, &direction);
            if (direction == 'i') arguments.push_back(type == 'b' ? BusArgument(true) : BusArgument("xx"));
            if (direction != 'o') continue;
            const auto call = [&](int) {
                return BusClient::message(std::string("/") + service, interface, method, arguments);
            };
            EXPECT_TRUE(client_.callMany(1, 1, call, [&](DBusMessage* reply) {
                EXPECT_EQ(dbus_message_get_signature(reply), std::string(1, type)) << method;
            }));
            arguments.clear();
            ++described;
        }
    }
    EXPECT_EQ(gateway_.log.count("Adding listener for"), described);
}

static constexpr int KStandardInput = STDIN_FILENO;

TEST_F(Services, AreNotEndedByDescriptorsThatClientsSend) {
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
    run("orvoservicesinfo", {
                                {"Get", {}, R"({"status":"OK"})", "Get"}
    });
}
