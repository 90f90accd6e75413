// Out of memory: every allocation that the daemon makes on a path fails alone, then with the next three, then with all
// that follow.
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>

#include "common/msg_bus/message_bus_internal.h"
#include "tests/daemon/steered.h"

using namespace world;

namespace {

constexpr unsigned KRuns[3] = {1, 4, UINT_MAX};

// A gateway whose daemon can be starved.
struct Starving : SteeredGateway {
    bool second = true;

    Starving() : SteeredGateway(1000) {}
    // While allocations fail: waits until the daemon does nothing more or only retries, or `done` holds.
    void untilHandled(const std::function<bool()>& done) const {
        if (!steering().starved) return;
        unsigned before = 0, still = 0;
        EXPECT_TRUE(waitFor([&] {
            const unsigned now = steering().allAllocations;
            still = now && now == before ? still + 1 : 0;
            before = now;
            return still > 3 || steering().failed > 200 || done() || !daemon->running();
        }));
        steering().starved = 0;
    }
    // The reply to a call that is made while allocations fail, or "none".
    std::string call(const char* service, const char* method, const BusArguments& arguments) {
        const std::string path = std::string("/") + service;
        const OwnedMessage request(
            BusClient::message(path, std::string("com.corvane.orsm.") + service, method, arguments));
        DBusPendingCall* pending = nullptr;
        dbus_connection_send_with_reply(client.connection(), request.get(), &pending, 60'000);
        untilHandled([&] {
            dbus_connection_read_write_dispatch(client.connection(), 0);
            return dbus_pending_call_get_completed(pending) != 0;
        });
        // What waited for memory is served in its order, so that this is answered last.
        EXPECT_EQ(client.call("/", "org.freedesktop.DBus.Peer", "Ping"), "");
        while (dbus_connection_dispatch(client.connection()) == DBUS_DISPATCH_DATA_REMAINS) {
        }
        const bool answered = dbus_pending_call_get_completed(pending);
        const OwnedMessage reply(answered ? dbus_pending_call_steal_reply(pending) : nullptr);
        dbus_pending_call_cancel(pending);
        dbus_pending_call_unref(pending);
        return reply ? BusClient::textOf(reply.get()) : "none";
    }
    // Makes a change while allocations fail, and waits until the daemon has handled it.
    void change(const char* object, const char* parameter, const std::string& value) {
        emptyLog();
        set(object, parameter, value);
        untilHandled([] { return false; });
        settle();
    }
    // Whether a change of the data model comes through the watch and the pipe, and is saved.
    std::string watch() {
        change("OrvoService.HomeAutomation", "CommunicationServer", "changed");
        return log.count("Communication server URL changed: changed") ? "seen" : "lost";
    }
    // Whether a synchronization takes place, and is stored; one that began must come to its end.
    std::string synchronize() {
        second = !second;
        const std::string name = second ? "second" : "box";
        change("NMC.HomeAutomation", "HA-ID", second ? "HA-2" : "HA-1");
        if (!log.count("Sync dyndns timer started")) return "lost";
        EXPECT_TRUE(waitFor([&] { return log.count("DynDNS hostname " + name + " saved in PCB") > 0; }))
            << log.content();
        settle();
        return stored("HostName") == name && stored("SyncNotFinished") == "false" ? "stored" : "done";
    }
};

struct Path {
    const char* name;
    unsigned classes;              // how many of KModules are swept
    const char *service, *method;  // no service: what is not a call
    BusArguments arguments;

    std::string walk(Starving& gateway) const {
        if (!service) return *method == 'w' ? gateway.watch() : gateway.synchronize();
        const std::string reply = gateway.call(service, method, arguments);
        const bool toggled = strcmp(name, "Toggle") == 0 && reply.starts_with(R"({"status":"OK")");
        return toggled ? "toggled" : reply;  // every time to the other state
    }
};

// Whether a result other than the usual one is allowed out of memory: no reply, no effect, an error or a refusal.
bool isRefusal(const std::string& end) {
    return end == "none" || end == "lost" || end == "done" || end == "false" || end == DBUS_ERROR_FAILED ||
           end == DBUS_ERROR_NO_MEMORY || (end.starts_with(R"({"status":")") && !end.starts_with(R"({"status":"OK")"));
}

const Path KPaths[] = {
    {"ServicesInfo",    4, "orvoservicesinfo", "Get",           {}               },
    {"IsEnabled",       4, "dyndns",           "IsEnabled",     {}               },
    {"GetName",         2, "dyndns",           "GetName",       {}               },
    {"IsNameTaken",     2, "dyndns",           "IsNameTaken",   {"free"}         },
    {"Configure",       2, "dyndns",           "Configure",     {true, "office"} },
    {"SetEnabled",      2, "dyndns",           "SetEnabled",    {true}           },
    {"Set",             2, "voltaro",          "Set",           {"p-1", "on"}    },
    {"Toggle",          2, "voltaro",          "Set",           {"p-1", "toggle"}},
    {"Get",             2, "voltaro",          "Get",           {"p-1"}          },
    {"EnableBackend",   2, "voltaro",          "EnableBackend", {true}           },
    {"Watch",           4, nullptr,            "watch",         {}               },
    {"Synchronization", 2, nullptr,            "synchronize",   {}               },
};

class Memory : public testing::TestWithParam<Path> {};

}  // namespace

TEST_P(Memory, DaemonSurvivesFailureOfEachAllocation) {
    const Path& path = GetParam();
    Starving gateway;
    gateway.launch(KSteered);
    gateway.log.next("Entered pcb data model event loop");
    gateway.set("OrvoService.GatewayClient", "ConnectionMode", "on");
    gateway.synchronize();
    path.walk(gateway);
    const std::string usual = path.walk(gateway);
    Sweep sweep(16);
    Steering& page = steering();
    for (unsigned round = 0; round < path.classes * 3; ++round) {
        const unsigned owner = round / 3;
        page.failed = 1;
        for (unsigned number = 1; page.failed && !HasFailure(); ++number) {
            if (!sweep.next()) continue;
            SCOPED_TRACE(sweep.again() + std::string(": ") + KModules[owner] + " " + std::to_string(number));
            page.allocations = page.failed = page.allAllocations = 0;
            page.firstToFail = number;
            page.toFail = KRuns[round % 3];
            page.starved = owner + 1;
            const std::string end = path.walk(gateway);
            EXPECT_TRUE(end == usual || isRefusal(end)) << end;
            ASSERT_TRUE(gateway.daemon->running()) << gateway.daemon->output();
            EXPECT_EQ(path.walk(gateway), usual);
        }
    }
    printf("figure: memory: %s: %s places\n", path.name, sweep.count().c_str());
    EXPECT_EQ(gateway.end(), 0);
    EXPECT_EQ(gateway.daemon->output(), "");
}

INSTANTIATE_TEST_SUITE_P(Path, Memory, testing::ValuesIn(KPaths), [](const auto& path) { return path.param.name; });
