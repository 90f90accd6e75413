// What the tests of the bus objects stand on: a real bus, a client, and callbacks that answer as they are asked to.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/log/log.h"
#include "common/msg_bus/message_bus_internal.h"
#include "tests/world/world.h"

using Texts = std::vector<std::string>;

inline const char KName[] = "com.corvane.test";
inline const std::string& KText = *new std::string("n\xc3\xa4me \"1\"");
inline const std::string& KMebibyte = *new std::string(1024UL * 1024, 'x');

inline Texts& iSeen = *new Texts;  // what the objects' callbacks saw: the name, and the text or "-" for none
inline int iReplyResult = -1;

inline void note(message_bus*, const char* name, const char* text) {
    iSeen.push_back(std::string(name) + " " + (text ? text : "-"));
}

// Replies as the method's name says; otherwise with the first argument.
inline void answer(message_bus* bus, const char* name, const char* first, DBusMessage* call) {
    const std::map<std::string, std::string> replies = {
        {"Garbled", "not \xff UTF-8"},
        {"Longest", KMebibyte       },
        {"TooLong", KMebibyte + "x" }
    };
    note(bus, name, first);
    const auto found = replies.find(name);
    const std::string text = found == replies.end() ? textOrEmpty(first) : found->second;
    if (strcmp(name, "Silent") == 0) return message_bus_send_no_reply(bus, call);
    iReplyResult = strcmp(name, "Two") == 0 ? message_bus_send_bool_reply(bus, call, 2)
                                            : message_bus_send_string_reply(bus, call, text.c_str());
}

// The log's messages with their level since the last call, each behind a newline.
inline std::string newLog() {
    static size_t position = 0;
    const std::string all = world::readFile("/var/log/bus.log");
    std::string lines;
    for (size_t end; (end = all.find('\n', position)) != std::string::npos; position = end + 1) {
        if (end > position) lines += "\n" + all.substr(position + 24, end - position - 24);
    }
    return lines;
}

inline void logToFile(int level) {
    const LogLock lock;
    iLogSettings.level = level;
    iLogSettings.file = true;
    strcpy(iLogSettings.filename, "/var/log/bus.log");
}

template <class Value>
void append(DBusMessage* message, int type, Value value) {
    dbus_message_append_args(message, type, &value, DBUS_TYPE_INVALID);
}

// A method call with one argument for each letter: s a string, t true, f false, i a number.
inline OwnedMessage newCall(const char* path, const char* interface, const char* member, const char* arguments = "",
                            const char* destination = KName) {
    OwnedMessage call(dbus_message_new_method_call(destination, path, interface, member));
    for (const char* c = arguments; *c; ++c) {
        if (*c == 's') append(call.get(), DBUS_TYPE_STRING, KText.c_str());
        if (*c == 'i') append(call.get(), DBUS_TYPE_INT32, 7);
        if (*c == 't' || *c == 'f') append<dbus_bool_t>(call.get(), DBUS_TYPE_BOOLEAN, *c == 't');
    }
    return call;
}

// "TEXT" for a string, "true" or "false", "nothing", or "error NAME".
inline std::string describe(DBusMessage* message) {
    if (const char* error = dbus_message_get_error_name(message)) return std::string("error ") + error;
    DBusMessageIter arguments;
    if (!dbus_message_iter_init(message, &arguments)) return "nothing";
    DBusBasicValue value;
    dbus_message_iter_get_basic(&arguments, &value);
    if (dbus_message_iter_get_arg_type(&arguments) == DBUS_TYPE_STRING) return value.str;
    return value.bool_val == 1 ? "true" : "false";
}

// A real bus, the event base that serves the objects under test, and a client with a connection of its own.
struct MessageBus : testing::Test {
    std::unique_ptr<world::Process> daemon = world::startDbusDaemon();
    event_base* base = event_base_new();
    DBusConnection* client = nullptr;
    message_bus* bus = nullptr;
    Texts atClient;  // descriptions of all that came to the client

    MessageBus() {
        logToFile(LEVEL_WARN);
        EXPECT_EQ(message_bus_set_dbus_socket("unix:path=/var/run/dbus/system_bus_socket"), 0);
        client = dbus_bus_get_private(DBUS_BUS_SESSION, nullptr);
        dbus_connection_set_exit_on_disconnect(client, FALSE);
        dbus_connection_add_filter(client, receiveAtClient, this, nullptr);
    }

    ~MessageBus() override {
        message_bus_free(&bus);
        EXPECT_EQ(bus, nullptr);
        message_bus_free(&bus);
        event_base_free(base);
        dbus_connection_close(client);
        dbus_connection_unref(client);
    }

    // The client as the peer of outgoing calls; those of a method "Never" are not answered.
    static DBusHandlerResult receiveAtClient(DBusConnection* connection, DBusMessage* message, void* data) {
        static_cast<MessageBus*>(data)->atClient.push_back(describe(message));
        if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL) return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
        const std::string member = dbus_message_get_member(message);
        OwnedMessage reply(dbus_message_new_method_return(message));
        if (member == "Text") append(reply.get(), DBUS_TYPE_STRING, KText.c_str());
        if (member == "Flag") append<dbus_bool_t>(reply.get(), DBUS_TYPE_BOOLEAN, TRUE);
        if (member == "Fails") reply.reset(dbus_message_new_error(message, DBUS_ERROR_FAILED, "no"));
        if (member != "Never") dbus_connection_send(connection, reply.get(), nullptr);
        return DBUS_HANDLER_RESULT_HANDLED;
    }

    message_bus* newObject(const char* name, const char* path, const Texts& methods = {}) {
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
            dbus_connection_read_write(client, 0);
            while (dbus_connection_dispatch(client) == DBUS_DISPATCH_DATA_REMAINS) {
            }
            return condition();
        });
    }

    DBusPendingCall* send(const OwnedMessage& message) const {
        DBusPendingCall* pending = nullptr;
        dbus_connection_send_with_reply(client, message.get(), &pending, 60000);
        return pending;
    }

    std::string replyTo(DBusPendingCall* pending) {
        EXPECT_TRUE(pumpUntil([&] { return dbus_pending_call_get_completed(pending); }));
        const OwnedMessage reply(dbus_pending_call_steal_reply(pending));
        dbus_pending_call_unref(pending);
        return reply ? describe(reply.get()) : "no reply";
    }

    std::string call(const OwnedMessage& message) { return replyTo(send(message)); }

    // Waits until the bus has handed over all that the client sent.
    void letBusHandOver() const {
        const OwnedMessage message = newCall("/", DBUS_INTERFACE_DBUS, "GetId", "", DBUS_SERVICE_DBUS);
        const OwnedMessage reply(dbus_connection_send_with_reply_and_block(client, message.get(), 60000, nullptr));
        EXPECT_TRUE(reply);
    }

    // The bus stands still for a moment.
    void putBusToSleep() const {
        static pid_t sleeper;
        sleeper = daemon->pid();
        daemon->send(SIGSTOP);
        siginfo_t stopped;
        waitid(P_PID, static_cast<id_t>(sleeper), &stopped, WSTOPPED);
        signal(SIGALRM, [](int) { kill(sleeper, SIGCONT); });
        ualarm(50000, 0);
    }
};
