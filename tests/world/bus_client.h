// A client of the world's D-Bus, on a connection of its own.
#pragma once

#include <dbus/dbus.h>
#include <gtest/gtest.h>

#include <functional>
#include <queue>
#include <string>
#include <variant>
#include <vector>

namespace world {

using BusArgument = std::variant<bool, std::string, int>;
using BusArguments = std::vector<BusArgument>;

class BusClient {
  public:
    BusClient() {
        connection_ = dbus_connection_open_private("unix:path=/var/run/dbus/system_bus_socket", nullptr);
        EXPECT_TRUE(connection_ && dbus_bus_register(connection_, nullptr));
        dbus_connection_set_exit_on_disconnect(connection_, false);
    }
    ~BusClient() {
        dbus_connection_close(connection_);
        dbus_connection_unref(connection_);
    }
    BusClient(BusClient&&) = delete;

    DBusConnection* connection() { return connection_; }

    /// A call to the daemon; an empty interface leaves the field out. The caller releases it.
    static DBusMessage* message(const std::string& path, const std::string& interface, const std::string& method,
                                const BusArguments& arguments) {
        DBusMessage* call = dbus_message_new_method_call(
            "com.corvane.orsm", path.c_str(), interface.empty() ? nullptr : interface.c_str(), method.c_str());
        for (const BusArgument& argument : arguments) {
            const auto append = [call](int type, auto value) {
                dbus_message_append_args(call, type, &value, DBUS_TYPE_INVALID);
            };
            if (const bool* flag = std::get_if<bool>(&argument)) append(DBUS_TYPE_BOOLEAN, dbus_bool_t{*flag});
            if (const int* number = std::get_if<int>(&argument)) append(DBUS_TYPE_INT32, *number);
            if (const auto* text = std::get_if<std::string>(&argument)) append(DBUS_TYPE_STRING, text->c_str());
        }
        return call;
    }

    /// What a reply says: the string itself, "true" or "false" for a boolean, the name of the error, or the signature
    /// of anything else.
    static std::string textOf(DBusMessage* reply) {
        if (!reply) return "no reply";
        if (dbus_message_get_type(reply) == DBUS_MESSAGE_TYPE_ERROR) return dbus_message_get_error_name(reply);
        const char* text = nullptr;
        if (dbus_message_get_args(reply, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID)) return text;
        dbus_bool_t flag = false;
        const bool isFlag = dbus_message_get_args(reply, nullptr, DBUS_TYPE_BOOLEAN, &flag, DBUS_TYPE_INVALID);
        return !isFlag ? dbus_message_get_signature(reply) : flag ? "true" : "false";
    }

    /// Calls a method and waits for what textOf makes of the reply.
    std::string call(const std::string& path, const std::string& interface, const std::string& method,
                     const BusArguments& arguments = {}) {
        DBusMessage* const request = message(path, interface, method, arguments);
        std::string text = DBUS_ERROR_DISCONNECTED;
        callMany(
            1, 1, [=](int) { return request; }, [&](DBusMessage* reply) { text = textOf(reply); });
        return text;
    }

    /// Makes `calls` calls, at most `outstanding` of them unanswered at a time: `make` gives each by its number, and
    /// `answered` gets its reply. False when the bus is lost.
    bool callMany(int calls, int outstanding, const std::function<DBusMessage*(int)>& make,
                  const std::function<void(DBusMessage*)>& answered) {
        std::queue<DBusPendingCall*> waiting;
        for (int sent = 0; sent < calls || !waiting.empty();) {
            for (; sent < calls && waiting.size() < static_cast<size_t>(outstanding); ++sent) {
                DBusMessage* const call = make(sent);
                const bool queued =
                    dbus_connection_send_with_reply(connection_, call, &waiting.emplace(), DBUS_TIMEOUT_USE_DEFAULT);
                dbus_message_unref(call);
                if (!queued || !waiting.back()) return false;
            }
            dbus_pending_call_block(waiting.front());
            DBusMessage* const reply = dbus_pending_call_steal_reply(waiting.front());
            answered(reply);
            dbus_message_unref(reply);
            dbus_pending_call_unref(waiting.front());
            waiting.pop();
        }
        return true;
    }

  private:
    DBusConnection* connection_;
};

}  // namespace world
