// The bus under more calls than the daemon can answer at once.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <thread>

#include "tests/daemon/daemon.h"
#include "tests/daemon/set_often.h"
#include "tests/world/bus_client.h"

using namespace world;

using Clock = std::chrono::steady_clock;

static double millisecondsSince(Clock::time_point begin) {
    return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

static DBusMessage* stormCall(int number) {
    switch (number % 4) {
        case 0: return BusClient::message("/dyndns", "com.corvane.orsm.dyndns", "IsEnabled", {});
        case 1: return BusClient::message("/orvoservicesinfo", "", "Get", {});
        case 2: return BusClient::message("/voltaro", "com.corvane.orsm.voltaro", "Set", {"p", "up"});
        default: return BusClient::message("/dyndns", "com.corvane.orsm.dyndns", "None", {});
    }
}

TEST(Storm, EveryCallIsAnsweredOnceAndNobodyWaitsLong) {
    constexpr int KClients = 4, KOutstanding = 128, KCalls = 2500, KChanges = 20;
    dbus_threads_init_default();
    Gateway gateway;
    gateway.start();
    // A timer of one second, armed just before the storm.
    gateway.set("NMC.HomeAutomation", "HA-ID", "HA-1");
    gateway.set("NMC.HomeAutomation", "HA-ID", "");
    gateway.log.next("HA-ID value: HA-1");
    gateway.log.next("Synchronizing DynDNS in reaction to HA-ID change");

    std::map<std::string, int> replies;
    std::mutex lock;
    std::vector<std::jthread> clients(KClients);
    for (std::jthread& client : clients) {
        client = std::jthread([&] {
            EXPECT_TRUE(BusClient().callMany(KCalls, KOutstanding, stormCall, [&](DBusMessage* reply) {
                const std::scoped_lock locked(lock);
                ++replies[BusClient::textOf(reply)];
            }));
        });
    }
    std::atomic<bool> over = false;
    std::vector<double> waits;
    std::thread polite([&] {
        BusClient client;
        while (!over) {
            const auto begin = Clock::now();
            EXPECT_EQ(client.call("/orvoservicesinfo", "", "Get"), R"({"status":"OK"})");
            waits.push_back(millisecondsSince(begin));
        }
    });
    const auto begin = Clock::now();
    setOften("OrvoService.HomeAutomation", "CommunicationServer", 1, KChanges, "storm-");
    clients.clear();  // joins them
    const double storm = millisecondsSince(begin);
    const auto end = Clock::now();
    over = true;
    polite.join();
    LogReader pipe = gateway.log;
    for (int i = 1; i <= KChanges; ++i) {
        pipe.next("Communication server URL changed: storm-" + std::to_string(i));
    }
    const double pipeLate = millisecondsSince(end);
    gateway.log.next("HA-ID is empty");
    const double timerLate = millisecondsSince(end);

    EXPECT_EQ(replies.size(), 4U);
    for (const char* reply : {R"({"status":"OK","result":false})", R"({"status":"OK"})",
                              R"({"status":"ACTION_NOT_DEFINED"})", "org.freedesktop.DBus.Error.UnknownMethod"}) {
        EXPECT_EQ(replies[reply], KClients * KCalls / 4) << reply;
    }
    const double longest = *std::max_element(waits.begin(), waits.end());
    printf("figure: storm: %d calls in %.0f ms; a polite client's %zu within %.1f ms; then pipe %.0f, timer %.0f ms\n",
           KClients * KCalls, storm, waits.size(), longest, pipeLate, timerLate);
#ifdef NDEBUG  // with the sanitizers a call costs several times as much
    EXPECT_LE(longest, 100);
    EXPECT_LE(pipeLate, 1000);
    EXPECT_LE(timerLate, 1000);
#endif
    EXPECT_EQ(gateway.end(), 0);
    EXPECT_EQ(gateway.daemon->output(), "");
}
