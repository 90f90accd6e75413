// Calls that the system refuses while the daemon starts, and what an end waits for.
#include <gtest/gtest.h>

#include <cstring>

#include "tests/daemon/daemon.h"
#include "tests/daemon/steering.h"
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
             std::tuple{"pthread_create", false, "ERROR Could not create thread for dbus handling"       },
             std::tuple{"eventfd",        false, "ERROR Cannot init pcb library"                         },
             std::tuple{"epoll_wait",     false, "ERROR Event loop of the bus thread has ended"          },
    }) {
        SCOPED_TRACE(call);
        snprintf(steering().refused, sizeof steering().refused, "%s", call);
        auto daemon = startDaemon(
            (detaches ? "demonize-process=true\n" : "") + daemonConfiguration("https://127.0.0.1:1", "/none"),
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

TEST(End, DoesNotWaitForTheDataModel) {
    Gateway gateway;
    gateway.start("orvoservicemanager-steered");
    strcpy(steering().refused, "alarm");  // the alarm would hide a wait: it also ends the daemon, only later
    gateway.bus->send(SIGSTOP);
    BusClient client;
    DBusMessage* const call = BusClient::message("/dyndns", "", "IsEnabled", {});
    dbus_connection_send(client.connection(), call, nullptr);
    dbus_connection_flush(client.connection());
    dbus_message_unref(call);
    gateway.log.next("Dyn DNS IsEnabled requested");
    EXPECT_EQ(gateway.end(), 0);
    EXPECT_EQ(gateway.log.count("IsEnabled error"), 0U);
}
