// The bus objects on a real bus, with a client on a connection of its own and callbacks that answer as they are asked
// to.
#include <sys/socket.h>

#include <thread>

#include "common/log/log.h"
#include "common/msg_bus/message_bus_internal.h"
#include "tests/world/bus_client.h"
#include "tests/world/test_log.h"

using namespace std::string_literals;
using world::takeLog;

using Texts = std::vector<std::string>;

static const char KName[] = "com.corvane.orsm";
static const std::string KText = "n\xc3\xa4me \"1\"", KTooLong(32UL * 1024 * 1024 - 4095, 'x');

static Texts iSeen;  // what the objects' callbacks saw: the name, and the text or "-" for none
static int iReplyResult = -1;

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

static void note(message_bus*, const char* name, const char* text) {
    iSeen.push_back(name + " "s + (text ? text : "-"));
}

// Replies with the first argument or else the method's name, if the name asks for nothing else.
static void answer(message_bus* bus, const char* name, const char* first, DBusMessage* call) {
    note(bus, name, first);
    const char* text = name == "Garbled"s ? "not \xff UTF-8"
                       : name == "Long"s  ? KTooLong.c_str()
                       : first            ? first
                                          : name;
    iReplyResult =
        name == "Two"s ? message_bus_send_bool_reply(bus, call, 2) : message_bus_send_string_reply(bus, call, text);
}

static OwnedMessage newCall(const char* method, const world::BusArguments& arguments = {},
                            const char* interface = KName, const char* path = "/test") {
    return OwnedMessage(world::BusClient::message(path, interface, method, arguments));
}

struct MessageBus : testing::Test {
    std::unique_ptr<world::Process> daemon = world::startDbusDaemon();
    world::BusClient client;
    event_base* base = event_base_new();
    message_bus* bus = nullptr;

    MessageBus() {
        world::startLog();
        iLogSettings.level = LEVEL_WARN;
        EXPECT_EQ(message_bus_set_dbus_socket("unix:path=/var/run/dbus/system_bus_socket"), 0);
    }
    ~MessageBus() override {
        message_bus_free(&bus);
        event_base_free(base);
    }
    message_bus* newObject(const Texts& methods = {}, const char* name = KName, const char* path = "/test") const {
        message_bus* made = message_bus_new(base, name, path);
        message_bus_set_method_callback(made, answer);
        message_bus_set_method_call_callback(made, note);
        EXPECT_EQ(message_bus_request_name(made, KName), 1);
        for (const std::string& method : methods) {
            EXPECT_EQ(message_bus_add_method_listener(made, method.c_str()), 1);
        }
        return made;
    }
    [[nodiscard]] bool pumpUntil(const std::function<bool()>& condition) {
        return world::waitFor([&] {
            event_base_loop(base, EVLOOP_NONBLOCK);
            dbus_connection_read_write(client.connection(), 0);
            while (dbus_connection_dispatch(client.connection()) == DBUS_DISPATCH_DATA_REMAINS) {
            }
            return condition();
        });
    }
    DBusPendingCall* send(const OwnedMessage& message) {
        DBusPendingCall* pending = nullptr;
        dbus_connection_send_with_reply(client.connection(), message.get(), &pending, 60000);
        return pending;
    }
    std::string replyTo(DBusPendingCall* pending) {
        EXPECT_TRUE(pumpUntil([&] { return dbus_pending_call_get_completed(pending); }));
        const OwnedMessage reply(dbus_pending_call_steal_reply(pending));
        dbus_pending_call_unref(pending);
        return world::BusClient::textOf(reply.get());
    }
    std::string call(const OwnedMessage& message) { return replyTo(send(message)); }
    // Waits until the bus has handed over all that the client sent.
    void letBusHandOver() { EXPECT_TRUE(dbus_bus_name_has_owner(client.connection(), KName, nullptr)); }
};

TEST_F(MessageBus, HandsFirstArgumentsToTheHandlerAndRepliesToTheClient) {
    bus = newObject({"Echo", "Two"});
    iLogSettings.level = LEVEL_DEBUG;
    struct Case {
        const char *interface, *method;
        world::BusArguments arguments;
        std::string seen, reply, log;
    };
    for (const Case& c : {
             Case{KName, "Echo", {true},     "Echo true",     "true",  ""                                             },
             Case{KName, "Echo", {false},    "Echo false",    "false", ""                                             },
             Case{KName, "Echo", {KText, 7}, "Echo " + KText, KText,   ""                                             },
             Case{KName, "Echo", {7},        "Echo -",        "Echo",  " WARN unsupported type in dbus message: 105\n"},
             Case{"",    "Two",  {},         "Two -",         "true",  "DEBUG cannot get dbus message contents\n"     },
    }) {
        EXPECT_EQ(call(newCall(c.method, c.arguments, c.interface)), c.reply);
        EXPECT_EQ(iSeen.back(), c.seen);
        EXPECT_EQ(iReplyResult, 1);
        EXPECT_EQ(takeLog(), c.log);
    }
}

TEST_F(MessageBus, LeavesCallsThatNobodyListensForToTheLibrary) {
    bus = newObject({"Echo"});
    message_bus* other = newObject({"Echo"}, "com.corvane.other", "/other");
    EXPECT_EQ(call(newCall("Echo")), "Echo");
    EXPECT_EQ(call(newCall("Echo", {}, "com.corvane.other", "/other")), "Echo");
    message_bus_set_method_callback(bus, nullptr);
    EXPECT_EQ(call(newCall("Echo", {}, KName, "/other")), DBUS_ERROR_UNKNOWN_METHOD);
    EXPECT_EQ(call(newCall("Echo")), DBUS_ERROR_UNKNOWN_METHOD);  // nobody to hand it to
    EXPECT_EQ(iSeen.size(), 2U);
    message_bus_free(&other);
}

TEST_F(MessageBus, ReportsTheEndOfOutgoingCalls) {
    const auto expectNotes = [&](const char* method, const Texts& notes) {
        iSeen.clear();
        EXPECT_EQ(message_bus_call_method(bus, "/test", KName, method), 1);
        EXPECT_TRUE(pumpUntil([&] { return iSeen.size() == notes.size(); }));
        EXPECT_EQ(iSeen, notes);
    };
    bus = newObject({"Echo", "Two"});  // calls itself over the bus
    expectNotes("Echo", {"Echo -", "Echo Echo"});
    expectNotes("Two", {"Two -", "Two -"});  // no string
    expectNotes("Unknown", {"Unknown -"});
    EXPECT_EQ(message_bus_call_method(bus, "/test", KName, "Echo"), 1);
    message_bus_free(&bus);  // the reply finds nobody
    bus = newObject({}, "com.corvane.nobody", nullptr);
    expectNotes("Last", {"Last -"});
}

TEST_F(MessageBus, HearsTheSignalsOfItsNameOnly) {
    bus = newObject();
    message_bus_set_signal_callback(bus, note);
    EXPECT_EQ(message_bus_add_signal_listener(bus, "Changed"), 1);
    EXPECT_EQ(message_bus_send_signal(bus, "/test", KName, "Other", "unheard"), 1);
    EXPECT_EQ(message_bus_send_signal(bus, "/test", KName, "Changed", KText.c_str()), 1);
    EXPECT_TRUE(pumpUntil([&] { return !iSeen.empty(); }));
    EXPECT_EQ(iSeen, Texts{"Changed " + KText});
}

// Each would make libdbus end the process.
TEST_F(MessageBus, RefusesWhatIsMalformed) {
    bus = newObject();
    for (const char* name : {"no'name", "\xff"}) {
        EXPECT_EQ(message_bus_add_signal_listener(bus, name), 0);
        EXPECT_EQ(takeLog().find(" WARN Failed to dbus_bus_add_match: Member name was not valid"), 0U);
        EXPECT_EQ(message_bus_call_method(bus, "/test", KName, name), 0);
        EXPECT_EQ(message_bus_send_signal(bus, "/test", KName, name, ""), 0);
        EXPECT_EQ(takeLog(), " WARN failed to create\n WARN failed to create message signal\n");
    }
    for (const std::string path : {"/test", "no path", "", "/\xff"}) {
        EXPECT_EQ(message_bus_new(base, "com.other", path.c_str()), nullptr);
        EXPECT_EQ(takeLog(), " WARN failed to register dbus object path: " + path + " (service com.other)\n");
    }
    const world::LogReader log("/var/log/test.log");  // whose lines go over two
    EXPECT_EQ(message_bus_send_signal(bus, "/test", KName, "M", "\xff"), 0);
    EXPECT_EQ(log.count(" WARN Cannot append arg to signal - Out Of Memory!"), 1U);
    for (const std::string name : {"org.freedesktop.DBus", "no name", "\xff"}) {
        EXPECT_EQ(message_bus_request_name(bus, name.c_str()), 0);
        EXPECT_EQ(log.count(" WARN failed to request message bus name: " + name + ". Error:"), 1U);
    }
}

TEST_F(MessageBus, AnswersEveryCallOfABurstAlsoWhenTheBusIsSlowToRead) {
    bus = newObject();
    int socket = -1;
    dbus_connection_get_socket(bus->connection.get(), &socket);
    const int fewReplies = 1;
    setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &fewReplies, sizeof fewReplies);
    for (int burst = 0; burst < 6; ++burst) {
        std::vector<DBusPendingCall*> calls(100);
        for (DBusPendingCall*& pending : calls) {
            pending = send(newCall("Unknown"));
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
    bus = newObject({"Two"});
    static int refusals = 0;
    const auto refuse = [](DBusConnection*, DBusMessage* message, void*) {
        const bool isFirst = dbus_message_is_method_call(message, KName, "Two") && ++refusals == 1;
        return isFirst ? DBUS_HANDLER_RESULT_NEED_MEMORY : DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    };
    dbus_connection_add_filter(bus->connection.get(), refuse, nullptr, nullptr);
    DBusPendingCall* pending = send(newCall("Two"));
    EXPECT_TRUE(pumpUntil([&] { return refusals == 1; }));  // not tried again in the same run
    EXPECT_EQ(replyTo(pending), "true");
}

TEST_F(MessageBus, AReplyThatCannotBeSentIsAnErrorForTheClient) {
    bus = newObject({"Garbled", "Long", "Echo"});
    for (const char* refused : {"Garbled", "Long"}) {
        EXPECT_EQ(call(newCall(refused)), DBUS_ERROR_FAILED);
        EXPECT_EQ(iReplyResult, 0);
        EXPECT_EQ(takeLog(), " WARN failed to send DBus method response\n");
    }
    const std::string large = KTooLong.substr(0, 2'000'000);
    EXPECT_TRUE(call(newCall("Echo", {large})) == large);
    for (const auto& [method, result] : {std::pair("Garbled", 0), std::pair("Echo", 1)}) {
        iReplyResult = -1;
        const OwnedMessage noReply = newCall(method);
        dbus_message_set_no_reply(noReply.get(), TRUE);
        dbus_connection_send(client.connection(), noReply.get(), nullptr);
        EXPECT_TRUE(pumpUntil([&, expected = result] { return iReplyResult == expected; }));
    }
    EXPECT_EQ(call(newCall("Echo", {true})), "true");
    EXPECT_EQ(daemon->output().find("Rejected send message"), std::string::npos);  // a reply that nobody asked for
}

TEST_F(MessageBus, ACallThatAFreedObjectLeftGoesToTheNext) {
    bus = newObject();
    DBusPendingCall* meanwhile = send(newCall("Two"));
    letBusHandOver();
    EXPECT_EQ(message_bus_request_name(bus, KName), 1);  // reads the call, which nobody handles yet
    message_bus_free(&bus);
    bus = newObject({"Two"});
    EXPECT_EQ(replyTo(meanwhile), "true");
}

TEST_F(MessageBus, AStepThatFailsTakesBackTheStepsBeforeIt) {
    for (int passes = 0; !bus; ++passes) {
        iPasses = passes;
        bus = message_bus_new(base, KName, "/test");
        iPasses = -1;
    }
    std::string log;
    for (int step = 0; step < 7; ++step) {
        log += " WARN failed to setup dbus connection\n";
    }
    EXPECT_EQ(takeLog(), log + " WARN failed to register dbus object path: /test (service com.corvane.orsm)\n");
    message_bus_free(&bus);
    bus = newObject({"Two"});
    EXPECT_EQ(call(newCall("Two")), "true");
}
