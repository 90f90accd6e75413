// The real daemon in its private world, with the real parts around it.
#pragma once

#include <unistd.h>

#include "tests/world/cloud.h"
#include "tests/world/world.h"

namespace world {

constexpr char KPidFile[] = "/var/run/orvoservicemanager.pid";
constexpr char KStore[] = "/media/orvoservice.odl";
constexpr char KDaemonLog[] = "/var/log/orsm.log";

inline bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

/// The shipped configuration for a daemon that logs everything into KDaemonLog, with `more` in front of it: of two
/// lines with one key the first counts.
inline std::string daemonConfiguration(const std::string& server, const std::string& ca, const std::string& more = "") {
    return more + "serverrequests.pathtocabundlefile=" + ca + "\nserverrequests.applicationserver=" + server +
           "\nserverrequests.voltaroserver=" + server +
           "\norvoservicesinfo=\"{\\\"status\\\":\\\"OK\\\"}\"\nlogger.syslog=false\nlogger.filename=" + KDaemonLog +
           "\nlogger.file=true\nlogger.level=DEBUG\nlogger.category.message_bus=DEBUG\n" +
           readFile(ORSM_SOURCE_FOLDER "/orvoservicemanager.conf");
}

/// Starts a daemon (or a test variant of it) with a configuration.
inline std::unique_ptr<Process> startDaemon(const std::string& configuration,
                                            const char* program = "orvoservicemanager") {
    writeFile("/var/run/orsm.conf", configuration);
    return std::make_unique<Process>(std::vector<std::string>{binary(program), "-c", "/var/run/orsm.conf"});
}

/// Runs pcb-ctl; its output without the line end.
inline std::string pcbCtl(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), binary("pcb-ctl"));
    std::string output;
    EXPECT_EQ(run(arguments, &output), 0) << output;
    return output.substr(0, output.rfind('\n'));
}

/// A gateway on which everything runs.
struct Gateway {
    std::unique_ptr<Process> dbus = startDbusDaemon();
    std::unique_ptr<Process> bus = startPcbBus();
    std::unique_ptr<Cloud> cloud = startCloud();
    std::unique_ptr<Process> daemon;
    LogReader log{KDaemonLog, &daemon};

    virtual ~Gateway() = default;

    /// Starts the daemon (or a test variant); `before` goes in front of its configuration.
    void launch(const char* program = "orvoservicemanager", const std::string& before = "") {
        daemon = startDaemon(daemonConfiguration(cloud->url(), cloud->caPath(), before), program);
    }
    /// Starts it and waits until it runs its loop and knows whether it is behind CG-NAT.
    void start(const char* program = "orvoservicemanager", Caller caller = here()) {
        launch(program);
        log.next("Entered pcb data model event loop", caller);
        log.next("CG-NAT status: false", caller);
    }
    /// As world::waitFor, for what only a running daemon can do.
    [[nodiscard]] bool waitFor(const std::function<bool()>& condition) const {
        return world::waitFor(condition, daemon.get());
    }
    virtual void set(const std::string& object, const std::string& parameter, const std::string& value) {
        pcbCtl({"set", object, parameter, value});
    }
    std::string get(const std::string& object, const std::string& parameter) {
        return pcbCtl({"get", object, parameter});
    }
    /// Starts a synchronization, up to its request, whose answer the server holds.
    void startHeldRequest() {
        cloud->order({"fault", "get", "hold", "1"});
        const size_t before = cloud->journal().size();
        set("NMC.HomeAutomation", "HA-ID", "HA-1");
        ASSERT_TRUE(waitFor([&] { return cloud->journal().size() > before; }));
    }
    /// Waits until the bus thread has handled everything that was sent to it before.
    void settle(Caller caller = here()) {
        static int serial = 0;
        const std::string marker = "marker-" + std::to_string(++serial);
        set("OrvoService.HomeAutomation", "CommunicationServer", marker);
        log.next("Communication server URL changed: " + marker, caller);
    }
    /// Ends the daemon with a signal: its exit status.
    int end(int signalNumber = SIGTERM) {
        daemon->send(signalNumber);
        return daemon->wait();
    }
};

}  // namespace world
