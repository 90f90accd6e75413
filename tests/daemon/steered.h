// A gateway whose daemon is the steered one, and whose platform the test plays. Link pcb.
#pragma once

#include "tests/daemon/daemon.h"
#include "tests/daemon/steering.h"
#include "tests/platform/client.h"
#include "tests/world/bus_client.h"

namespace world {

constexpr char KSteered[] = "orvoservicemanager-steered";

/// The servers know two registrations.
struct SteeredGateway : Gateway {
    Client platform{"/var/run/pcb_sys", true};
    BusClient client;

    /// `second`: the microseconds that a second of the daemon's timers takes.
    explicit SteeredGateway(int second) {
        steering().second = second;
        cloud->order({"register", "HA-1", "box", "true"});
        cloud->order({"register", "HA-2", "second", "false"});
    }
    void set(const std::string& object, const std::string& parameter, const std::string& value) override {
        platform.set(object.c_str(), parameter.c_str(), value);
    }
    std::string get(const std::string& object, const std::string& parameter) const {
        return platform.get(object.c_str(), parameter.c_str());
    }
    /// Changes what a synchronization follows.
    void touch() { set("NMC.HomeAutomation", "Enable", enable_ = enable_ == "1" ? "true" : "1"); }
    void emptyLog() {
        writeFile(KDaemonLog, "");
        log = LogReader(KDaemonLog, &daemon);
    }
    /// The value of a parameter in the store, of the first that is called so.
    static std::string stored(const std::string& parameter) {
        const std::string store = readFile(KStore), before = " " + parameter + " = \"";
        const size_t found = store.find(before), begin = found + before.size();
        return found == std::string::npos ? "none" : store.substr(begin, store.find('"', begin) - begin);
    }

  private:
    std::string enable_ = "true";
};

}  // namespace world
