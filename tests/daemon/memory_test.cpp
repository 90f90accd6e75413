// Out of memory: every allocation that the daemon makes on a path fails alone, then with the next three, then with all
// that follow. Most calls are replayed so without a process of their own, by tests/fuzz.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <random>

#include "common/msg_bus/message_bus_internal.h"
#include "tests/daemon/steered.h"

using namespace world;

namespace {

// A gateway whose daemon can be starved. Each walk says whether it had all its effects.
struct Starving : SteeredGateway {
    bool second = true;

    Starving() : SteeredGateway(1000) {}
    // While allocations fail: waits until the daemon does nothing more or only retries.
    void untilHandled() const {
        if (!steering().starved) return;
        unsigned before = 0, still = 0;
        EXPECT_TRUE(waitFor([&] {
            const unsigned now = steering().allAllocations;
            still = now && now == before ? still + 1 : 0;
            before = now;
            return still > 3 || steering().failed > 200 || !daemon->running();
        }));
        steering().starved = 0;
    }
    // Makes a change while allocations fail, and waits until the daemon has handled it.
    void change(const char* object, const char* parameter, const std::string& value) {
        emptyLog();
        set(object, parameter, value);
        untilHandled();
        settle();
    }
    // A change of the data model comes through the watch and the pipe, and is logged.
    bool watch() {
        change("OrvoService.HomeAutomation", "CommunicationServer", "changed");
        return log.count("Communication server URL changed: changed") > 0;
    }
    // A synchronization takes place, and is stored; one that began must come to its end.
    bool synchronize() {
        second = !second;
        const std::string name = second ? "second" : "box";
        change("NMC.HomeAutomation", "HA-ID", second ? "HA-2" : "HA-1");
        if (!log.count("Sync dyndns timer started")) return false;
        EXPECT_TRUE(waitFor([&] { return log.count("DynDNS hostname " + name + " saved in PCB") > 0; }))
            << log.content();
        settle();
        return stored("HostName") == name && stored("SyncNotFinished") == "false";
    }
    // A call reaches the server and the store.
    bool configure() {
        second = !second;
        const std::string name = second ? "office" : "home";
        const OwnedMessage call(BusClient::message("/dyndns", "", "Configure", {true, name}));
        dbus_connection_send(client.connection(), call.get(), nullptr);
        dbus_connection_flush(client.connection());
        untilHandled();
        // What waited for memory is served in its order, so that this is answered last.
        EXPECT_EQ(client.call("/", DBUS_INTERFACE_PEER, "Ping"), "");
        return stored("HostName") == name && cloud->order({"show"}).find(" " + name + " ") != std::string::npos;
    }
};

}  // namespace

TEST(Memory, DaemonSurvivesFailureOfEachAllocation) {
    Starving gateway;
    gateway.launch(KSteered);
    gateway.log.next("Entered pcb data model event loop");
    gateway.set("OrvoService.GatewayClient", "ConnectionMode", "on");
    gateway.synchronize();
    // A sample, unless ORSM_SWEEP is set; ORSM_SEED=NUMBER draws another.
    const char* const seed = getenv("ORSM_SEED");
    std::mt19937 random(seed ? static_cast<unsigned>(std::stoul(seed)) : 1);
    int places = 0;
    Steering& page = steering();
    // The last one gives the registrations other names.
    for (const auto walk : {&Starving::watch, &Starving::synchronize, &Starving::configure}) {
        for (unsigned round = 0; round < std::size(KModules) * 3; ++round) {
            const unsigned owner = round / 3;
            page.failed = 1;
            for (unsigned number = 1; page.failed && !HasFailure(); ++number) {
                if (!getenv("ORSM_SWEEP") && random() % 16) continue;
                SCOPED_TRACE(std::string("allocation in ") + KModules[owner] + " " + std::to_string(number));
                page.allocations = page.failed = page.allAllocations = 0;
                page.firstToFail = number;
                page.toFail = std::array{1U, 4U, UINT_MAX}[round % 3];
                page.starved = owner + 1;
                ++places;
                (gateway.*walk)();
                ASSERT_TRUE(gateway.daemon->running()) << gateway.daemon->output();
                EXPECT_TRUE((gateway.*walk)()) << gateway.log.content();
            }
        }
    }
    printf("figure: memory: %d places\n", places);
    EXPECT_EQ(gateway.end(), 0);
    EXPECT_EQ(gateway.daemon->output(), "");
}
