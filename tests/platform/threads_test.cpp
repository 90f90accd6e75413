// Two clients on two threads, and what ends or wakes the event loop of one from outside.
#include <atomic>
#include <csignal>
#include <thread>

#include "tests/platform/client.h"

static constexpr char KDynDns[] = "OrvoService.DynDNS";

TEST(PlatformThreads, TwoClientsWorkBesideEachOther) {
    const auto bus = world::startPcbBus();
    const Client client;
    Watch watch(client, KDynDns);
    std::thread setter([] {
        const Client other;
        for (int i = 1; i <= 500; ++i) {
            EXPECT_EQ(other.set(KDynDns, "HostName", std::to_string(i)), 0U);
            EXPECT_EQ(other.get(KDynDns, "Nothing"), "error: unknown parameter");
            EXPECT_EQ(pcb_error, static_cast<uint32_t>(PCB_ERROR_UNKNOWN_PARAMETER));
        }
    });
    pcb_error = 7;
    EXPECT_TRUE(client.loopUntil([&] { return !watch.items.empty() && watch.items.back().ends_with(" 499 500"); }));
    EXPECT_EQ(pcb_error, 7U) << "each thread has its own";
    setter.join();
}

// What another thread or a signal does while the loop waits; the loop ends at once, and stays so if it is a latch.
TEST(PlatformThreads, TheLoopEndsWhateverItWaitsFor) {
    const auto bus = world::startPcbBus();
    struct Case {
        const char* what;
        std::function<void()> act;
        bool latch;
    };
    for (const Case& c : {
             Case{"told to end",
                  [] {
                      connection_setTerminated(true);
                      connection_setEventsAvailable();
                  },                                                                  false},
             Case{"another client has lost its bus",
                  [] {
                      world::Process second({world::binary("pcb-bus"), "--socket", "/var/run/second", "--definition",
                                             "/var/run/second.odl"});
                      EXPECT_TRUE(
                          world::waitFor([&] { return second.output().find("listening") != std::string::npos; }));
                      const Client other("/var/run/second");
                      second.send(SIGKILL);
                      second.wait();
                      EXPECT_EQ(other.get("A", "B"), "error: connection lost");
                      // The loop must have seen it before the client goes.
                      EXPECT_TRUE(world::waitFor([] { return access("/var/run/ended", F_OK) == 0; }));
                  },                                                                  false},
             Case{"SIGTERM",                         [] { kill(getpid(), SIGTERM); }, true },
             Case{"SIGINT",                          [] { kill(getpid(), SIGINT); },  true },
    }) {
        // The latch of one case must not serve the next.
        const pid_t child = fork();
        if (child == 0) {
            world::writeFile("/var/run/second.odl", "object A { string B = \"\"; }");
            const Client client;
            Watch watch(client, KDynDns);
            bool good = client.loopUntil([&] { return !watch.items.empty(); });
            std::thread actor(c.act);
            good = !client.loopUntil([] { return false; }) && good;
            world::writeFile("/var/run/ended", "");
            actor.join();
            connection_setTerminated(false);
            good = connection_isTerminated() == c.latch && good;
            _exit(good && !testing::Test::HasFailure() ? 0 : 1);
        }
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0) << c.what;
        unlink("/var/run/ended");
    }
}

static std::atomic<int> hangups = 0;

TEST(PlatformThreads, AWaitOutlastsASignalAndEndsWithAWake) {
    const auto bus = world::startPcbBus();
    const Client client;
    struct sigaction action {};
    action.sa_handler = [](int) { ++hangups; };
    sigaction(SIGHUP, &action, nullptr);
    llist_t list;
    llist_initialize(&list);
    llist_append(&list, connection_listLink(pcb_connection(client.pcb)));
    std::atomic<bool> returned = false;
    const pthread_t waiting = pthread_self();
    std::thread actor([&] {
        for (int i = 1; i <= 20; ++i) {
            pthread_kill(waiting, SIGHUP);
            EXPECT_TRUE(world::waitFor([&] { return hangups == i; }));
        }
        EXPECT_FALSE(returned);
        EXPECT_EQ(connection_setEventsAvailable(), 1);
    });
    fd_set readSet, writeSet;
    EXPECT_EQ(connection_waitForEvents_r(&list, &readSet, &writeSet), 0);
    returned = true;
    actor.join();
    timeval moment = {0, 20000};
    EXPECT_EQ(connection_waitForEvents(&list, &moment), 0);
    Watch watch(client, KDynDns);
    moment = {5, 0};
    EXPECT_EQ(connection_waitForEvents(&list, &moment), 1);
    EXPECT_TRUE(connection_handleEvents(&list));
    EXPECT_EQ(watch.items.size(), 1U);
    // Nobody is raised out of a write to a bus that is gone.
    ASSERT_TRUE(connection_setSignalEventHandler(pcb_connection(client.pcb), SIGPIPE, nullptr));
    EXPECT_EQ(raise(SIGPIPE), 0);
    llist_cleanup(&list);
}
