// A gateway with a store, whose daemon meets faults.
#pragma once

#include <filesystem>

#include "tests/daemon/daemon.h"
#include "tests/daemon/steering.h"
#include "tests/platform/client.h"

namespace world {

/// A gateway on which registrations are stored, and whose platform the test plays.
struct StoredGateway : Gateway {
    Client platform{"/var/run/pcb_sys", true};

    StoredGateway() {
        cloud->order({"register", "HA-1", "box", "true"});
        steering().second = 10'000;
        platform.set("Simulation.GatewayClient", "ConnectDelay", "0");
        platform.set("NMC.HomeAutomation", "HA-ID", "HA-1");
    }
    void emptyLog() {
        writeFile(KDaemonLog, "");
        log = LogReader(KDaemonLog);
    }
    /// Starts the steered daemon and empties the log.
    void startSteered() {
        emptyLog();
        start("orvoservicemanager-steered");
    }
    /// The value of a parameter in the store, of the first that is called so.
    static std::string stored(const std::string& parameter) {
        const std::string store = readFile(KStore), before = " " + parameter + " = \"";
        const size_t found = store.find(before), begin = found + before.size();
        return found == std::string::npos ? "none" : store.substr(begin, store.find('"', begin) - begin);
    }
    static bool isStoreWhole() {
        const std::string store = readFile(KStore);
        return store.starts_with("object OrvoService {\n") && store.ends_with("\n}\n");
    }
    /// What differs between the store and the data model, or lies beside the store; empty when nothing does.
    std::string disagreement() const {
        constexpr char model[] = "/var/run/model.odl";
        datamodel_save(pcb_client_get_object(platform.peer, "OrvoService", 0), -1, model, DATAMODEL_TEXT);
        std::string texts[] = {readFile(model), readFile(KStore)};
        for (std::string& text : texts) {  // the live connection goes its own way
            const size_t begin = text.find("read-only bool ConnectionStatus");
            if (begin != std::string::npos) text.erase(begin, text.find('\n', begin) - begin);
        }
        if (std::filesystem::exists(std::string(KStore) + ".new")) return "a temporary file";
        return texts[0] == texts[1] ? "" : "model:\n" + texts[0] + "store:\n" + texts[1];
    }
    /// Has a save made that nothing goes wrong with, and looks at the whole store.
    void heal(const std::string& marker) {
        emptyLog();
        // A daemon that died while it had the connection switched on leaves it so.
        platform.set("OrvoService.GatewayClient", "ConnectionMode", "ondemand");
        platform.set("OrvoService.HomeAutomation", "CommunicationServer", marker);
        log.next("Communication server URL changed: " + marker);
        log.next("orvoservice.odl saved to OrvoService");
        EXPECT_EQ(disagreement(), "");
        EXPECT_EQ(stored("CommunicationServer"), marker);
    }
};

}  // namespace world
