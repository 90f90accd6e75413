#include <sys/socket.h>

#include <thread>

#include "common/gate/gate.h"
#include "tests/common/msg_bus/bus_fixture.h"

// Calls that make something, any of which fails once so many were let pass.
static int iPasses = -1;
#define CAN_FAIL(type, name, parameters, arguments) \
    extern "C" type __real_##name parameters;       \
    extern "C" type __wrap_##name parameters;       \
    type __wrap_##name parameters {                 \
        if (iPasses-- == 0) return {};              \
        return __real_##name arguments;             \
    }
CAN_FAIL(char*, strdup, (const char* text), (text))
CAN_FAIL(void*, calloc, (size_t count, size_t size), (count, size))
CAN_FAIL(event*, event_new, (event_base * base, int fd, short what, event_callback_fn call, void* data),
         (base, fd, what, call, data))

TEST_F(MessageBus, AnswersEveryCallOfABurstAlsoWhenTheBusIsSlowToRead) {
    bus = newObject(KName, "/test");
    int socket = -1;
    dbus_connection_get_socket(bus->connection.get(), &socket);
    const int fewReplies = 1;
    setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &fewReplies, sizeof fewReplies);
    for (int burst = 0; burst < 6; ++burst) {
        std::vector<DBusPendingCall*> calls(100);
        for (DBusPendingCall*& pending : calls) {
            pending = send(newCall("/test", "Unknown"));
        }
        letBusHandOver();
        daemon->send(SIGSTOP);
        const std::jthread waker([&] {
            usleep(50000);
            daemon->send(SIGCONT);
        });
        for (DBusPendingCall* pending : calls) {
            ASSERT_EQ(replyTo(pending), DBUS_ERROR_UNKNOWN_METHOD);
        }
    }
}

TEST_F(MessageBus, ACallThatMemoryIsShortForIsTriedAgainLater) {
    bus = newObject(KName, "/test", {"Two"});
    static int refusals = 0;
    const auto refuse = [](DBusConnection*, DBusMessage* message, void*) {
        const bool isFirst = dbus_message_is_method_call(message, KName, "Two") && ++refusals == 1;
        return isFirst ? DBUS_HANDLER_RESULT_NEED_MEMORY : DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    };
    dbus_connection_add_filter(bus->connection.get(), refuse, nullptr, nullptr);
    DBusPendingCall* pending = send(newCall("/test", "Two"));
    EXPECT_TRUE(pumpUntil([&] { return refusals == 1; }));  // not tried again in the same run
    EXPECT_EQ(replyTo(pending), "true");
}

TEST_F(MessageBus, AReplyThatCannotBeSentIsAnErrorForTheClient) {
    bus = newObject(KName, "/test", {"Garbled", "Echo"});
    for (const OwnedMessage& refused : {newCall("/test", "Garbled"), newCall("/test", "Echo", {KMebibyte + "x"})}) {
        EXPECT_EQ(call(refused), DBUS_ERROR_FAILED);
        EXPECT_EQ(iReplyResult, 0);
        EXPECT_EQ(world::takeLog(), " WARN failed to send DBus method response\n");
    }
    EXPECT_TRUE(call(newCall("/test", "Echo", {KMebibyte})) == KMebibyte);
    for (const auto& [method, result] : {std::pair("Garbled", 0), std::pair("Echo", 1)}) {
        iReplyResult = -1;
        const OwnedMessage noReply = newCall("/test", method);
        dbus_message_set_no_reply(noReply.get(), TRUE);
        dbus_connection_send(client.connection(), noReply.get(), nullptr);
        EXPECT_TRUE(pumpUntil([&, expected = result] { return iReplyResult == expected; }));
    }
    EXPECT_EQ(call(newCall("/test", "Echo", {true})), "true");
    EXPECT_EQ(daemon->output().find("Rejected send message"), std::string::npos);  // a reply that nobody asked for
}

TEST_F(MessageBus, ACallThatAFreedObjectLeftGoesToTheNext) {
    bus = newObject(KName, "/test");
    DBusPendingCall* meanwhile = send(newCall("/test", "Two"));
    letBusHandOver();
    EXPECT_EQ(message_bus_request_name(bus, KName), 1);  // reads the call, which nobody handles yet
    message_bus_free(&bus);
    bus = newObject(KName, "/test", {"Two"});
    EXPECT_EQ(replyTo(meanwhile), "true");
}

TEST_F(MessageBus, AStepThatFailsTakesBackTheStepsBeforeIt) {
    for (int passes = 0; !bus && passes < 20; ++passes) {
        iPasses = passes;
        bus = message_bus_new(base, KName, "/test");
        iPasses = -1;
    }
    const world::LogReader log(KLog);
    EXPECT_EQ(log.count("failed to setup dbus connection"), 7U);
    EXPECT_EQ(log.count("failed to register dbus object path: /test (service com.corvane.orsm)"), 1U);
    message_bus_free(&bus);
    bus = newObject(KName, "/test", {"Two"});
    EXPECT_EQ(call(newCall("/test", "Two")), "true");
}

TEST_F(MessageBus, AReplyThatWaitsForTheBusDoesNotHoldUpTheEnd) {
    const auto replyAndEnd = [&] {
        bus = newObject(KName, "/test");
        OwnedMessage call = newCall("/test", "Echo");
        dbus_message_set_serial(call.get(), 1);
        daemon->send(SIGSTOP);
        const InsideGate inside;
        std::thread([] {
            closeGateForever();
            _exit(3);
        }).detach();
        answer(bus, "Echo", KMebibyte.c_str(), call.release());
    };
    EXPECT_EXIT(replyAndEnd(), testing::ExitedWithCode(3), "");
}
