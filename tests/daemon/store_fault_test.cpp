// The store under faults: each call of a save fails, and the daemon is killed before any of them.
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/daemon/steered.h"

using namespace world;

namespace {

// A gateway whose connection comes up at once, for a registration.
struct StoredGateway : SteeredGateway {
    StoredGateway() : SteeredGateway(10'000) {
        set("Simulation.GatewayClient", "ConnectDelay", "0");
        set("NMC.HomeAutomation", "HA-ID", "HA-1");
        set("OrvoService.DynDNS", "SyncNotFinished", "false");
        restart();
    }
    void restart() {
        strike(0, 0);
        emptyLog();
        start(KSteered);
    }
    static bool isStoreWhole() {
        const std::string store = readFile(KStore);
        return store.starts_with("object OrvoService {\n") && store.ends_with("\n}\n");
    }
    // Makes a save without a fault, and compares the whole store with the data model.
    void heal(const std::string& marker) {
        emptyLog();
        // A daemon that died while it had the connection switched on leaves it so.
        set("OrvoService.GatewayClient", "ConnectionMode", "ondemand");
        set("OrvoService.HomeAutomation", "CommunicationServer", marker);
        log.next("Communication server URL changed: " + marker);
        log.next("orvoservice.odl saved to OrvoService");
        EXPECT_FALSE(exists(std::string(KStore) + ".new"));
        constexpr char model[] = "/var/run/model.odl";
        datamodel_save(pcb_client_get_object(platform.peer, "OrvoService", 0), -1, model, DATAMODEL_TEXT);
        std::string texts[] = {readFile(model), readFile(KStore)};
        for (std::string& text : texts) {  // the connection's status may have changed since the save
            const size_t begin = text.find("read-only bool ConnectionStatus");
            if (begin != std::string::npos) text.erase(begin, text.find('\n', begin) - begin);
        }
        EXPECT_EQ(texts[0], texts[1]);
    }
    bool configure(const std::string& name) {
        return client.call("/dyndns", "", "Configure", {true, name}) == R"({"status":"OK","result":true})";
    }
};

}  // namespace

TEST(StoreFault, StoreStaysWholeWhenACallFails) {
    // Unlink, open, write, sync, close and rename the new file; open, sync and close its folder.
    const std::string save = "uowscrosc";
    StoredGateway gateway;
    strike(99, 0);
    EXPECT_TRUE(gateway.configure("box"));
    // In another order, a power cut could leave an empty file, or bring the old one back.
    EXPECT_EQ(steering().calls + 1, save + save + save);
    for (size_t call = 1; call <= save.size() && !HasFailure(); ++call) {
        for (const int fault : {ENOSPC, EINTR, KShortWrite}) {
            const std::string name = "box-" + std::to_string(call) + "-" + std::to_string(fault - KShortWrite);
            SCOPED_TRACE(name);
            gateway.emptyLog();
            strike(static_cast<int>(call), fault);
            EXPECT_TRUE(gateway.configure(name));
            EXPECT_TRUE(gateway.isStoreWhole());
            EXPECT_EQ(gateway.log.count(" WARN Failed to store datamodel for object OrvoService in file orvoservice"),
                      steering().reported);
            EXPECT_EQ(gateway.log.count("ERROR Cannot save OrvoService object"), steering().reported);
            EXPECT_FALSE(exists(std::string(KStore) + ".new"));
            strike(0, 0);
            gateway.heal(name);
            EXPECT_EQ(gateway.stored("HostName"), name);
        }
    }
    EXPECT_EQ(gateway.end(), 0);
    EXPECT_EQ(gateway.daemon->output(), "");
}

TEST(SuddenEnd, NextStartFinishesAnInterruptedSynchronization) {
    StoredGateway gateway;
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
        gateway.touch();
        // The echo of a changed switch is its last line.
        const auto done = [&] {
            return gateway.log.count("orvoservice.odl saved to OrvoService") == 4 &&
                   (!echoes || gateway.log.count("DynDNS enable: ") == 1);
        };
        ASSERT_TRUE(waitFor([&] { return !gateway.daemon->running() || done(); }));
        if (gateway.daemon->running()) {
            strike(0, 0);
            ASSERT_GT(deaths, 32) << "it must have saved four times";
            printf("figure: sudden end: %d deaths in a synchronization\n", deaths);
            break;
        }

        ASSERT_TRUE(gateway.isStoreWhole());
        const bool unfinished = gateway.stored("SyncNotFinished") == "true";
        const bool begun = unfinished || gateway.stored("HostName") == name;
        EXPECT_TRUE(begun || gateway.cloud->journal().size() == requests) << "asked, and nothing remembers it";
        gateway.restart();
        EXPECT_EQ(gateway.log.count("Continuing unfinished DynDNS synchronization"), unfinished ? 1U : 0U);
        ASSERT_TRUE(gateway.waitFor([&] { return gateway.stored("SyncNotFinished") == "false"; }));
        gateway.heal(name);
        ASSERT_EQ(gateway.stored("HostName"), begun ? name : before);
        EXPECT_TRUE(!begun || gateway.stored("Enable") == enabled);
        EXPECT_LE(gateway.cloud->journal().size(), requests + 2);
    }
    EXPECT_EQ(gateway.end(), 0);
    EXPECT_EQ(gateway.daemon->output(), "");
}
