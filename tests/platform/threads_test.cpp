// Two clients on two threads, and what ends or wakes the event loop of one from outside.
#include <atomic>

#include "tests/platform/client.h"

TEST_F(Platform, EveryWatchGetsEveryChangeOfABurstWhileAnotherThreadWorks) {
    const Watch one(client, KDynDns), two(client, KDynDns);
    two.await(1);
    static constexpr char KSet[] = R"(,"op":"set","path":"OrvoService.DynDNS","parameter":"HostName","value":")";
    std::string sets, answers;
    Items changes = two.items;
    for (int i = 1; i <= 5000; ++i) {
        const std::string id = "{\"id\":" + std::to_string(i), name = std::to_string(i);
        sets.append(id).append(KSet).append(name).append("\"}\n");
        answers += id + "}\n";
        changes.push_back("1 OrvoService.DynDNS HostName " + (i > 1 ? std::to_string(i - 1) : "") + " " + name);
    }
    pcb_error = 7;
    const std::jthread setter([&] {
        const RawConnection raw;
        EXPECT_TRUE(raw.send(sets));
        EXPECT_EQ(Client().get(KDynDns, "Nothing"), "error: unknown parameter");
        EXPECT_TRUE(raw.receiveUntil("{\"id\":5000}\n") == answers);
    });
    EXPECT_TRUE(two.await(changes.size()) == changes && one.items == changes);
    EXPECT_EQ(pcb_error, 7U) << "each thread has its own";
}

static std::atomic<int> hangups = 0;

TEST_F(Platform, TheLoopOutlastsSignalsAndEndsWhenToldTo) {
    signal(SIGHUP, [](int) { ++hangups; });
    std::thread actor([loop = pthread_self()] {
        for (int i = 1; i <= 20; ++i) {
            pthread_kill(loop, SIGHUP);
            EXPECT_TRUE(world::waitFor([&] { return hangups == i; }));
        }
        connection_setTerminated(true);
        EXPECT_EQ(connection_setEventsAvailable(), 1);
    });
    EXPECT_FALSE(client.loopUntil([] { return false; }));
    EXPECT_EQ(hangups, 20);
    actor.join();
    connection_setTerminated(false);
    EXPECT_FALSE(connection_isTerminated());
}

static std::atomic<bool> ended = false;

TEST_F(Platform, TheLoopEndsWhenAClientOfAnotherThreadHasLostItsBus) {
    std::thread actor([] {
        const auto loopEnds = [] { EXPECT_TRUE(world::waitFor([] { return ended.load(); })); };
        EXPECT_EQ(askLiar("", loopEnds), "error: connection lost");
    });
    EXPECT_FALSE(client.loopUntil([] { return false; }));
    ended = true;
    actor.join();
    EXPECT_FALSE(connection_isTerminated());
}
