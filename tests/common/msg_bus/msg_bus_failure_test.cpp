#include <sys/socket.h>

#include <thread>

#include "common/gate/gate.h"
#include "tests/common/msg_bus/bus_fixture.h"

// Library calls that can be made to fail: the one named, when it was let pass so many times.
static const char* iFailing = "";
static int iPasses = 0;
#define CAN_FAIL(type, name, parameters, arguments)                    \
    extern "C" type __real_##name parameters;                          \
    extern "C" type __wrap_##name parameters;                          \
    type __wrap_##name parameters {                                    \
        if (strcmp(#name, iFailing) == 0 && iPasses-- == 0) return {}; \
        return __real_##name arguments;                                \
    }
using Text = char*;
using Memory = void*;
using Event = event*;
CAN_FAIL(Text, strdup, (const char* text), (text))
CAN_FAIL(Memory, calloc, (size_t count, size_t size), (count, size))
CAN_FAIL(Event, event_new, (event_base * base, int fd, short what, event_callback_fn call, void* data),
         (base, fd, what, call, data))
CAN_FAIL(dbus_bool_t, dbus_connection_add_filter,
         (DBusConnection * on, DBusHandleMessageFunction call, void* data, DBusFreeFunction release),
         (on, call, data, release))

TEST_F(MessageBus, AnswersEveryCallOfABurstAlsoWhenTheBusIsSlowToRead) {
    bus = newObject(KName, "/test");
    int socket = -1;
    dbus_connection_get_socket(bus->connection.get(), &socket);
    const int fewReplies = 1;
    setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &fewReplies, sizeof fewReplies);
    for (int burst = 0; burst < 6; ++burst) {
        std::vector<DBusPendingCall*> calls(100);
        for (DBusPendingCall*& pending : calls) {
            pending = send(newCall("/test", KName, "Unknown"));
        }
        letBusHandOver();
        putBusToSleep();
        for (DBusPendingCall* pending : calls) {
            ASSERT_EQ(replyTo(pending), "error " DBUS_ERROR_UNKNOWN_METHOD);
        }
    }
}

TEST_F(MessageBus, ACallThatMemoryIsShortForIsTriedAgainLater) {
    bus = newObject(KName, "/test", {"Two"});
    int refusals = 0;
    const auto refuse = [](DBusConnection*, DBusMessage* message, void* count) {
        const bool isFirst = dbus_message_is_method_call(message, KName, "Two") && ++*static_cast<int*>(count) == 1;
        return isFirst ? DBUS_HANDLER_RESULT_NEED_MEMORY : DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    };
    dbus_connection_add_filter(bus->connection.get(), refuse, &refusals, nullptr);
    DBusPendingCall* pending = send(newCall("/test", KName, "Two"));
    EXPECT_TRUE(pumpUntil([&] { return refusals == 1; }));  // not tried again in the same run
    EXPECT_EQ(replyTo(pending), "true");
    dbus_connection_remove_filter(bus->connection.get(), refuse, &refusals);
}

TEST_F(MessageBus, AReplyThatCannotBeSentIsAnErrorForTheClient) {
    bus = newObject(KName, "/test", {"Garbled", "TooLong", "Longest", "Silent", "Echo"});
    for (const char* method : {"Garbled", "TooLong"}) {
        EXPECT_EQ(call(newCall("/test", KName, method)), "error " DBUS_ERROR_FAILED);
        EXPECT_EQ(iReplyResult, 0);
        EXPECT_EQ(newLog(), "\n WARN failed to send DBus method response");
    }
    EXPECT_EQ(call(newCall("/test", KName, "Longest")).size(), KMebibyte.size());

    // Neither of the first two gets anything: the answer to the call behind them would come later.
    atClient.clear();
    iReplyResult = -1;
    const OwnedMessage noReply = newCall("/test", KName, "Echo");
    dbus_message_set_no_reply(noReply.get(), TRUE);
    dbus_connection_send(client, noReply.get(), nullptr);
    dbus_connection_send(client, newCall("/test", KName, "Silent").get(), nullptr);
    EXPECT_TRUE(pumpUntil([&] { return iSeen.back() == "Silent -"; }));
    EXPECT_EQ(iReplyResult, 1);
    EXPECT_EQ(call(newCall("/test", KName, "Echo", "t")), "true");
    EXPECT_EQ(atClient, Texts{});
    EXPECT_EQ(daemon->output().find("Rejected send message"), std::string::npos);  // a reply that nobody asked for
}

TEST_F(MessageBus, AFailedOrFreedObjectLeavesNothingBehind) {
    bus = newObject(KName, "/test");
    for (const std::string path : {"/test", "no path", "", "/\xff"}) {
        EXPECT_EQ(message_bus_new(base, "com.other", path.c_str()), nullptr) << path;
        EXPECT_EQ(newLog(), "\n WARN failed to register dbus object path: " + path + " (service com.other)");
    }
    for (int i = 0; i < 3; ++i) {
        DBusPendingCall* meanwhile = send(newCall("/test", KName, "Two"));
        letBusHandOver();
        EXPECT_EQ(message_bus_request_name(bus, KName), 1);  // reads the call, which nobody handles yet
        message_bus_free(&bus);
        bus = newObject(KName, "/test", {"Two"});
        EXPECT_EQ(replyTo(meanwhile), "true");
    }
    for (const char* name : {"no'name", "\xff"}) {
        EXPECT_EQ(message_bus_add_signal_listener(bus, name), 0);
        EXPECT_EQ(newLog().find("\n WARN Failed to dbus_bus_add_match: Member name was not valid"), 0U);
    }
    EXPECT_EQ(bus->signalListeners, nullptr);
}

TEST_F(MessageBus, AStepThatFailsTakesBackTheStepsBeforeIt) {
    bus = newObject("com.corvane.first", nullptr);
    const std::string noSetup = "\n WARN failed to setup dbus connection";
    struct Case {
        const char* call;
        int passes;
        std::string log;
    };
    for (const Case& c : {
             Case{"calloc",                     0, noSetup                                                                        },
             Case{"strdup",                     0, noSetup                                                                        },
             Case{"event_new",                  0, noSetup                                                                        },
             Case{"event_new",                  1, noSetup                                                                        },
             Case{"event_new",                  2, noSetup                                                                        },
             Case{"calloc",                     2, noSetup                                                                        },
             Case{"dbus_connection_add_filter", 0, "\n WARN failed to add filter to dbus connection"                              },
             Case{"strdup",                     1, "\n WARN failed to register dbus object path: /test (service com.corvane.test)"},
    }) {
        SCOPED_TRACE(c.call + std::to_string(c.passes));
        iFailing = c.call;
        iPasses = c.passes;
        EXPECT_EQ(message_bus_new(base, KName, "/test"), nullptr);
        EXPECT_EQ(newLog(), c.log);
        message_bus* other = newObject(KName, "/test", {"Two"});
        EXPECT_EQ(call(newCall("/test", KName, "Two")), "true");
        message_bus_free(&other);
    }
    for (const char* name : {"calloc", "strdup"}) {
        iFailing = name;
        iPasses = 0;
        EXPECT_EQ(message_bus_add_method_listener(bus, "M"), 0);
    }
    EXPECT_EQ(bus->methodListeners, nullptr);
}

TEST_F(MessageBus, ALostBusEndsTheProcess) {
    const auto loseBus = [&] {
        bus = newObject(KName, "/test");
        daemon->send(SIGKILL);
        event_base_dispatch(base);
    };
    EXPECT_EXIT(loseBus(), testing::ExitedWithCode(1), "");
    EXPECT_EQ(newLog(), "\n WARN got signal Disconnected, freeing message_bus");
}

TEST_F(MessageBus, AReplyThatWaitsForTheBusDoesNotHoldUpTheEnd) {
    const auto replyAndEnd = [&] {
        alarm(60);
        bus = newObject(KName, "/test");
        OwnedMessage call = newCall("/test", KName, "Longest");
        dbus_message_set_serial(call.get(), 1);
        daemon->send(SIGSTOP);
        const InsideGate inside;
        std::thread([] {
            closeGateForever();
            _exit(3);
        }).detach();
        answer(bus, "Longest", nullptr, call.release());
    };
    EXPECT_EXIT(replyAndEnd(), testing::ExitedWithCode(3), "");
}

TEST(MessageBusAlone, CannotBeMadeBeforeItsBusRuns) {
    logToFile(LEVEL_WARN);
    EXPECT_EQ(message_bus_set_dbus_socket("unix:path=/var/run/dbus/system_bus_socket"), 0);
    event_base* base = event_base_new();
    EXPECT_EQ(message_bus_new(base, KName, "/test"), nullptr);
    EXPECT_EQ(newLog().find("\n WARN Failed to open connection to activating message bus: Failed to connect"), 0U);
    const auto daemon = world::startDbusDaemon();
    message_bus* bus = message_bus_new(base, KName, "/test");
    EXPECT_NE(bus, nullptr);
    message_bus_free(&bus);
    event_base_free(base);
}
