// Server, data model and saved file agree: in any order of calls and changes, and again after an interval.
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/daemon/steered.h"

using namespace world;

namespace {

using Requests = std::vector<std::string>;

// The server's record of a registration, as a request or an order has it.
std::string sent(const std::string& name, const std::string& haId, bool enabled) {
    return R"({"name":")" + name + R"(","haId":")" + haId + R"(","enabled":)" + (enabled ? "true}" : "false}");
}

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
    // The requests about registrations since `from`: an HA-ID that was asked for, or what was sent.
    Requests requests(size_t from = 0) const {
        Requests all;
        for (const std::string& line : cloud->journal()) {
            const std::string content = line.substr(line.rfind('|') + 1);
            if (line.find("/verify?") != std::string::npos) continue;
            all.push_back(content.empty() ? line.substr(line.find('=') + 1, 4) : content);
        }
        all.erase(all.begin(), all.begin() + static_cast<ptrdiff_t>(from));
        return all;
    }
    bool agrees() const {
        const std::string name = get("OrvoService.DynDNS", "HostName"), enable = get("OrvoService.DynDNS", "Enable");
        return stored("HostName") == name && stored("Enable") == enable && stored("SyncNotFinished") == "false" &&
               cloud->order({"show"}).find("registration " + haId + " " + name + " " + enable + "\n") <
                   std::string::npos;
    }
    // Sends a call, and does not wait for its reply.
    void send(const char* method, const BusArguments& arguments) {
        DBusMessage* const call = BusClient::message("/dyndns", "", method, arguments);
        dbus_connection_send(client.connection(), call, nullptr);
        dbus_connection_flush(client.connection());
        dbus_message_unref(call);
    }
    // Changes something as the platform, and waits until the change is on its way to the bus thread.
    void change(const char* object, const char* parameter, const std::string& value) {
        set(object, parameter, value);
        log.next("NEW_VALUE=" + value);
    }
    // A step of a row: C+x and C-x configure the name x, E+ and E- are other programs' writes of the switch, A+ and A-
    // those of home automation, Hx is the HA-ID HA-x, D+ and D- the DNS server, and Ux another address.
    void step(const std::string& word) {
        const char* const truth = word[1] == '+' ? "true" : "false";
        switch (word[0]) {
            case 'C': return send("Configure", {word[1] == '+', word.substr(2)});
            case 'E': return change("OrvoService.DynDNS", "Enable", truth);
            case 'A': return change("NMC.HomeAutomation", "Enable", truth);
            case 'D': return change("DNS.Server", "Status", truth);
            case 'H': return change("NMC.HomeAutomation", "HA-ID", haId = "HA-" + word.substr(1));
            default: return change("OrvoService.HomeAutomation", "ApplicationServer", cloud->url() + word.substr(1));
        }
    }
};

}  // namespace

// What waits behind a slow request takes effect in its order, the changes before the calls; and of the daemon's own
// writes the server hears nothing, however late they are reported.
TEST(Agreement, ChangesAndCallsThatWaitedTakeEffectInOrder) {
    const std::pair<std::vector<std::string>, Requests> rows[] = {
        {{"C-x1", "C+x2"},                   {sent("x1", "HA-1", false), sent("x2", "HA-1", true)}                           },
        {{"C-x1", "C+x2", "C-x3"},           {sent("x1", "HA-1", false), sent("x2", "HA-1", true), sent("x3", "HA-1", false)}},
        {{"C-x1", "E-"},                     {sent("box", "HA-1", false), sent("x1", "HA-1", false)}                         },
        {{"E-", "E+", "C-x1"},               {sent("x1", "HA-1", false)}                                                     },
        {{"D-", "D+", "H2", "C+x1"},         {sent("x1", "HA-2", true), "HA-2"}                                              },
        {{"U/1", "U/2", "U/3", "U", "C+x1"}, {sent("x1", "HA-1", true)}                                                      },
        {{"H2", "A-", "C+x1", "A+"},         {sent("x1", "HA-2", true), "HA-2"}                                              },
    };
    AgreeingGateway gateway(10'000);
    gateway.run();
    for (const auto& [steps, expected] : rows) {
        SCOPED_TRACE(testing::PrintToString(steps));
        gateway.cloud->order({"register", "HA-1", "box", "true"});
        gateway.emptyLog();
        gateway.set("NMC.HomeAutomation", "HA-ID", "");
        gateway.set("NMC.HomeAutomation", "HA-ID", gateway.haId = "HA-1");
        gateway.log.next("DynDNS hostname box saved in PCB");
        ASSERT_TRUE(waitFor([&] { return gateway.agrees(); }));
        gateway.settle();
        const size_t before = gateway.requests().size(), all = gateway.cloud->journal().size();
        gateway.cloud->fault("verify", "hold");
        gateway.send("IsNameTaken", {"free"});
        ASSERT_TRUE(waitFor([&] { return gateway.cloud->journal().size() > all; }));
        for (const std::string& word : steps) {
            gateway.step(word);
        }
        gateway.cloud->order({"release"});
        EXPECT_TRUE(waitFor([&] { return gateway.requests(before).size() >= expected.size() && gateway.agrees(); }));
        EXPECT_EQ(gateway.client.call("/", DBUS_INTERFACE_PEER, "Ping"), "");
        gateway.settle();
        EXPECT_EQ(gateway.requests(before), expected);
        EXPECT_TRUE(gateway.agrees());
    }
    EXPECT_EQ(gateway.end(), 0);
}

TEST(Agreement, AWriteThatTakesEffectLateIsNotPushedOverTheServersName) {
    AgreeingGateway gateway(100'000);
    gateway.run();
    ASSERT_TRUE(waitFor([&] { return gateway.agrees(); }));
    for (const std::string other : {"", "1"}) {  // what another program writes before the server's name is stored
        gateway.set("OrvoService.DynDNS", "Enable", "true");
        gateway.settle();
        gateway.cloud->order({"register", "HA-1", "new" + other, "false"});
        gateway.cloud->fault("get", "hold");
        const size_t before = gateway.requests().size();
        gateway.touch();
        ASSERT_TRUE(waitFor([&] { return gateway.requests().size() > before; }));
        gateway.bus->send(SIGSTOP);
        gateway.cloud->order({"release"});
        gateway.log.next("ERROR Cannot set DynDNS enable value in PCB");
        gateway.bus->send(SIGCONT);
        if (!other.empty()) gateway.change("OrvoService.DynDNS", "Enable", other);
        EXPECT_TRUE(waitFor([&] { return gateway.requests(before).size() >= 2 + other.size() && gateway.agrees(); }));
        gateway.settle();
        Requests expected = {"HA-1", "HA-1"};
        if (!other.empty()) expected.push_back(sent("new1", "HA-1", true));
        EXPECT_EQ(gateway.requests(before), expected);
    }
    EXPECT_EQ(gateway.end(), 0);
}

// Every row makes a difference that nothing reports. An hour later, which takes less than a second here, it is gone.
TEST(Agreement, ReconciliationRepairsDifferences) {
    AgreeingGateway gateway(200);
    const auto set = [&](const char* object, const char* parameter, const char* value) {
        gateway.set(object, parameter, value);
    };
    const auto restart = [&](const std::function<void()>& meanwhile, const std::string& configuration) {
        EXPECT_EQ(gateway.end(), 0);
        meanwhile();
        gateway.run(configuration);
    };
    const std::string interval = "synchronize.interval=3600\n";
    const std::tuple<const char*, std::function<void()>, const char*> rows[] = {
        {"another program's name",                            [&] { set("OrvoService.DynDNS", "HostName", "other"); }, "box true"    },
        {"the server has changed",
         [&] {
             gateway.cloud->order({"register", "HA-1", "new", "true"});
         },                                                                                                            "new true"    },
        {"the file is lost",                                  [&] { unlink(KStore); },                                 "new true"    },
        {"a push that the server did not take",
         [&] {
             gateway.cloud->fault("set", "http500");
             gateway.client.call("/dyndns", "", "SetEnabled", {false});
             gateway.log.next("Failed to configure DynDNS: INTERNAL_ERROR");
         },                                                                                                            "new false"   },
        {"an HA-ID that came while the daemon was down",
         [&] { restart([&] { set("NMC.HomeAutomation", "HA-ID", "HA-2"); }, interval); },                              "second false"},
        {"a watch that was refused at the start",
         [&] {
             gateway.cloud->order({"register", "HA-2", "third", "true"});
             restart([&] { set("Simulation.Objects", "Refused", "NMC.HomeAutomation"); }, interval);
             gateway.log.next("ERROR Request failed, error - ");
             set("Simulation.Objects", "Refused", "");
         },                                                                                                            "third true"  },
        {"a check for carrier-grade NAT that failed",
         [&] {
             set("Simulation.Functions", "Failing", "hasFlag");
             set("NeMo.Intf.data", "Flags", "cgnat");
             set("DNS.Server", "Status", "1");
             gateway.log.next("ERROR Request failed, error - ");
             set("Simulation.Functions", "Failing", "");
         },                                                                                                            " false"      },
        {"no more carrier-grade NAT, and nothing reports it", [&] { set("NeMo.Intf.data", "Flags", ""); },
         "third true"                                                                                                                },
    };
    gateway.run(interval);
    for (const auto& [what, disturb, registration] : rows) {
        SCOPED_TRACE(what);
        gateway.emptyLog();
        gateway.log.next("Sync dyndns timer started");
        gateway.settle();  // one is over, and the next far enough
        disturb();
        gateway.haId = gateway.get("NMC.HomeAutomation", "HA-ID");
        const std::string expected = registration;
        EXPECT_TRUE(waitFor([&] {
            const std::string now =
                gateway.get("OrvoService.DynDNS", "HostName") + " " + gateway.get("OrvoService.DynDNS", "Enable");
            return now == expected && (expected == " false" || gateway.agrees());
        }));
    }
    EXPECT_GT(gateway.log.count(" INFO Synchronizing DynDNS because its interval has passed"), 0U);

    // Without the key an hour passes, and nothing is asked.
    restart([] {}, "");
    set("OrvoService.DynDNS", "HostName", "other");
    set("DNS.Server", "Status", "false");
    gateway.touch();
    const size_t before = gateway.requests().size();
    EXPECT_TRUE(waitFor([&] { return gateway.log.count("DNS server is not yet ready") > 40; }));
    EXPECT_EQ(gateway.requests().size(), before);
    EXPECT_EQ(gateway.get("OrvoService.DynDNS", "HostName"), "other");
    EXPECT_EQ(gateway.end(), 0);
}
