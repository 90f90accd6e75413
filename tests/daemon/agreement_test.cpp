// Server, data model and saved file agree: in any order of calls and changes, and again after an interval.
#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>

#include "common/json/json.h"
#include "tests/daemon/steered.h"

using namespace world;

namespace {

struct AgreeingGateway : SteeredGateway {
    std::string haId = "HA-1";

    explicit AgreeingGateway(int second) : SteeredGateway(second) {
        set("OrvoService.GatewayClient", "ConnectionMode", "on");
        set("NMC.HomeAutomation", "HA-ID", haId);
    }
    void run(const std::string& configuration = "") {
        emptyLog();
        launch(KSteered, configuration);
        log.next("Entered pcb data model event loop");
    }
    // The requests behind the first `from`: an HA-ID that was asked for, or a name with its HA-ID and + or -.
    std::string requests(size_t from) const {
        std::string all;
        for (const std::string& line : cloud->journal()) {
            if (from > 0 && from--) continue;
            const OwnedJson body = parseJson(line.substr(line.rfind('|') + 1).c_str());
            const auto text = [&](const char* name) { return std::string(jsonTextMember(body.get(), name)) + " "; };
            all += body ? text("name") + text("haId") + (line.ends_with("true}") ? "+ " : "- ")
                        : line.substr(line.find('=') + 1, 4) + " ";
        }
        return all;
    }
    bool agrees() const {
        const std::string name = get("OrvoService.DynDNS", "HostName"), enable = get("OrvoService.DynDNS", "Enable"),
                          record = "registration " + haId + " " + name + " " + enable + "\n";
        return stored("HostName") == name && stored("Enable") == enable && stored("SyncNotFinished") == "false" &&
               cloud->order({"show"}).find(record) != std::string::npos;
    }
    // Begins something whose request the server holds: how many requests there were then.
    size_t hold(const char* resource, const std::function<void()>& begin) const {
        cloud->fault(resource, "hold");
        const size_t before = cloud->journal().size();
        begin();
        EXPECT_TRUE(waitFor([&] { return cloud->journal().size() > before; }));
        return before + 1;
    }
    // Sends a call, and does not wait for its reply.
    void send(const char* method, const BusArguments& arguments) {
        const Owned<DBusMessage, dbus_message_unref> call(BusClient::message("/dyndns", "", method, arguments));
        dbus_connection_send(client.connection(), call.get(), nullptr);
        dbus_connection_flush(client.connection());
    }
    // C+x and C-x configure the name x. The others are changes by the platform or other programs, on their way to the
    // bus thread when this returns: E+ and E- of the switch, A+ and A- of home automation, D+ and D- of the DNS server,
    // Hx to the HA-ID HA-x, and Ux to another address.
    void step(const std::string& word) {
        const bool on = word[1] == '+';
        if (word[0] == 'C') return send("Configure", {on, word.substr(2)});
        const auto [object, parameter, value] =
            word[0] == 'E'   ? std::tuple("OrvoService.DynDNS", "Enable", std::string(on ? "true" : "false"))
            : word[0] == 'A' ? std::tuple("NMC.HomeAutomation", "Enable", std::string(on ? "true" : "false"))
            : word[0] == 'D' ? std::tuple("DNS.Server", "Status", std::string(on ? "true" : "false"))
            : word[0] == 'H' ? std::tuple("NMC.HomeAutomation", "HA-ID", haId = "HA-" + word.substr(1))
                             : std::tuple("OrvoService.HomeAutomation", "ApplicationServer", cloud->url() + &word[1]);
        set(object, parameter, value);
        log.next("NEW_VALUE=" + value);
    }
};

}  // namespace

// What waits behind a slow request takes effect in its order, the changes before the calls; and of the daemon's own
// writes the server hears nothing, however late they are reported.
TEST(Agreement, ChangesAndCallsThatWaitedTakeEffectInOrder) {
    const std::pair<const char*, const char*> rows[] = {
        {"C-x1 C+x2 C-x3",     "x1 HA-1 - x2 HA-1 + x3 HA-1 - "},
        {"C-x1 E-",            "box HA-1 - x1 HA-1 - "         },
        {"E- E+ C-x1",         "x1 HA-1 - "                    },
        {"D- D+ H2 C+x1",      "x1 HA-2 + HA-2 "               },
        {"U/1 U/2 U/3 U C+x1", "x1 HA-1 + "                    },
        {"H2 A- C+x1 A+",      "x1 HA-2 + HA-2 "               },
    };
    AgreeingGateway gateway(10'000);
    gateway.run();
    for (const auto& [steps, requests] : rows) {
        SCOPED_TRACE(steps);
        const std::string expected = requests;
        gateway.cloud->order({"register", "HA-1", "box", "true"});
        gateway.emptyLog();
        gateway.set("NMC.HomeAutomation", "HA-ID", "");
        gateway.set("NMC.HomeAutomation", "HA-ID", gateway.haId = "HA-1");
        gateway.log.next("DynDNS hostname box saved in PCB");
        ASSERT_TRUE(waitFor([&] { return gateway.agrees(); }));
        gateway.settle();
        const size_t before = gateway.hold("verify", [&] { gateway.send("IsNameTaken", {"free"}); });
        std::istringstream words(steps);
        for (std::string word; words >> word;) {
            gateway.step(word);
        }
        gateway.cloud->order({"release"});
        EXPECT_TRUE(waitFor([&] { return gateway.requests(before) == expected && gateway.agrees(); }));
        EXPECT_EQ(gateway.client.call("/", DBUS_INTERFACE_PEER, "Ping"), "");
        gateway.settle();
        EXPECT_EQ(gateway.requests(before), expected);
    }
    EXPECT_EQ(gateway.end(), 0);
}

TEST(Agreement, AWriteThatTakesEffectLateIsNotPushedOverTheServersName) {
    AgreeingGateway gateway(100'000);
    gateway.run();
    ASSERT_TRUE(waitFor([&] { return gateway.agrees(); }));
    // The second time another program switches it on before the server's name is stored.
    for (const std::string expected : {"HA-1 ", "HA-1 new HA-1 + "}) {
        gateway.set("OrvoService.DynDNS", "Enable", "true");
        gateway.settle();
        gateway.cloud->order({"register", "HA-1", "new", "false"});
        const size_t before = gateway.hold("get", [&] { gateway.touch(); });
        gateway.bus->send(SIGSTOP);
        gateway.cloud->order({"release"});
        gateway.log.next("ERROR Cannot set DynDNS enable value in PCB");
        gateway.bus->send(SIGCONT);
        if (expected != "HA-1 ") gateway.step("E+");
        EXPECT_TRUE(waitFor([&] { return gateway.requests(before) == expected && gateway.agrees(); }));
        gateway.settle();
        EXPECT_EQ(gateway.requests(before), expected);
    }
    EXPECT_EQ(gateway.end(), 0);
}

// Differences that nothing reports are gone an hour later, which takes less than a second here.
TEST(Agreement, ReconciliationRepairsDifferences) {
    AgreeingGateway gateway(200);
    const auto set = [&](const char* object, const char* parameter, const char* value) {
        gateway.set(object, parameter, value);
    };
    const auto comesTo = [&](const char* name, const char* enable, const std::function<void()>& disturb) {
        SCOPED_TRACE(std::string(name) + " " + enable);
        gateway.emptyLog();
        gateway.log.next(" INFO Synchronizing DynDNS because its interval has passed");
        gateway.settle();  // it is over, and the next one is far enough
        disturb();
        EXPECT_TRUE(waitFor([&] {
            return gateway.get("OrvoService.DynDNS", "HostName") == name &&
                   gateway.get("OrvoService.DynDNS", "Enable") == enable && (!*name || gateway.agrees());
        }));
    };
    const auto restart = [&](const char* configuration, const auto&... meanwhile) {
        EXPECT_EQ(gateway.end(), 0);
        (meanwhile(), ...);
        gateway.run(configuration);
    };
    const auto call = [&](const char* method, const BusArguments& arguments, const char* line) {
        EXPECT_TRUE(waitFor([&] {  // again when a synchronization comes between
            gateway.client.call("/dyndns", "", method, arguments);
            return gateway.log.count(line) > 0;
        }));
    };
    const char* const hourly = "synchronize.interval=3600\n";
    set("Simulation.Objects", "Refused", "NeMo.Intf.data.Query.1");
    gateway.run(hourly);
    gateway.log.next("Listening to changes in: NeMo.Intf.data.Query.2");  // in place of the refused one
    comesTo("box", "true", [&] { set("OrvoService.DynDNS", "HostName", "other"); });
    comesTo("first", "true", [&] {  // a name whose registration was not answered
        gateway.cloud->fault("set", "half");
        call("Configure", {true, "first"}, "ERROR Dyn DNS Configure error");
    });
    comesTo("first", "false", [&] {  // a switch that is not in the file yet
        call("SetEnabled", {false}, "Dyn DNS Configure OK: ");
        restart(hourly);
    });
    comesTo("first", "false", [&] {  // a switch that is taken for the first value: nothing is loaded over it
        unlink(KStore);
        restart(hourly, [&] { set("OrvoService.DynDNS", "Enable", "true"); });
    });
    comesTo("first", "true", [&] {  // a push that the server did not take
        gateway.cloud->order({"take", "first"});
        call("SetEnabled", {true}, "Failed to configure DynDNS: NAME_TAKEN");
        gateway.cloud->order({"free", "first"});
    });
    comesTo("new", "true", [&] {  // another server, and a push that no client waits for any more
        gateway.cloud->order({"fault", "get", "http500", "0"});
        gateway.cloud->order({"take", "first"});
        call("SetEnabled", {false}, "Failed to configure DynDNS: NAME_TAKEN");
        call("Configure", {false, "old"}, "Dyn DNS Configure OK: ");
        gateway.cloud->order({"register", "HA-1", "new", "true"});
        gateway.step("U/moved");
    });
    comesTo("second", "false", [&] {  // a new HA-ID, whose synchronization waits when the daemon ends
        gateway.step("D-");
        gateway.step("H2");
        restart(hourly, [&] { set("DNS.Server", "Status", "true"); });
    });
    comesTo("third", "true", [&] {  // a watch and a check that failed at the start, and a switch that nobody took
        set("NMC.HomeAutomation", "Enable", "false");
        set("Simulation.Objects", "Refused", "NMC.HomeAutomation");
        set("Simulation.Functions", "Failing", "hasFlag");
        restart(hourly);
        call("SetEnabled", {true}, "No possibility to setup dyn dns on server");
        set("Simulation.Objects", "Refused", "");
        set("Simulation.Functions", "Failing", "");
        gateway.log.next("HA is disabled");
        gateway.cloud->order({"register", "HA-2", "third", "true"});
        set("NMC.HomeAutomation", "Enable", "true");
    });
    comesTo("", "false", [&] { restart(hourly, [&] { set("NeMo.Intf.data", "Flags", "cgnat"); }); });
    comesTo("third", "true", [&] {  // a check that failed
        set("Simulation.Functions", "Failing", "hasFlag");
        set("NeMo.Intf.data", "Flags", "");
        set("DNS.Server", "Status", "1");
        gateway.log.next("ERROR Request failed, error - ");
        set("Simulation.Functions", "Failing", "");
    });
    comesTo("", "false", [&] { set("NeMo.Intf.data", "Flags", "cgnat"); });

    // Without the key an hour passes, and nothing is asked.
    restart("");
    set("OrvoService.DynDNS", "HostName", "other");
    set("DNS.Server", "Status", "false");
    gateway.touch();
    const size_t before = gateway.cloud->journal().size();
    EXPECT_TRUE(waitFor([&] { return gateway.log.count("DNS server is not yet ready") > 40; }));
    EXPECT_EQ(gateway.requests(before), "");
    EXPECT_EQ(gateway.log.count("nterval"), 0U);
    EXPECT_EQ(gateway.get("OrvoService.DynDNS", "HostName"), "other");
    EXPECT_EQ(gateway.end(), 0);
}
