// Calls that the system refuses while the daemon starts, and what an end waits for.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

#include "tests/daemon/daemon.h"
#include "tests/daemon/steering.h"
#include "tests/platform/client.h"
#include "tests/world/bus_client.h"

using namespace world;

// A start in which one system call fails logs its line and leaves no pid file. The process that fails has status 1.
TEST(RefusedCall, FailsTheStart) {
    LogReader log(KDaemonLog);
    const auto bus = startPcbBus(), dbus = startDbusDaemon();
    for (const auto& [call, detaches, line] : {
             std::tuple{"fork",           true,  "ERROR Cannot demonize process!"                        },
             std::tuple{"setsid",         true,  "ERROR Cannot demonize process!"                        },
             std::tuple{"pipe2",          false, "ERROR Failed to create event pipe: Too many open files"},
             std::tuple{"pipe2",          false, "ERROR Cannot create pipe for listening pcb changes"    },
             std::tuple{"event_add",      false, "ERROR Failed to create event pipewatcher: Too many o"  },
             std::tuple{"pthread_create", false, "ERROR Could not create thread for dbus handling"       },
             std::tuple{"eventfd",        false, "ERROR Cannot init pcb library"                         },
             std::tuple{"epoll_wait",     false, "ERROR Event loop of the bus thread has ended"          },
    }) {
        SCOPED_TRACE(call);
        snprintf(steering().refused, sizeof steering().refused, "%s", call);
        auto daemon =
            startDaemon(daemonConfiguration("https://127.0.0.1:1", "/none", detaches ? "demonize-process=true\n" : ""),
                        "orvoservicemanager-steered");
        EXPECT_EQ(daemon->wait(), strcmp(call, "setsid") == 0 ? 0 : 1);  // there, the child fails
        log.next(line);
        EXPECT_TRUE(waitFor([] { return !exists(KPidFile); }));
        EXPECT_EQ(daemon->output(), strcmp(call, "epoll_wait") == 0 ? "[warn] epoll_wait: Too many open files\n" : "");
    }
}

TEST(End, WaitsForASave) {
    Gateway gateway;
    gateway.start("orvoservicemanager-steered");
    strike(3, KEnd);  // when the save writes
    BusClient().call("/voltaro", "", "EnableBackend", {true});
    EXPECT_EQ(gateway.daemon->wait(), 0);
    EXPECT_NE(readFile(KStore).find("object Voltaro {\n        bool Enable = \"true\""), std::string::npos);
    EXPECT_FALSE(exists(std::string(KStore) + ".new"));
}

// Each bus hangs, with and without a held request, or is killed.
TEST(End, DoesNotWaitForARequestNorForALostBus) {
    strcpy(steering().refused, "alarm");  // the alarm would hide a wait: it also ends the daemon, only later
    for (const int row : {0, 1, 2, 3, 4, 5, 6, 7}) {
        const bool held = row & 1, messageBus = row & 2, killed = row & 4;
        SCOPED_TRACE(std::string(killed ? "killed " : "frozen ") + (messageBus ? "message bus" : "data model") +
                     (held ? " during a request" : ""));
        writeFile(KDaemonLog, "");
        std::filesystem::remove_all("/var/run/cloud");
        Gateway gateway;
        gateway.start("orvoservicemanager-steered");
        if (held) gateway.startHeldRequest();
        (messageBus ? gateway.dbus : gateway.bus)->send(killed ? SIGKILL : SIGSTOP);
        // The bus thread notices the loss of its bus only when it is free.
        const bool lostMessageBus = killed && messageBus && !held, lostDataModel = killed && !messageBus;
        if (!lostMessageBus && !lostDataModel) gateway.daemon->send(SIGTERM);
        if (lostDataModel) gateway.log.next("ERROR Error 65539 (connection lost)");
        EXPECT_EQ(gateway.daemon->wait(), lostMessageBus ? 1 : 0);
        gateway.log.next(lostMessageBus ? "got signal Disconnected, freeing message_bus"
                                        : "Leaving pcb data model event loop");
        EXPECT_EQ(exists(KPidFile), lostMessageBus);
        EXPECT_EQ(gateway.log.count("Request error"), 0U) << "it waited for the request";
        EXPECT_EQ(gateway.log.count("ERROR Cannot set"), 0U) << "it waited for the data model";
        EXPECT_EQ(gateway.daemon->output(), "");
    }
}

// A call hangs in the data model, or in its reply.
TEST(End, DoesNotWaitForACall) {
    strcpy(steering().refused, "alarm");
    for (const std::string method : {"IsEnabled", "SetEnabled", "GetName"}) {
        writeFile(KDaemonLog, "");
        std::filesystem::remove_all("/var/run/cloud");
        Gateway gateway;
        setOften("OrvoService.DynDNS", "HostName", 1, 1, std::string(900'000, 'x'));  // more than a socket holds
        gateway.start("orvoservicemanager-steered");
        gateway.bus->send(SIGSTOP);
        BusClient client;
        DBusMessage* const call = BusClient::message("/dyndns", "", method, {true});
        dbus_connection_send(client.connection(), call, nullptr);
        dbus_connection_flush(client.connection());
        dbus_message_unref(call);
        gateway.log.next("Dyn DNS " + method + " requested");
        if (method == "GetName") {
            gateway.dbus->send(SIGSTOP);
            gateway.bus->send(SIGCONT);
            gateway.log.next("Dyn DNS GetName response");
        }
        EXPECT_EQ(gateway.end(), 0) << method;
        EXPECT_EQ(gateway.log.count(" ERROR "), 1U) << "nothing to load: " << gateway.log.content();
        gateway.dbus->send(SIGCONT);
    }
}
