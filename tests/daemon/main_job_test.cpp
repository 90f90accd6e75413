// The daemon's main job, and how it ends, with everything around it real.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/daemon/daemon.h"
#include "tests/platform/client.h"
#include "tests/world/bus_client.h"

using namespace world;

TEST(MainJob, StoresTheRegistrationWithoutPushingItBack) {
    setenv("SSLKEYLOGFILE", "/var/run/secrets", 1);
    Gateway gateway;
    gateway.cloud->order({"register", "HA-1", "first", "true"});
    gateway.cloud->order({"register", "HA-2", "second", "false"});
    gateway.start();
    gateway.set("NMC.HomeAutomation", "HA-ID", "HA-1");
    LogReader lines(KDaemonLog);
    for (const char* line :
         {" INFO OrvoServiceManager version ", "ERROR Cannot load OrvoService object",
          " INFO Continuing unfinished DynDNS synchronization", " INFO DynDns sync timer has to be created",
          " INFO Synchronizing DynDNS in reaction to HA-ID change", "DEBUG GatewayClient connection mode = on saved",
          "DEBUG Checking GatewayClient connection status", " INFO GatewayClient is not yet connected",
          " INFO GatewayClient is connected", "DEBUG GatewayClient connection mode = ondemand saved in PCB",
          " INFO Get dyn dns configuration OK: ", " INFO DynDNS enable=true saved in PCB",
          " INFO DynDNS hostname first saved in PCB", " INFO /media/orvoservice.odl saved to OrvoService"}) {
        lines.next(line);
    }
    gateway.settle();
    EXPECT_EQ(gateway.get("OrvoService.DynDNS", "Enable"), "true");
    EXPECT_EQ(gateway.get("OrvoService.DynDNS", "HostName"), "first");
    EXPECT_EQ(gateway.get("OrvoService.GatewayClient", "ConnectionMode"), "ondemand");
    EXPECT_NE(readFile(KStore).find("object Voltaro"), std::string::npos);

    gateway.set("NMC.HomeAutomation", "HA-ID", "HA-2");
    gateway.log.next("DynDNS hostname second saved in PCB");
    EXPECT_FALSE(exists("/var/run/secrets"));
    gateway.settle();
    EXPECT_EQ(gateway.get("OrvoService.DynDNS", "Enable"), "false");
    ASSERT_EQ(gateway.cloud->journal().size(), 2U);
    EXPECT_TRUE(gateway.cloud->journal()[1].starts_with("GET /hm/dyndns?haId=HA-2|"));

    // A failing server changes nothing, and a reboot meanwhile would not forget it.
    gateway.cloud->fault("get", "http500");
    gateway.set("NMC.HomeAutomation", "HA-ID", "HA-3");
    gateway.log.next("Server error or error during parsing server response");
    gateway.settle();
    EXPECT_NE(readFile(KStore).find("SyncNotFinished = \"true\""), std::string::npos);
    EXPECT_NE(readFile(KStore).find("HostName = \"second\""), std::string::npos);

    gateway.set("OrvoService.GatewayClient", "ConnectionMode", "on");  // somebody else's
    EXPECT_EQ(gateway.end(), 0);
    EXPECT_EQ(gateway.get("OrvoService.GatewayClient", "ConnectionMode"), "on");
    EXPECT_EQ(gateway.log.count(" ERROR "), 2U) << "nothing to load, and the failing server: " << gateway.log.content();
    EXPECT_FALSE(exists(KPidFile));
    EXPECT_EQ(gateway.daemon->output(), "");

    // A reboot: the data model begins with its defaults.
    gateway.bus.reset();
    gateway.bus = startPcbBus();
    gateway.launch();
    gateway.log.next("loaded from OrvoService");
    gateway.log.next("CG-NAT status: false");
    EXPECT_EQ(gateway.get("OrvoService.DynDNS", "HostName"), "second");
    EXPECT_EQ(gateway.end(), 0);
}

TEST(MainJob, FirstCallsWaitForStoreAndFirstValues) {
    Gateway gateway;
    gateway.set("NMC.HomeAutomation", "HA-ID", "HA-1");
    gateway.set("OrvoService.GatewayClient", "ConnectionMode", "on");
    gateway.set("OrvoService.DynDNS", "HostName", "box");
    gateway.set("OrvoService.DynDNS", "SyncNotFinished", "false");
    for (size_t pushes = 0; pushes < 6;) {
        const bool configures = pushes % 2;
        gateway.set("OrvoService.DynDNS", "Enable", "true");
        unlink(KStore);
        gateway.launch();
        BusClient client;
        ASSERT_TRUE(gateway.waitFor(
            [&] { return dbus_bus_name_has_owner(client.connection(), "com.corvane.orsm", nullptr) != 0; }));
        const std::string reply = configures ? client.call("/dyndns", "", "Configure", {false, "box"})
                                             : client.call("/dyndns", "", "SetEnabled", {false});
        EXPECT_EQ(reply, configures ? R"({"status":"OK","result":true})" : "true");
        // The server hears of both.
        EXPECT_TRUE(gateway.waitFor([&] { return gateway.cloud->journal().size() > pushes; }));
        EXPECT_TRUE(gateway.cloud->journal().back().ends_with(R"({"name":"box","haId":"HA-1","enabled":false})"));
        EXPECT_EQ(gateway.end(), 0);
        EXPECT_EQ(gateway.cloud->journal().size(), ++pushes);
    }
}

TEST(MainJob, ChangesDuringASlowRequestAllArriveAndDoNotDelayTheEnd) {
    Gateway gateway;
    gateway.cloud->order({"register", "HA-1", "box", "true"});
    gateway.start();
    gateway.startHeldRequest();
    setOften("NMC.HomeAutomation", "HA-ID", 1, 5000);
    EXPECT_EQ(gateway.log.count("HA-ID value: "), 2U);  // the initial one and the first
    gateway.cloud->order({"release"});
    gateway.log.next("DynDNS hostname box saved in PCB");
    gateway.log.next("HA-ID value: 5000");
    EXPECT_EQ(gateway.log.count("HA-ID value: "), 5002U);
    gateway.startHeldRequest();
    setOften("NMC.HomeAutomation", "HA-ID", 1, 200);
    gateway.log.next("NEW_VALUE=40");
    EXPECT_NE(readFile(KStore).find("ConnectionMode = \"on\""), std::string::npos);
    EXPECT_EQ(gateway.end(), 0);
    EXPECT_EQ(gateway.log.count("Request error"), 0U) << "it waited for the request";
    EXPECT_FALSE(exists(KPidFile));
    EXPECT_EQ(gateway.daemon->output(), "");
    EXPECT_EQ(gateway.get("OrvoService.GatewayClient", "ConnectionMode"), "ondemand");
    EXPECT_NE(readFile(KStore).find("ConnectionMode = \"ondemand\""), std::string::npos);
}

TEST(MainJob, RunsWhenNobodyReadsItsLogAndNoFileMayGrow) {
    Gateway gateway;
    ASSERT_EQ(mkfifo(KDaemonLog, 0600), 0);
    gateway.launch();
    BusClient client;
    ASSERT_TRUE(gateway.waitFor([&] { return client.call("/dyndns", "", "SetEnabled", {true}) == "true"; }));
    const rlimit nothing = {0, 0};
    EXPECT_EQ(prlimit(gateway.daemon->pid(), RLIMIT_FSIZE, &nothing, nullptr), 0);
    EXPECT_EQ(client.call("/voltaro", "", "EnableBackend", {true}), "true");
    EXPECT_EQ(client.call("/dyndns", "", "IsEnabled"), R"({"status":"OK","result":true})");
    EXPECT_EQ(gateway.end(), 0);
}

TEST(Log, HangupReloadsSettingsFromWorkingDirectory) {
    ASSERT_EQ(chdir("/var/run"), 0);
    Gateway gateway;
    gateway.start();
    writeFile("/var/run/zolclient.log",
              "logger.file=true\nlogger.filename=/var/log/other.log\nlogger.level=INFO\nlogger.enabled=yes\n");
    gateway.daemon->send(SIGHUP);
    gateway.log.next("parsing configuration file: zolclient.log");
    gateway.set("OrvoService.HomeAutomation", "CommunicationServer", "after");
    LogReader("/var/log/other.log").next("Communication server URL changed: after");
    EXPECT_EQ(gateway.log.count("URL changed: after"), 0U);
    EXPECT_EQ(gateway.log.count(" ERROR "), 1U) << "nothing to load: " << gateway.log.content();
    EXPECT_EQ(gateway.end(), 0);
}
