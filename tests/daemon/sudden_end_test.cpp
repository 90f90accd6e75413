// The daemon's end at any moment: killed at each step of a synchronization, and told to end at random times.
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <random>

#include "tests/daemon/faults.h"

using namespace world;

static bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

TEST(SuddenEnd, AtAnyLogLineOrStoreCallOfASynchronizationIsMadeGoodByTheNextStart) {
    StoredGateway gateway;
    gateway.startSteered();
    gateway.heal("box");
    for (int call = 1, deaths = 0; !HasFailure(); ++call, ++deaths) {
        const std::string name = "box-" + std::to_string(call), enabled = call % 2 ? "true" : "false";
        SCOPED_TRACE("killed before call " + std::to_string(call));
        gateway.cloud->order({"register", "HA-1", name, enabled});
        gateway.emptyLog();
        const std::string before = gateway.stored("HostName");
        const bool echoes = gateway.stored("Enable") != enabled;
        const size_t requests = gateway.cloud->journal().size();
        strike(call, KKill, true);
        gateway.platform.set("NMC.HomeAutomation", "Enable", call % 2 ? "1" : "true");
        // The echo of a changed switch is its last line.
        const auto done = [&] {
            return gateway.log.count("orvoservice.odl saved to OrvoService") == 4 &&
                   (!echoes || gateway.log.count("DynDNS enable: ") == 1);
        };
        ASSERT_TRUE(waitFor([&] { return !gateway.daemon->running() || done(); }));
        if (gateway.daemon->running()) {
            strike(0, 0);
            ASSERT_GT(deaths, 32) << "it must have saved four times";
            printf("sudden end: %d deaths in a synchronization of %zu log lines\n", deaths, gateway.log.count(" "));
            break;
        }

        strike(0, 0);
        ASSERT_TRUE(gateway.isStoreWhole());
        const bool unfinished = gateway.stored("SyncNotFinished") == "true";
        const bool begun = unfinished || gateway.stored("HostName") == name;
        EXPECT_TRUE(begun || gateway.cloud->journal().size() == requests) << "asked, and nothing remembers it";
        gateway.startSteered();
        EXPECT_EQ(gateway.log.count("Continuing unfinished DynDNS synchronization"), unfinished ? 1U : 0U);
        ASSERT_TRUE(waitFor([&] { return gateway.stored("SyncNotFinished") == "false"; }));
        gateway.heal(name);
        ASSERT_EQ(gateway.stored("HostName"), begun ? name : before);
        EXPECT_TRUE(!begun || gateway.stored("Enable") == enabled);
        EXPECT_EQ(readFile(KPidFile), std::to_string(gateway.daemon->pid()) + "\n");
        object_t* const queries = pcb_client_get_object(gateway.platform.peer, "NeMo.Intf.data.Query", 0);
        EXPECT_TRUE(object_firstChild(queries) && !object_nextSibling(object_firstChild(queries)));
        const std::vector<CloudRequest> journal = gateway.cloud->journal();
        EXPECT_LE(journal.size(), requests + 2);
        for (size_t i = requests; i < journal.size(); ++i) {
            EXPECT_EQ(journal[i].target, "/hm/dyndns?haId=HA-1");
        }
    }
    EXPECT_EQ(gateway.end(), 0);
    EXPECT_EQ(gateway.daemon->output(), "");
}

// RUNS=1000 for more, SEED=NUMBER for the same moments again.
TEST(SuddenEnd, BySignalAtARandomMomentIsOrderly) {
    const char *const wantedRuns = getenv("RUNS"), *const wantedSeed = getenv("SEED");
    const int runs = wantedRuns ? std::stoi(wantedRuns) : 100;
    const auto seed = wantedSeed ? static_cast<unsigned>(std::stoul(wantedSeed)) : std::random_device()();
    std::mt19937 random(seed);
    StoredGateway gateway;
    gateway.cloud->fault("get", "delay", 0, "300");
    int early = 0, inRequest = 0, finished = 0;
    for (int run = 0; run < runs; ++run) {
        gateway.emptyLog();
        unlink(KStore);
        gateway.platform.set(KDynDns, "SyncNotFinished", "true");
        gateway.platform.set("OrvoService.GatewayClient", "ConnectionMode", "ondemand");
        const int moment = static_cast<int>(random() % (run % 2 ? 80 : 600));  // half of them during start-up
        SCOPED_TRACE("SEED=" + std::to_string(seed) + ", run " + std::to_string(run) + ": after " +
                     std::to_string(moment) + " ms");
        gateway.daemon = startDaemon(daemonConfiguration(gateway.cloud->url(), gateway.cloud->caPath()), {},
                                     "orvoservicemanager-steered");
        // Until it is the daemon, the test's own handlers would take the signal.
        const std::string program = "/proc/" + std::to_string(gateway.daemon->pid()) + "/exe";
        ASSERT_TRUE(waitFor([&] { return std::filesystem::read_symlink(program).string().ends_with("-steered"); }));
        poll(nullptr, 0, moment);
        const int status = gateway.end();
        // Before it has taken the signal over, and made anything, the signal ends it by itself.
        const bool isEarly = gateway.log.count("Enabling dyndns dbus") == 0 && status == 128 + SIGTERM;
        ASSERT_TRUE(status == 0 || isEarly) << "status " << status;
        ASSERT_EQ(gateway.daemon->output(), "");
        ASSERT_FALSE(exists(KPidFile));
        ASSERT_FALSE(exists(std::string(KStore) + ".new"));
        ASSERT_TRUE(!exists(KStore) || gateway.isStoreWhole());
        early += isEarly;
        inRequest += gateway.log.count("Curl HTTP GET begin") && !gateway.log.count("Get dyn dns configuration OK");
        finished += gateway.stored("SyncNotFinished") == "false";
    }
    printf("sudden end: %d signals (SEED=%u): %d before the daemon took them over, %d in a request, %d after it\n",
           runs, seed, early, inRequest, finished);
}
