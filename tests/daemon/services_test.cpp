// The D-Bus services of the running daemon, from a client's side: replies to the byte, and what stands in the log.
#include <gtest/gtest.h>

#include <sstream>
#include <thread>

#include "tests/daemon/daemon.h"
#include "tests/world/bus_client.h"

using namespace world;

namespace {

struct Call {
    const char* method;
    BusArguments arguments;
    std::string reply;
    const char* line;                     // that the call logs; null for none
    bool finished;                        // whether the method's own last line is logged
    std::vector<std::string> order = {};  // given to the servers before
};

class Services : public testing::Test {
  protected:
    // Makes the calls one after the other and checks reply and log of each.
    void run(const char* service, const std::string& finishedLine, const std::vector<Call>& calls) {
        for (const Call& c : calls) {
            SCOPED_TRACE(std::string(c.method) + " -> " + c.reply);
            if (!c.order.empty()) gateway_.cloud->order(c.order);
            const size_t finished = gateway_.log.count(finishedLine + c.method + " finished");
            const size_t lines = c.line ? gateway_.log.count(c.line) : 0;
            EXPECT_EQ(client_.call(std::string("/") + service, std::string("com.corvane.orsm.") + service, c.method,
                                   c.arguments),
                      c.reply);
            // The last line of a call may follow its reply; the next call comes behind it.
            EXPECT_EQ(client_.call("/orvoservicesinfo", "com.corvane.orsm.orvoservicesinfo", "Get"),
                      R"({"status":"OK"})");
            EXPECT_EQ(gateway_.log.count(finishedLine + c.method + " finished"), finished + (c.finished ? 1 : 0));
            if (c.line) {
                EXPECT_EQ(gateway_.log.count(c.line), lines + 1) << c.line;
            }
        }
    }
    void dynDns(const std::vector<Call>& calls) { run("dyndns", " INFO Dyn DNS ", calls); }
    void voltaro(const std::vector<Call>& calls) { run("voltaro", " INFO Voltaro ", calls); }

    void synchronize(const std::string& haId) {
        gateway_.set("NMC.HomeAutomation", "HA-ID", haId);
        gateway_.log.next("DynDNS empty hostname saved in PCB");
        gateway_.log.next("saved to OrvoService");
    }
    void endWell() {
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
const std::string KNoName = R"({"status":"OK","result":null})";
const std::string KInvalid = dynDnsError("INVALID_NAME");
const std::string KBusError = dynDnsError("DBUS_ERROR");
const std::string KUnknownMethod = "org.freedesktop.DBus.Error.UnknownMethod";

}  // namespace

// One row a call: wrapped rows could not be compared by eye.
// clang-format off

TEST_F(Services, DynDnsChecksArgumentsAndConditionsInOrder) {
    gateway_.start();
    dynDns({
        {"IsEnabled", {}, KFalse, " INFO Dyn DNS IsEnabled: false", true},
        {"GetName", {}, KNoName, "GetName response: ", true},
        {"IsNameTaken", {}, KInvalid, "ERROR Name is empty", true},
        {"IsNameTaken", {7}, KInvalid, "ERROR Name is empty", true},
        {"IsNameTaken", {""}, KInvalid, "ERROR Name is empty", true},
        {"IsNameTaken", {"a"}, KInvalid, "ERROR Invalid name: a", true},
        {"IsNameTaken", {std::string(64, 'a')}, KInvalid, "ERROR Invalid name: aaaa", true},
        {"IsNameTaken", {"-ab"}, KInvalid, "ERROR Invalid name: -ab", true},
        {"IsNameTaken", {"a.b"}, KInvalid, "ERROR Invalid name: a.b", true},
        {"IsNameTaken", {"a\xC3\xA9"}, KInvalid, "ERROR Invalid name: a\xC3\xA9", true},
        {"Configure", {}, KBusError, " WARN No arguments", false},
        {"Configure", {"true", "box"}, KBusError, "Wrong argument 1 type, required: boolean", false},
        {"Configure", {true}, KInvalid, " WARN No argument 2", false},
        {"Configure", {false}, KInvalid, "ERROR Null argument 2", false},
        {"Configure", {true, 7}, KInvalid, "Wrong argument 2 type, required: string", false},
        {"Configure", {true, "a_c"}, KInvalid, "ERROR Invalid name: a_c", false},
        {"Configure", {true, "box"}, dynDnsError("NOT_SYNCHRONIZED"), " WARN HA-ID not available", false},
        {"SetEnabled", {"true"}, "false", "Wrong argument 1 type, required: boolean", false},
        {"SetEnabled", {}, "false", " WARN No arguments", false},
        {"setEnabled", {true}, KUnknownMethod, nullptr, false},
    });
    EXPECT_TRUE(gateway_.cloud->journal().empty());
    endWell();
}

TEST_F(Services, DynDnsAsksTheServerAndKeepsAllThreeInAgreement) {
    gateway_.start();
    synchronize("HA-1");
    dynDns({
        {"IsNameTaken", {"Free-1-"}, KFalse, " INFO Dyn DNS IsNameTaken: false", true},
        {"IsNameTaken", {"busy"}, KTrue, " INFO Dyn DNS IsNameTaken: true", true, {"take", "busy"}},
        {"IsNameTaken", {std::string(63, 'Z')}, KFalse, "Dyn DNS IsNameTaken: false", true},
        {"Configure", {true, "Box"}, KTrue, " INFO Dyn DNS Configure response: true", true},
        {"GetName", {}, R"({"status":"OK","result":"box"})", nullptr, true},
        {"IsEnabled", {}, KTrue, " INFO Dyn DNS IsEnabled: true", true},
    });
    EXPECT_EQ(gateway_.cloud->journal()[1].target, "/hm/dyndns/verify?name=free-1-");
    EXPECT_EQ(gateway_.cloud->journal().back().body, R"({"name":"box","haId":"HA-1","enabled":true})");
    EXPECT_NE(readFile(KStore).find(R"(string HostName = "box";)"), std::string::npos);
    gateway_.settle();  // with this the echo of the write has passed, too
    EXPECT_EQ(gateway_.log.count("Setup dyn dns on server"), 0U);

    // The switch alone reaches the server through the data model, and the file with the next save.
    dynDns({{"SetEnabled", {false}, "true", " INFO Requested enabled=false", true}});
    gateway_.log.next("Dyn DNS Configure OK");
    EXPECT_EQ(gateway_.cloud->journal().back().body, R"({"name":"box","haId":"HA-1","enabled":false})");
    dynDns({{"Configure", {true, ""}, KTrue, "DynDNS empty hostname saved in PCB", true}});
    EXPECT_EQ(gateway_.cloud->journal().back().body, R"({"name":"","haId":"HA-1","enabled":true})");
    EXPECT_EQ(gateway_.get("OrvoService.DynDNS", "HostName"), "");
    endWell();
}

TEST_F(Services, AnswerWhenTheDataModelHasNoSuchObject) {
    writeFile("/var/run/small.odl",
              "object OrvoService { object GatewayClient { bool ConnectionStatus = \"true\"; } }\n"
              "object NMC { object HomeAutomation { string HA-ID = \"HA-1\"; bool Enable = \"1\"; } }\n"
              "object DNS { object Server { bool Status = \"1\"; } }\n"
              "object NeMo { object Intf { object data { string Flags = \"\"; string Addresses = \"\"; } } }\n");
    gateway_.bus->send(SIGTERM);
    gateway_.bus->wait();
    gateway_.bus = startPcbBus("/var/run/small.odl");
    gateway_.start();
    dynDns({
        {"IsEnabled", {}, KBusError, "ERROR Dyn DNS IsEnabled error", false},
        {"GetName", {}, KBusError, "ERROR Dyn DNS GetName error", false},
        {"SetEnabled", {true}, "false", "ERROR Cannot SetEnabled DynDNS value in PCB", false},
        {"Configure", {true, "box"}, KTrue, "ERROR Cannot set DynDNS enable value in PCB", true},
        {"Configure", {true, "box"}, KTrue, "ERROR Cannot set DynDNS hostname value in PCB", true},
        {"Configure", {true, ""}, KTrue, "ERROR Cannot clear DynDNS hostname value in PCB", true},
    });
    voltaro({{"EnableBackend", {true}, "false", "param Enable (0x00020001 - ", true}});
    endWell();
}

TEST_F(Services, VoltaroSwitchesAndReadsPlugs) {
    const std::string notFound = voltaroError("SWITCH_NOT_FOUND");
    const std::string noAction = voltaroError("ACTION_NOT_DEFINED");
    const std::string notSynchronized = voltaroError("NOT_SYNCHRONIZED");
    gateway_.start();
    voltaro({
        {"Set", {}, notFound, "ERROR Missing dbus method argument: switchId", false},
        {"Set", {true, "on"}, notFound, "Wrong argument 1 type, required: string", false},
        {"Set", {"s1"}, noAction, "ERROR Missing dbus method argument: action", false},
        {"Set", {"s1", "ON"}, noAction, "ERROR Wrong dbus method argument: unknown action ON", false},
        {"Set", {"s1", "on"}, notSynchronized, " WARN HA-ID not available", false},
        {"Get", {"s1"}, notSynchronized, "HA-ID not available", false},
        {"EnableBackend", {"true"}, "false", "Wrong argument 1 type, required: boolean", true},
    });
    EXPECT_TRUE(gateway_.cloud->journal().empty());
    synchronize("HA-1");
    gateway_.cloud->order({"plug", "p-1", "off", "12.50"});
    gateway_.cloud->order({"account", "HA-1", "me+you@x y", "p&=%"});
    const std::string on = R"({"status":"OK","state":"on"})";
    const std::string off = R"({"status":"OK","state":"off"})";
    const std::string noAnswer = voltaroError("SERVER_CONNECTION_ERROR");
    const char* noState = R"({"status":"ok","device":{"state":1,"power":1}})";
    const std::vector<std::string> answerNoState = {"fault", "device", "body", "1", "200", noState};
    voltaro({
        {"Get", {"p-1"}, R"({"status":"OK","switch":{"state":"off","power":12.5}})", "Get switch details OK", true},
        {"Get", {true}, noAnswer, "ERROR Request returned error error", false},
        {"Set", {"p-1", "off"}, off, "Current switch state: off", true},
        {"Set", {"p-1", "toggle"}, noAnswer, "ERROR Unknown device state", false, answerNoState},
        {"EnableBackend", {true}, "true", " INFO Voltaro Enable set to 1", true},
        {"Set", {"p-1", "toggle"}, on, "Current switch state: on", true},
    });
    // clang-format on
    EXPECT_EQ(gateway_.get("OrvoService.Voltaro", "Enable"), "true");
    endWell();

    // What stood on the wire for the toggle, last: account, login, details, switch.
    const std::vector<CloudRequest> journal = gateway_.cloud->journal();
    std::string toggle;
    for (size_t i = journal.size() - 4; i < journal.size(); ++i) {
        toggle += journal[i].target + " " + journal[i].body + "\n";
    }
    EXPECT_EQ(toggle, R"(/hm/stardevice/HA-1/params 
/api/auth email=me%2Byou%40x%20y&password=p%26%3D%25
/api/device id=p-1&minimal=false
/api/device/switch id=p-1&on=true
)");
    std::string headers;
    for (const std::string& header : journal.back().headers) {
        headers += header + "\n";
    }
    EXPECT_NE(headers.find("Content-Type: application/x-www-form-urlencoded\nAuth-Token: token-"), std::string::npos);
}

// The methods of a service's description, each as "method in>out".
static std::vector<std::string> describedMethods(const std::string& interface) {
    std::istringstream xml(readFile(ORSM_SOURCE_FOLDER "/dbus/" + interface + ".xml"));
    std::vector<std::string> methods;
    for (std::string line; std::getline(xml, line);) {
        char name[64], type = 0, direction = 0;
        if (sscanf(line.c_str(), " <method name=\"%63[^\"]\"", name) == 1) methods.push_back(name + std::string(" >"));
        if (sscanf(line.c_str(), " <arg name=\"%*[^\"]\" type=\"%c\" direction=\"%c", &type, &direction) != 2) continue;
        std::string& last = methods.back();
        last.insert(direction == 'i' ? last.find('>') : last.size(), 1, type);
    }
    return methods;
}

TEST_F(Services, AnswerExactlyWhatTheirDescriptionsSay) {
    gateway_.start();
    LogReader listening(KDaemonLog);
    size_t described = 0;
    for (const char* service : {"dyndns", "voltaro", "orvoservicesinfo"}) {
        const std::string interface = std::string("com.corvane.orsm.") + service;
        for (const std::string& method : describedMethods(interface)) {
            SCOPED_TRACE(interface + "." + method);
            const size_t in = method.find(' ') + 1, out = method.find('>') + 1;
            listening.next("interface='" + interface + "',member='" + method.substr(0, in - 1) + "'");
            BusArguments arguments;
            for (size_t i = in; i + 1 < out; ++i) {
                arguments.push_back(method[i] == 'b' ? BusArgument(true) : BusArgument("xx"));
            }
            const auto make = [&](int) {
                return BusClient::message(std::string("/") + service, interface, method.substr(0, in - 1), arguments);
            };
            EXPECT_TRUE(client_.callMany(1, 1, make, [&](DBusMessage* reply) {
                EXPECT_EQ(dbus_message_get_signature(reply), method.substr(out));
            }));
            ++described;
        }
    }
    EXPECT_EQ(gateway_.log.count("Adding listener for"), described);
    endWell();
}

TEST_F(Services, WrongClientsHarmNobody) {
    gateway_.start();
    const std::string info = R"({"status":"OK"})";
    const std::string& unknown = KUnknownMethod;
    struct Case {
        const char *path, *interface, *method;
        BusArguments arguments;
        std::string reply;
    };
    for (const Case& c : {
             Case{"/orvoservicesinfo", "",                                  "Get",       {},                info   },
             Case{"/orvoservicesinfo", "com.corvane.orsm.orvoservicesinfo", "Get",       {"more", true, 7}, info   },
             Case{"/dyndns",           "com.corvane.orsm.voltaro",          "Get",       {"x"},             unknown},
             Case{"/dyndns",           "",                                  "GetName",   {},                KNoName},
             Case{"/dyndns",           "com.corvane.orsm.dyndns",           "IsEnabled", {false, "x"},      KFalse },
             Case{"/none",             "com.corvane.orsm.dyndns",           "GetName",   {},                unknown},
    }) {
        EXPECT_EQ(client_.call(c.path, c.interface, c.method, c.arguments), c.reply) << c.path << " " << c.method;
    }

    // A client that is gone before its answer, while the server holds the bus thread.
    gateway_.cloud->order({"fault", "verify", "hold"});
    {
        BusClient hasty;
        DBusMessage* call = BusClient::message("/dyndns", "com.corvane.orsm.dyndns", "IsNameTaken", {"free"});
        dbus_connection_send(hasty.connection(), call, nullptr);
        dbus_connection_flush(hasty.connection());
        dbus_message_unref(call);
        ASSERT_TRUE(waitFor([&] { return gateway_.cloud->journal().size() == 1; }));
    }
    gateway_.cloud->order({"release"});
    gateway_.log.next("Dyn DNS IsNameTaken finished");

    gateway_.set("OrvoService.DynDNS", "HostName", std::string(100'000, '\x01'));
    EXPECT_EQ(client_.call("/dyndns", "com.corvane.orsm.dyndns", "GetName").size(), 600'000U + 27);
    endWell();
}

TEST_F(Services, CallsAndChangesWaitForASlowServerAndKeepTheirOrder) {
    gateway_.start();
    gateway_.cloud->order({"fault", "verify", "hold"});
    dbus_threads_init_default();
    std::thread calls([&] {
        int answered = 0;
        EXPECT_TRUE(client_.callMany(
            51, 51,
            [](int number) {
                const std::string name = number ? "-" + std::to_string(number) : "free";
                return BusClient::message("/dyndns", "com.corvane.orsm.dyndns", "IsNameTaken", {name});
            },
            [&](DBusMessage* reply) { EXPECT_EQ(BusClient::textOf(reply), answered++ ? KInvalid : KFalse); }));
    });
    EXPECT_TRUE(waitFor([&] { return gateway_.cloud->journal().size() == 1; }));
    for (const char* marker : {"first", "second", "third"}) {
        gateway_.set("OrvoService.HomeAutomation", "CommunicationServer", marker);
    }
    EXPECT_EQ(gateway_.log.count("Invalid name") + gateway_.log.count("server URL changed"), 0U);
    gateway_.cloud->order({"release"});
    calls.join();
    for (const char* marker : {"first", "second", "third"}) {
        gateway_.log.next(std::string("Communication server URL changed: ") + marker);
    }
    LogReader log(KDaemonLog);
    for (int i = 1; i <= 50; ++i) {
        log.next("Invalid name: -" + std::to_string(i));
    }
    endWell();
}
