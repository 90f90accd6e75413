// The daemon's main job, and how it ends, with everything around it real.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "tests/daemon/daemon.h"
#include "tests/daemon/set_often.h"
#include "tests/world/bus_client.h"

using namespace world;

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
    for (const char* line : {"object Voltaro", "object GatewayClient", "object HomeAutomation"}) {
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

TEST(MainJob, EndsAtOnceWhileARequestIsHeldAndMoreChangesWaitThanThePipeHolds) {
    for (const int changes : {0, 200}) {
        writeFile(KDaemonLog, "");
        std::filesystem::remove_all("/var/run/cloud");
        Gateway gateway;
        startHeldRequest(gateway);
        setOften("NMC.HomeAutomation", "HA-ID", 1, changes);
        if (changes) gateway.log.next("NEW_VALUE=40");
        EXPECT_EQ(gateway.end(), 0);
        EXPECT_EQ(gateway.log.count("Request error"), 0U) << "it waited for the request";
        EXPECT_FALSE(exists(KPidFile));
        EXPECT_EQ(gateway.daemon->output(), "");
    }
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

TEST(LostBus, EndsItWithItsStatusAndNeverHoldsTheEndUp) {
    for (const int row : {0, 1, 2, 3, 4, 5, 6, 7}) {
        const bool held = row & 1, messageBus = row & 2, killed = row & 4;
        SCOPED_TRACE(std::string(killed ? "killed " : "frozen ") + (messageBus ? "message bus" : "data model") +
                     (held ? " during a request" : ""));
        writeFile(KDaemonLog, "");
        std::filesystem::remove_all("/var/run/cloud");
        Gateway gateway;
        held ? startHeldRequest(gateway) : gateway.start();
        (messageBus ? gateway.dbus : gateway.bus)->send(killed ? SIGKILL : SIGSTOP);
        // The bus thread notices the loss of its bus only when it is free.
        const bool endsAlone = killed && !(messageBus && held);
        if (!endsAlone) gateway.daemon->send(SIGTERM);
        const bool lostMessageBus = messageBus && endsAlone;
        if (killed && !messageBus) gateway.log.next("ERROR Error 65539 (connection lost)");
        EXPECT_EQ(gateway.daemon->wait(), lostMessageBus ? 1 : 0);
        gateway.log.next(lostMessageBus ? "got signal Disconnected, freeing message_bus"
                                        : "Leaving pcb data model event loop");
        EXPECT_EQ(exists(KPidFile), lostMessageBus);
        EXPECT_EQ(gateway.log.count("Request error"), 0U) << "it waited for the request";
        EXPECT_EQ(gateway.daemon->output(), "");
    }
}

TEST(LostBus, AFrozenDataModelCostsTheCallsMadeMeanwhileAndNoOther) {
    Gateway gateway;
    gateway.start();
    BusClient client;
    for (const char* status : {R"({"status":"OK","result":false})", R"({"status":"DBUS_ERROR","result":null})"}) {
        EXPECT_EQ(client.call("/dyndns", "com.corvane.orsm.dyndns", "IsEnabled"), status);
        gateway.bus->send(SIGSTOP);
    }
    gateway.log.next("Get: Failed to get object OrvoService.DynDNS param Enable");
    gateway.bus->send(SIGCONT);
    EXPECT_EQ(client.call("/dyndns", "com.corvane.orsm.dyndns", "GetName"), R"({"status":"OK","result":null})");
    gateway.settle();
    EXPECT_EQ(gateway.end(), 0);
}

TEST(LostBus, AReplyThatAFrozenMessageBusDoesNotTakeWaitsForIt) {
    for (const bool thawed : {true, false}) {
        writeFile(KDaemonLog, "");
        Gateway gateway;
        setOften("OrvoService.DynDNS", "HostName", 1, 1, std::string(900'000, 'x'));
        gateway.start();
        BusClient client;
        // The daemon asks the data model, which is frozen until the message bus is too.
        gateway.bus->send(SIGSTOP);
        std::thread call([&] {
            EXPECT_EQ(client.call("/dyndns", "", "GetName").size(), thawed ? 900'028U : sizeof DBUS_ERROR_NO_REPLY - 1);
        });
        gateway.log.next("Dyn DNS GetName requested");
        gateway.dbus->send(SIGSTOP);
        gateway.bus->send(SIGCONT);
        gateway.log.next("Dyn DNS GetName response");
        if (!thawed) {
            EXPECT_EQ(gateway.end(), 0);
        }
        gateway.dbus->send(SIGCONT);
        call.join();
        if (thawed) {
            EXPECT_EQ(gateway.end(), 0);
        }
    }
}

TEST(Log, AHangUpSignalReloadsItsSettingsFromTheWorkingDirectory) {
    ASSERT_EQ(chdir("/var/run"), 0);
    Gateway gateway;
    gateway.start();
    gateway.daemon->send(SIGHUP);  // there is no such file: nothing changes
    gateway.log.next("cannot open file: zolclient.log");
    ASSERT_EQ(mkfifo("zolclient.log", 0600), 0);
    gateway.daemon->send(SIGHUP);  // nobody writes into it: nothing is waited for
    gateway.settle();
    unlink("zolclient.log");
    writeFile("/var/run/zolclient.log",
              "logger.file=true\nlogger.filename=/var/log/other.log\nlogger.level=INFO\nlogger.enabled=yes\n");
    gateway.daemon->send(SIGHUP);
    gateway.log.next("parsing configuration file: zolclient.log");
    gateway.set("OrvoService.HomeAutomation", "CommunicationServer", "after");
    LogReader other("/var/log/other.log");
    other.next("Communication server URL changed: after");
    EXPECT_EQ(gateway.log.count("URL changed: after"), 0U);
    EXPECT_EQ(other.count("DEBUG"), 0U);
    EXPECT_EQ(gateway.end(), 0);
    other.next("Leaving pcb data model event loop");
}
