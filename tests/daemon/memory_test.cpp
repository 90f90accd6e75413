// Short memory: every allocation that the daemon makes on a path fails once, with the three behind it, and with all
// behind it. STARVE=CLASS:PATTERN:NUMBER runs a single case.
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <set>
#include <sstream>

#include "common/msg_bus/message_bus_internal.h"
#include "tests/daemon/steered.h"

using namespace world;

namespace {

constexpr unsigned KRuns[] = {1, 4, UINT_MAX};

// A gateway whose daemon can be starved.
struct Starving : SteeredGateway {
    bool second = true;

    Starving() : SteeredGateway(1000) {}
    // While memory is short: waits until the daemon has come to rest, or `done` holds.
    void untilHandled(const std::function<bool()>& done) const {
        if (!steering().starved) return;
        unsigned before = 0, still = 0;
        EXPECT_TRUE(waitFor([&] {
            const unsigned now = steering().allAllocations;
            still = now && now == before ? still + 1 : 0;
            before = now;
            return still > 3 || done() || !daemon->running();
        }));
        steering().starved = 0;
    }
    // The reply to a call that is made while memory is short, or "none".
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
    // Makes a change while memory is short, and waits until the daemon has come to its end.
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
    // The different requests that the servers have seen, without their headers.
    std::set<std::string> requests() const {
        std::set<std::string> all;
        for (const std::string& request : cloud->journal()) {
            all.insert(request.substr(0, request.find('|')) + request.substr(request.rfind('|')));
        }
        return all;
    }
};

struct Path {
    const char* name;
    unsigned classes;  // how many of the classes are swept
    std::function<std::string(Starving&)> act;
    std::set<std::string> failures;  // what it may come to besides its usual end
};

std::function<std::string(Starving&)> calling(const char* service, const char* method, const BusArguments& arguments) {
    return [=](Starving& gateway) { return gateway.call(service, method, arguments); };
}

std::set<std::string> statuses(const char* members, std::initializer_list<const char*> statuses) {
    std::set<std::string> replies = {"none", DBUS_ERROR_FAILED, DBUS_ERROR_NO_MEMORY};
    for (const char* status : statuses) {
        replies.insert(std::string(R"({"status":")") + status + "\"" + members + "}");
    }
    return replies;
}

std::string toggle(Starving& gateway) {
    const std::string reply = gateway.call("voltaro", "Set", {"p-1", "toggle"});
    return reply.starts_with(R"({"status":"OK")") ? "switched" : reply;
}

constexpr char KNull[] = R"(,"result":null)";

std::vector<Path> paths() {
    const std::set<std::string> plug = statuses(
        "", {"SERVER_CONNECTION_ERROR", "SERVER_INTERNAL_ERROR", "CANNOT_LOGIN_TO_VOLTARO", "OUT_OF_MEMORY_ERROR"});
    const std::set<std::string> no = {"none", DBUS_ERROR_FAILED, DBUS_ERROR_NO_MEMORY, "false"};
    const std::set<std::string> server =
        statuses(KNull, {"OUT_OF_MEMORY_ERROR", "SERVER_CONNECTION_ERROR", "SERVER_INTERNAL_ERROR"});
    // clang-format off
    return {
        {"ServicesInfo",  4, calling("orvoservicesinfo", "Get", {}), statuses("", {})},
        {"IsEnabled",     4, calling("dyndns", "IsEnabled", {}), statuses(KNull, {"DBUS_ERROR"})},
        {"GetName",       2, calling("dyndns", "GetName", {}), statuses(KNull, {"DBUS_ERROR", "OUT_OF_MEMORY_ERROR"})},
        {"IsNameTaken",   2, calling("dyndns", "IsNameTaken", {"free"}), server},
        {"Configure",     2, calling("dyndns", "Configure", {true, "office"}), server},
        {"SetEnabled",    2, calling("dyndns", "SetEnabled", {true}), no},
        {"Set",           2, calling("voltaro", "Set", {"p-1", "on"}), plug},
        {"Toggle",        2, toggle, plug},
        {"Get",           2, calling("voltaro", "Get", {"p-1"}), plug},
        {"EnableBackend", 2, calling("voltaro", "EnableBackend", {true}), no},
        {"Watch",           4, [](Starving& gateway) { return gateway.watch(); }, {"lost"}},
        {"Synchronization", 2, [](Starving& gateway) { return gateway.synchronize(); }, {"done", "lost"}},
    };
    // clang-format on
}

class Memory : public testing::TestWithParam<Path> {};

}  // namespace

// Runs `act`, which gives the end that it came to, with every place armed, of so many classes, and prints how many ends
// of each kind there are.
static void sweepPlaces(const char* name, unsigned classes, unsigned oneIn,
                        const std::function<void(std::string& end)>& act) {
    std::map<std::string, unsigned> ends;
    Sweep sweep(oneIn);
    Steering& page = steering();
    for (unsigned owner = 0; owner < classes; ++owner) {
        for (const unsigned run : KRuns) {
            page.failed = 1;
            for (unsigned number = 1; page.failed; ++number) {
                if (testing::Test::HasFailure()) return;
                if (!sweep.next()) continue;
                SCOPED_TRACE(sweep.again() + std::string(": ") + KModules[owner] + " " + std::to_string(number));
                page.allocations = page.failed = page.allAllocations = 0;
                page.firstToFail = number;
                page.toFail = run;
                page.starved = owner + 1;
                std::string end;
                act(end);
                ++ends[end];
            }
        }
    }
    printf("figure: memory: %s: %s places;", name, sweep.count().c_str());
    for (const auto& [end, count] : ends) {
        printf(" %u x %s", count, end.c_str());
    }
    printf("\n");
}

TEST_P(Memory, MayBeShortAnywhereOn) {
    const Path& path = GetParam();
    Starving gateway;
    gateway.launch(KSteered);
    gateway.log.next("Entered pcb data model event loop");
    gateway.set("OrvoService.GatewayClient", "ConnectionMode", "on");
    gateway.synchronize();
    path.act(gateway);
    const std::string usual = path.act(gateway);
    const std::set<std::string> requests = gateway.requests();
    sweepPlaces(path.name, path.classes, 16, [&](std::string& end) {
        end = path.act(gateway);
        EXPECT_TRUE(end == usual || path.failures.contains(end)) << end;
        ASSERT_TRUE(gateway.daemon->running()) << gateway.daemon->output();
        EXPECT_EQ(path.act(gateway), usual);
    });
    // A write counts as failed when its answer cannot be read. The data model then reports it like a client's switch,
    // which a synchronization pushes.
    for (const std::string& request : gateway.requests()) {
        EXPECT_TRUE(requests.contains(request) || request.find(R"({"name":"box","haId":"HA-2",)") != request.npos ||
                    request.find(R"({"name":"second","haId":"HA-1",)") != request.npos)
            << request;
    }
    EXPECT_EQ(gateway.end(), 0);
    EXPECT_EQ(gateway.daemon->output(), "");
}

// A start ends with its status and nothing left behind, or the daemon serves, and hears of every change.
TEST(Memory, MayBeShortWhileStarting) {
    Starving gateway;
    sweepPlaces("Start", 4, 60, [&](std::string& end) {
        gateway.emptyLog();
        gateway.launch(KSteered);
        const auto decided = [&] {
            return gateway.log.count("Entered pcb data model event loop") || !gateway.daemon->running();
        };
        // libdbus tries again and again, until its call's own time limit, when it gets no memory; it is given some
        // then.
        int looks = 0;
        ASSERT_TRUE(waitFor([&] { return decided() || (steering().failed && ++looks > 400); }))
            << gateway.log.content();
        steering().starved = 0;
        ASSERT_TRUE(waitFor(decided)) << gateway.log.content();
        if (!gateway.daemon->running()) {
            // libdbus breaks an assertion of its own when it is short of memory twice while it connects.
            const bool itself = gateway.daemon->output().find("dbus_move_error() were incorrect") != std::string::npos;
            end = itself ? "ended in libdbus" : "ended";
            EXPECT_EQ(gateway.daemon->wait(), itself ? 128 + SIGABRT : 1);
            if (itself) unlink(KPidFile);
        } else {
            end = gateway.log.count("Request failed, error") ? "served without a first value" : "served";
            gateway.settle();
            EXPECT_EQ(gateway.end(), 0);
        }
        EXPECT_EQ(readFile(KPidFile), "");
        EXPECT_EQ(gateway.daemon->output().find("Sanitizer"), std::string::npos) << gateway.daemon->output();
    });
}

INSTANTIATE_TEST_SUITE_P(Path, Memory, testing::ValuesIn(paths()), [](const auto& path) { return path.param.name; });
