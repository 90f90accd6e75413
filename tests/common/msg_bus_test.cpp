// The bus objects on a real bus, with a client on a connection of its own and callbacks that answer as they are asked
// to.
#include <poll.h>
#include <sys/socket.h>

#include <thread>
#include <vector>

#include "common/msg_bus/message_bus_internal.h"
#include "tests/world/bus_client.h"
#include "tests/world/test_log.h"

using namespace std::string_literals;

using Texts = std::vector<std::string>;

static const char KName[] = "com.corvane.orsm";
static const std::string KTooLong(32UL * 1024 * 1024 - 4095, 'x');

static Texts iSeen;                // what the objects' callbacks saw: the name, and the text or "-" for none
static std::vector<int> iResults;  // of the replies

static void note(message_bus*, const char* name, const char* text) {
    iSeen.push_back(name + " "s + (text ? text : "-"));
}

// Replies with the first argument or else the method's name, if the name asks for nothing else.
static void answer(message_bus* bus, const char* name, const char* first, DBusMessage* call) {
    note(bus, name, first);
    if (name == "None"s) return message_bus_send_no_reply(bus, call);
    const char* text = name == "Long"s ? KTooLong.c_str() : first ? first : name;
    iResults.push_back(name == "Two"s ? message_bus_send_bool_reply(bus, call, 2)
                                      : message_bus_send_string_reply(bus, call, text));
}

static OwnedMessage newCall(const char* method, const world::BusArguments& arguments = {}) {
    return OwnedMessage(world::BusClient::message("/test", KName, method, arguments));
}

struct MessageBus : testing::Test {
    std::unique_ptr<world::Process> daemon = world::startDbusDaemon();
    world::BusClient client;
    world::LogReader log = world::startLog();
    event_base* base = event_base_new();
    message_bus* bus = nullptr;

    ~MessageBus() override {
        message_bus_free(&bus);
        EXPECT_EQ(log.count(" functions to NULL failed"), 0U);
        event_base_free(base);
    }
    void offer(const Texts& methods, const char* name = KName, const char* path = "/test") {
        (void)message_bus_set_dbus_socket("unix:path=/var/run/dbus/system_bus_socket");
        bus = message_bus_new(base, name, path);
        message_bus_set_method_callback(bus, answer);
        message_bus_set_method_call_callback(bus, note);
        message_bus_set_signal_callback(bus, note);
        EXPECT_EQ(message_bus_request_name(bus, KName), 1);
        for (const std::string& method : methods) {
            EXPECT_EQ(message_bus_add_method_listener(bus, method.c_str()), 1);
        }
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
};

TEST_F(MessageBus, SendsCallsAndSignalsAndReportsReplies) {
    const auto expectNotes = [&](const Texts& notes) {
        EXPECT_TRUE(pumpUntil([&] { return iSeen.size() >= notes.size(); }));
        EXPECT_EQ(iSeen, notes);
        iSeen.clear();
    };
    offer({"Echo", "Two", "None"});  // calls itself over the bus
    for (const char* method : {"Echo", "Two", "Unknown"}) {
        EXPECT_EQ(message_bus_call_method(bus, "/test", KName, method), 1);
    }
    expectNotes({"Echo -", "Two -", "Echo Echo", "Two -", "Unknown -"});  // no string, and no such method
    EXPECT_EQ(message_bus_add_signal_listener(bus, "Changed"), 1);
    EXPECT_EQ(message_bus_send_signal(bus, "/test", KName, "Other", "unheard"), 1);
    EXPECT_EQ(message_bus_send_signal(bus, "/test", KName, "Changed", "text"), 1);
    expectNotes({"Changed text"});
    DBusPendingCall* pending = nullptr;
    dbus_connection_send_with_reply(bus->connection.get(), newCall("None").get(), &pending, 50);
    EXPECT_EQ(replyTo(pending), DBUS_ERROR_NO_REPLY);
    expectNotes({"None -"});
    EXPECT_EQ(message_bus_call_method(bus, "/test", KName, "Echo"), 1);
    message_bus_free(&bus);  // the reply finds nobody
    offer({}, "com.corvane.nobody", nullptr);
    EXPECT_EQ(message_bus_call_method(bus, "/test", KName, "Last"), 1);
    expectNotes({"Last -"});
    EXPECT_EQ(message_bus_new(base, KName, "no path"), nullptr);
    log.next(" WARN failed to register dbus object path: no path");
}

TEST_F(MessageBus, AnswersEveryCallWhenTheBusReadsSlowly) {
    offer({});
    int socket = -1;
    dbus_connection_get_socket(bus->connection.get(), &socket);
    const int fewReplies = 1;
    setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &fewReplies, sizeof fewReplies);
    for (int burst = 0; burst < 6; ++burst) {
        std::vector<DBusPendingCall*> calls(100);
        for (DBusPendingCall*& pending : calls) {
            pending = send(newCall("Unknown"));
        }
        dbus_bus_name_has_owner(client.connection(), KName, nullptr);  // the bus has handed all over
        daemon->send(SIGSTOP);
        const std::jthread waker([&] {
            poll(nullptr, 0, 50);  // the replies are being written meanwhile
            daemon->send(SIGCONT);
        });
        for (DBusPendingCall* pending : calls) {
            ASSERT_EQ(replyTo(pending), DBUS_ERROR_UNKNOWN_METHOD);
        }
    }
}

TEST_F(MessageBus, ClientGetsAnErrorWhenAReplyCannotBeSent) {
    offer({"Long", "Echo"});
    EXPECT_EQ(replyTo(send(newCall("Long"))), DBUS_ERROR_FAILED);
    const std::string large = KTooLong.substr(0, 2'000'000);
    EXPECT_TRUE(replyTo(send(newCall("Echo", {large}))) == large);
    for (const char* method : {"Long", "Echo"}) {
        const OwnedMessage noReply = newCall(method);
        dbus_message_set_no_reply(noReply.get(), TRUE);
        dbus_connection_send(client.connection(), noReply.get(), nullptr);
    }
    EXPECT_EQ(replyTo(send(newCall("Echo"))), "Echo");
    EXPECT_EQ(iResults, (std::vector<int>{0, 1, 0, 1, 1}));
    EXPECT_EQ(daemon->output().find("Rejected send message"), std::string::npos);  // a reply that nobody asked for
}
