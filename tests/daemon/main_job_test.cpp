// The daemon's main job, and how it ends, with everything around it real.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/pcb/pcb.h"
#include "tests/daemon/daemon.h"

using namespace world;

static bool exists(const char* path) { return access(path, F_OK) == 0; }

// Starts the daemon and its synchronization, up to the request, whose answer the server holds.
static void startHeldRequest(Gateway& gateway) {
    gateway.cloud->order({"fault", "get", "hold", "1"});
    gateway.start();
    gateway.set("NMC.HomeAutomation", "HA-ID", "HA-1");
    ASSERT_TRUE(waitFor([&] { return gateway.cloud->journal().size() == 1; }));
}

TEST(MainJob, KeepsTheRegistrationInAgreementAndNeverEchoesItBack) {
    Gateway gateway;
    gateway.cloud->order({"register", "HA-1", "first", "true"});
    gateway.cloud->order({"register", "HA-2", "second", "false"});
    gateway.start();
    gateway.set("NMC.HomeAutomation", "HA-ID", "HA-1");
    gateway.log.next("Synchronizing DynDNS in reaction to HA-ID change");
    gateway.log.next("GatewayClient connection mode = on saved in PCB");
    gateway.log.next("GatewayClient is connected");
    gateway.log.next("GatewayClient connection mode = ondemand saved in PCB");
    gateway.log.next("Get dyn dns configuration OK");
    gateway.log.next("DynDNS hostname first saved in PCB");
    gateway.log.next("/media/orvoservice.odl saved to OrvoService");
    gateway.settle();
    EXPECT_EQ(gateway.get("OrvoService.DynDNS", "Enable"), "true");
    EXPECT_EQ(gateway.get("OrvoService.DynDNS", "HostName"), "first");
    EXPECT_EQ(gateway.get("OrvoService.GatewayClient", "ConnectionMode"), "ondemand");
    const std::string store = readFile(KStore);
    for (const char* line :
         {"object DynDNS", "object Voltaro", "object GatewayClient", "object HomeAutomation", "bool Enable = \"true\";",
          "string HostName = \"first\";", "bool SyncNotFinished = \"false\";"}) {
        EXPECT_NE(store.find(line), std::string::npos) << line;
    }

    gateway.set("NMC.HomeAutomation", "HA-ID", "HA-2");
    gateway.log.next("DynDNS hostname second saved in PCB");
    gateway.settle();
    EXPECT_EQ(gateway.get("OrvoService.DynDNS", "Enable"), "false");
    ASSERT_EQ(gateway.cloud->journal().size(), 2U);
    EXPECT_EQ(gateway.cloud->journal()[1].target, "/hm/dyndns?haId=HA-2");
    EXPECT_EQ(gateway.log.count("Setup dyn dns on server"), 0U);

    // A client's own switch is pushed.
    gateway.set("OrvoService.DynDNS", "Enable", "1");
    gateway.log.next("Dyn DNS Configure OK");
    EXPECT_EQ(gateway.cloud->journal().back().body, R"({"name":"second","haId":"HA-2","enabled":true})");
    EXPECT_EQ(gateway.end(), 0);
    EXPECT_FALSE(exists(KPidFile));
    EXPECT_EQ(gateway.daemon->output(), "");
}

TEST(MainJob, AKilledSynchronizationIsFinishedByTheNextStart) {
    Gateway gateway;
    gateway.cloud->order({"register", "HA-1", "box", "true"});
    startHeldRequest(gateway);
    EXPECT_NE(readFile(KStore).find("bool SyncNotFinished = \"true\";"), std::string::npos);
    gateway.end(SIGKILL);
    EXPECT_TRUE(exists(KPidFile));
    gateway.cloud->order({"release"});

    gateway.start();
    gateway.log.next("DynDNS hostname box saved in PCB");
    gateway.settle();
    EXPECT_EQ(gateway.log.count("Continuing unfinished DynDNS synchronization"), 1U);
    EXPECT_NE(readFile(KStore).find("bool SyncNotFinished = \"false\";"), std::string::npos);
    EXPECT_EQ(readFile(KPidFile), std::to_string(gateway.daemon->pid()) + "\n");
    EXPECT_EQ(gateway.end(), 0);
}

TEST(MainJob, EndsAtOnceWhileTheServerHoldsARequest) {
    Gateway gateway;
    startHeldRequest(gateway);
    EXPECT_EQ(gateway.end(), 0);
    EXPECT_EQ(gateway.log.count("Request error"), 0U) << "it waited for the request";
    EXPECT_FALSE(exists(KPidFile));
    EXPECT_EQ(gateway.daemon->output(), "");
}

// Sets one parameter many times, fast, as the platform.
static void setOften(const char* object, const char* parameter, int from, int to) {
    connection_initLibrary();
    pcb_t* client = pcb_create("test", 0, nullptr);
    pcb_client_set_attribute(client, PCB_CLIENT_PLATFORM, 1);
    peer_info_t* peer = pcb_client_connect(client, "pcb://ipc:{/var/run/pcb_sys}");
    variant_t value;
    variant_initialize(&value);
    for (int i = from; i <= to; ++i) {
        variant_setChar(&value, std::to_string(i).c_str());
        EXPECT_TRUE(pcb_client_set(peer, object, parameter, &value));
    }
    variant_cleanup(&value);
    pcb_destroy(client);
    connection_exitLibrary();
}

TEST(MainJob, ChangesDuringASlowRequestAllArriveInOrder) {
    Gateway gateway;
    gateway.cloud->order({"register", "HA-1", "box", "true"});
    startHeldRequest(gateway);
    setOften("NMC.HomeAutomation", "HA-ID", 1, 5000);
    EXPECT_EQ(gateway.log.count("HA-ID value: "), 2U);  // the initial one and the first
    gateway.cloud->order({"release"});
    gateway.log.next("DynDNS hostname box saved in PCB");
    gateway.log.next("HA-ID value: 5000");
    const std::string log = gateway.log.content();
    size_t position = log.find("DynDNS hostname box saved in PCB");
    for (int i = 1; i <= 5000; ++i) {
        const size_t found = log.find("HA-ID value: ", position);
        ASSERT_EQ(log.substr(found + 13, log.find('\n', found) - found - 13), std::to_string(i));
        position = found + 1;
    }
    EXPECT_EQ(gateway.end(), 0);
}

TEST(MainJob, EndsWhileMoreChangesWaitThanThePipeHolds) {
    Gateway gateway;
    startHeldRequest(gateway);
    setOften("NMC.HomeAutomation", "HA-ID", 1, 200);
    gateway.log.next("NEW_VALUE=40");
    EXPECT_EQ(gateway.end(), 0);
    EXPECT_FALSE(exists(KPidFile));
    EXPECT_EQ(gateway.daemon->output(), "");
}

TEST(MainJob, GoesOnAndEndsAlthoughNobodyReadsItsOutput) {
    Gateway gateway;
    ASSERT_EQ(mkfifo("/var/run/output", 0600), 0);
    const int unread = open("/var/run/output", O_RDWR | O_CLOEXEC);
    writeFile("/var/run/orsm.conf",
              daemonConfiguration(gateway.cloud->url(), gateway.cloud->caPath(), "logger.stdout=true\n"));
    gateway.daemon = std::make_unique<Process>(std::vector<std::string>{
        "sh", "-c", "exec " + binary("orvoservicemanager") + " -c /var/run/orsm.conf >/var/run/output"});
    gateway.log.next("CG-NAT status: false");
    for (int i = 0; i < 12; ++i) {
        gateway.set("NMC.HomeAutomation", "HA-ID", std::string(7000, 'x') + std::to_string(i));
    }
    gateway.settle();
    EXPECT_EQ(gateway.end(), 0);
    EXPECT_FALSE(exists(KPidFile));
    close(unread);
}

TEST(LostBus, TheMessageBusEndsItWithOneAndTheDataModelWithZero) {
    Gateway gateway;
    gateway.start();
    gateway.dbus->send(SIGKILL);
    EXPECT_EQ(gateway.daemon->wait(), 1);
    gateway.log.next("got signal Disconnected, freeing message_bus");
    EXPECT_TRUE(exists(KPidFile));

    gateway.dbus = startDbusDaemon();
    gateway.start();
    gateway.bus->send(SIGKILL);
    EXPECT_EQ(gateway.daemon->wait(), 0);
    gateway.log.next("Leaving pcb data model event loop");
    EXPECT_FALSE(exists(KPidFile));
    EXPECT_EQ(gateway.daemon->output(), "");
}

TEST(Log, AHangUpSignalReloadsItsSettingsFromTheWorkingDirectory) {
    ASSERT_EQ(chdir("/var/run"), 0);
    Gateway gateway;
    gateway.start();
    gateway.daemon->send(SIGHUP);  // there is no such file: nothing changes
    gateway.settle();
    writeFile("/var/run/zolclient.log",
              "logger.file=true\nlogger.filename=/var/log/other.log\nlogger.level=INFO\nlogger.enabled=yes\n");
    gateway.daemon->send(SIGHUP);
    gateway.set("OrvoService.HomeAutomation", "CommunicationServer", "after");
    LogReader other("/var/log/other.log");
    other.next("Communication server URL changed: after");
    EXPECT_EQ(gateway.log.count("URL changed: after"), 0U);
    EXPECT_EQ(other.count("DEBUG"), 0U);
    EXPECT_EQ(gateway.end(), 0);
    other.next("Leaving pcb data model event loop");
}
