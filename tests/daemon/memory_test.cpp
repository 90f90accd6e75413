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
    // The different requests that the servers have seen.
    std::set<std::string> requests() const {
        const std::vector<std::string> all = cloud->journal();
        return {all.begin(), all.end()};
    }
};

struct Path {
    const char* name;
    unsigned classes, step;  // how many of the classes are swept, and by which step
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
        {"ServicesInfo",  4, 1, calling("orvoservicesinfo", "Get", {}), statuses("", {})},
        {"IsEnabled",     4, 1, calling("dyndns", "IsEnabled", {}), statuses(KNull, {"DBUS_ERROR"})},
        {"GetName",       2, 1, calling("dyndns", "GetName", {}), statuses(KNull, {"DBUS_ERROR", "OUT_OF_MEMORY_ERROR"})},
        {"IsNameTaken",   2, 1, calling("dyndns", "IsNameTaken", {"free"}), server},
        {"Configure",     2, 3, calling("dyndns", "Configure", {true, "office"}), server},
        {"SetEnabled",    2, 1, calling("dyndns", "SetEnabled", {true}), no},
        {"Set",           2, 1, calling("voltaro", "Set", {"p-1", "on"}), plug},
        {"Toggle",        2, 1, toggle, plug},
        {"Get",           2, 1, calling("voltaro", "Get", {"p-1"}), plug},
        {"EnableBackend", 2, 3, calling("voltaro", "EnableBackend", {true}), no},
        {"Watch",           4, 3, [](Starving& gateway) { return gateway.watch(); }, {"lost"}},
        {"Synchronization", 2, 7, [](Starving& gateway) { return gateway.synchronize(); }, {"done", "lost"}},
    };
    // clang-format on
}

class Memory : public testing::TestWithParam<Path> {};

}  // namespace

// Runs `act`, which gives the end that it came to, with every place armed, of so many classes, and prints how many
// places and ends of each kind there are. With a `step`, places are left out; STARVE=all takes them all, and
// STARVE=CLASS:PATTERN:NUMBER a single one.
static void sweep(const char* name, unsigned classes, unsigned step, const std::function<void(std::string& end)>& act) {
    std::map<std::string, unsigned> ends;
    const auto runCase = [&](unsigned owner, unsigned pattern, unsigned number) {
        SCOPED_TRACE(testing::Message() << "STARVE=" << owner << ":" << pattern << ":" << number);
        Steering& page = steering();
        page.allocations = page.failed = page.allAllocations = 0;
        page.firstToFail = number;
        page.toFail = KRuns[pattern];
        page.starved = owner + 1;
        std::string end;
        act(end);
        ++ends[end];
        return page.failed && !testing::Test::HasFailure();
    };
    const char* const wish = getenv("STARVE");
    std::istringstream chosen(wish ? wish : "");
    unsigned owner = 0, pattern = 0, number = 0;
    char colon = ':';
    if (chosen >> owner >> colon >> pattern >> colon >> number) {
        runCase(owner, pattern, number);
        return;
    }
    if (wish) step = 1;
    std::string counts;
    for (owner = 0; owner < classes; ++owner) {
        counts += std::string(" ") + (owner ? KModules[owner] : "own");
        for (pattern = 0; pattern < std::size(KRuns); ++pattern) {
            for (number = 1; runCase(owner, pattern, number); number += step) {
            }
            counts += " " + std::to_string(number - 1);
        }
    }
    printf("figure: memory: %s:%s;", name, counts.c_str());
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
    sweep(path.name, path.classes, path.step, [&](std::string& end) {
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
    sweep("Start", 4, 11, [&](std::string& end) {
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
