// What the tests of the bus objects stand on: a real bus, a client, and callbacks that answer as they are asked to.
#pragma once

#include "common/log/log.h"
#include "common/msg_bus/message_bus_internal.h"
#include "tests/world/bus_client.h"
#include "tests/world/test_log.h"

using Texts = std::vector<std::string>;

inline const char KName[] = "com.corvane.orsm";
inline const char KLog[] = "/var/log/test.log";
inline const std::string& KText = *new std::string("n\xc3\xa4me \"1\"");
inline const std::string& KMebibyte = *new std::string(1024UL * 1024, 'x');

inline Texts& iSeen = *new Texts;  // what the objects' callbacks saw: the name, and the text or "-" for none
inline int iReplyResult = -1;

inline void note(message_bus*, const char* name, const char* text) {
    iSeen.push_back(std::string(name) + " " + (text ? text : "-"));
}

// Replies with the first argument or else the method's name, if the name asks for nothing else.
inline void answer(message_bus* bus, const char* name, const char* first, DBusMessage* call) {
    note(bus, name, first);
    const char* text = strcmp(name, "Garbled") == 0 ? "not \xff UTF-8" : first ? first : name;
    iReplyResult = strcmp(name, "Two") == 0 ? message_bus_send_bool_reply(bus, call, 2)
                                            : message_bus_send_string_reply(bus, call, text);
}

inline OwnedMessage newCall(const char* path, const char* method, const world::BusArguments& arguments = {},
                            const char* interface = KName) {
    return OwnedMessage(world::BusClient::message(path, interface, method, arguments));
}

// A real bus, the event base that serves the objects under test, and a client with a connection of its own.
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
