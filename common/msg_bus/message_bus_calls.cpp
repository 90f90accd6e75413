// What goes over the bus: incoming calls and signals with their arguments and replies, outgoing calls and signals.
#include <cstring>

#include "common/gate/gate.h"
#include "common/log/log.h"
#include "common/msg_bus/message_bus.h"
#include "common/msg_bus/message_bus_internal.h"

static constexpr char KLogCategory[] = "message_bus";
static constexpr char KLogModule[] = "common/msg_bus/message_bus";

// The bus drops a client that sends a message of more than 32 MiB, so a longer text is refused as a reply. 4 KiB are
// left for the header.
static constexpr size_t KLongestText = 32UL * 1024 * 1024 - 4096;

// Texts from servers and from the data model may hold any byte, and libdbus aborts on a text that is not UTF-8.
static bool isSendable(const char* text) {
    return text && strnlen(text, KLongestText + 1) <= KLongestText && dbus_validate_utf8(text, nullptr);
}

// --- Incoming ---

static const char* get_dbus_message_contents(DBusMessage* message) {
    DBusMessageIter arguments;
    if (!dbus_message_iter_init(message, &arguments)) {
        LOG(DEBUG, "cannot get dbus message contents");
        return nullptr;
    }
    const int type = dbus_message_iter_get_arg_type(&arguments);
    if (type == DBUS_TYPE_BOOLEAN) {
        dbus_bool_t value = FALSE;
        dbus_message_iter_get_basic(&arguments, &value);
        return value ? "true" : "false";
    }
    if (type == DBUS_TYPE_STRING) {
        const char* value = nullptr;
        dbus_message_iter_get_basic(&arguments, &value);
        return value;
    }
    LOG(WARN, "unsupported type in dbus message: %d", type);
    return nullptr;
}

// The first listener whose name is the member of a message of this kind for the object; the interface may be missing.
static const listener* findListener(const listener* list, const message_bus* bus, DBusMessage* message,
                                    dbus_bool_t (*matches)(DBusMessage*, const char*, const char*)) {
    while (list && !matches(message, bus->name.get(), list->name.get())) {
        list = list->next;
    }
    return list;
}

static OwnedMessage newReply(DBusMessage* call, int type, const void* value) {
    OwnedMessage reply(dbus_message_new_method_return(call));
    if (!reply || !dbus_message_append_args(reply.get(), type, value, DBUS_TYPE_INVALID)) return nullptr;
    return reply;
}

static DBusHandlerResult answerIntrospection(message_bus* bus, DBusMessage* call) {
    if (dbus_message_get_no_reply(call)) return DBUS_HANDLER_RESULT_HANDLED;
    const OwnedMessage reply(newReply(call, DBUS_TYPE_STRING, &bus->description));
    const bool sent = reply && dbus_connection_send(bus->connection.get(), reply.get(), nullptr);
    return sent ? DBUS_HANDLER_RESULT_HANDLED : DBUS_HANDLER_RESULT_NEED_MEMORY;
}

DBusHandlerResult handle_message(DBusConnection*, DBusMessage* message, void* data) {
    auto* bus = static_cast<message_bus*>(data);
    if (bus->description && dbus_message_is_method_call(message, DBUS_INTERFACE_INTROSPECTABLE, "Introspect")) {
        return answerIntrospection(bus, message);
    }
    if (const listener* found = findListener(bus->signalListeners, bus, message, dbus_message_is_signal)) {
        if (!bus->signalCallback) return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
        bus->signalCallback(bus, found->name.get(), get_dbus_message_contents(message));
        return DBUS_HANDLER_RESULT_HANDLED;
    }
    if (const listener* found = findListener(bus->methodListeners, bus, message, dbus_message_is_method_call)) {
        if (!bus->methodCallback) return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
        DBusMessage* call = dbus_message_ref(message);  // the reply operation drops it
        bus->methodCallback(bus, found->name.get(), get_dbus_message_contents(message), call);
        return DBUS_HANDLER_RESULT_HANDLED;
    }
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
}

namespace {

// What is logged for an argument that is not there, of another type, or null.
struct Argument {
    int type;
    const char *missing, *wrong, *null;
};

}  // namespace

static constexpr Argument KFirstBoolean = {DBUS_TYPE_BOOLEAN, nullptr, "Wrong argument 1 type, required: boolean",
                                           nullptr};
static constexpr Argument KFirstString = {DBUS_TYPE_STRING, nullptr, "Wrong argument 1 type, required: string",
                                          "Null argument 1"};
static constexpr Argument KSecondString = {DBUS_TYPE_STRING, "No argument 2", "Wrong argument 2 type, required: string",
                                           "Null argument 2"};

static bool readArgument(DBusMessage* message, const Argument& argument, void* value) {
    DBusMessageIter arguments;
    if (!message || !dbus_message_iter_init(message, &arguments)) {
        LOG(WARN, "No arguments");
        return false;
    }
    // When there are arguments, only one after the first can be missing.
    if (argument.missing && !dbus_message_iter_next(&arguments)) {
        LOG(WARN, "%s", argument.missing);
        return false;
    }
    if (dbus_message_iter_get_arg_type(&arguments) != argument.type) {
        LOG(WARN, "%s", argument.wrong);
        return false;
    }
    dbus_message_iter_get_basic(&arguments, value);
    return true;
}

static const char* readString(DBusMessage* message, const Argument& argument) {
    const char* text = nullptr;
    if (!readArgument(message, argument, &text)) return nullptr;
    if (!text) LOG(WARN, "%s", argument.null);
    return text;
}

int get_first_argument_bool_value(DBusMessage* message, int* value) {
    dbus_bool_t read = FALSE;
    if (!readArgument(message, KFirstBoolean, &read)) return 0;
    *value = read ? 1 : 0;
    return 1;
}

const char* get_first_argument_string_value(DBusMessage* message) { return readString(message, KFirstString); }

const char* get_second_argument_string_value(DBusMessage* message) { return readString(message, KSecondString); }

// --- Replies ---

// The bus may read slowly; that must not delay the end of the process.
static void flush(message_bus* bus) {
    const OutsideGate outside;
    dbus_connection_flush(bus->connection.get());
}

static bool sendMessage(message_bus* bus, const OwnedMessage& message) {
    if (!message || !dbus_connection_send(bus->connection.get(), message.get(), nullptr)) return false;
    flush(bus);
    return true;
}

// Tells a client that its reply cannot be sent; it would wait for its time-out otherwise.
static OwnedMessage newError(DBusMessage* call) {
    return OwnedMessage(dbus_message_new_error(call, DBUS_ERROR_FAILED, "The reply could not be sent"));
}

// Always releases the call. `value` is null when it cannot be sent over the bus. A client that wants no reply gets
// none: the bus would refuse it and log that.
static int sendReply(message_bus* bus, DBusMessage* raw, int type, const void* value) {
    const OwnedMessage call(raw);
    const bool wanted = call && !dbus_message_get_no_reply(call.get());
    if (call && value && (!wanted || sendMessage(bus, newReply(call.get(), type, value)))) return 1;
    LOG(WARN, "failed to send DBus method response");
    if (wanted) (void)sendMessage(bus, newError(call.get()));
    return 0;
}

int message_bus_send_string_reply(message_bus* bus, DBusMessage* call, const char* text) {
    return sendReply(bus, call, DBUS_TYPE_STRING, isSendable(text) ? &text : nullptr);
}

int message_bus_send_bool_reply(message_bus* bus, DBusMessage* call, int value) {
    const dbus_bool_t answer = value ? TRUE : FALSE;
    return sendReply(bus, call, DBUS_TYPE_BOOLEAN, &answer);
}

void message_bus_send_no_reply(message_bus*, DBusMessage* call) { const OwnedMessage released(call); }

// --- Outgoing ---

using OwnedPendingCall = Owned<DBusPendingCall, dbus_pending_call_unref>;

// What an outgoing call carries along until its reply; released with the pending call.
struct method_reply_context {
    message_bus* bus;
    OwnedText method;
    DBusPendingCall* call;  // the reference from sending, dropped when the reply came or the call is given up
    method_reply_context* next;
};

// The calls of all objects that wait for a reply, so that an object can cancel its own when it is freed.
static method_reply_context* iWaitingCalls = nullptr;

static void releaseContext(void* data) {
    const OwnedRecord<method_reply_context> context(static_cast<method_reply_context*>(data));
    method_reply_context** link = &iWaitingCalls;
    while (*link && *link != context.get()) {
        link = &(*link)->next;
    }
    if (*link) *link = context->next;
}

void cancel_method_calls(const message_bus* bus) {
    for (method_reply_context** link = &iWaitingCalls; *link;) {
        const method_reply_context* context = *link;
        if (context->bus != bus) {
            link = &(*link)->next;
            continue;
        }
        *link = context->next;
        const OwnedPendingCall call(context->call);  // also releases the context
        dbus_pending_call_cancel(call.get());
    }
}

static void reportReply(const method_reply_context* context, const char* text) {
    message_bus* bus = context->bus;
    if (bus->methodCallCallback) bus->methodCallCallback(bus, context->method.get(), text);
}

// Holds a reference on the starter bus during the callback. libdbus keeps that connection open afterwards. Nobody reads
// it; a lost bus is noticed on the connection that is served, and ends the process there.
static void handle_method_reply(DBusPendingCall* pending, void* data) {
    const auto* context = static_cast<const method_reply_context*>(data);
    const OwnedConnection starter = openSharedConnection(DBUS_BUS_STARTER);
    const OwnedPendingCall call(pending);
    if (!starter) return reportReply(context, nullptr);
    const OwnedMessage reply(dbus_pending_call_steal_reply(pending));
    BusError error;
    const char* text = nullptr;
    switch (reply ? dbus_message_get_type(reply.get()) : DBUS_MESSAGE_TYPE_INVALID) {
        case DBUS_MESSAGE_TYPE_METHOD_RETURN:
            dbus_message_get_args(reply.get(), &error.raw, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
            return reportReply(context, text);
        case DBUS_MESSAGE_TYPE_ERROR:
            dbus_set_error_from_message(&error.raw, reply.get());
            return reportReply(context, nullptr);
        default: LOG(WARN, "Unexpected message received");
    }
}

static OwnedMessage newMethodCall(const char* destination, const char* path, const char* interface,
                                  const char* method) {
    if (!dbus_validate_bus_name(destination, nullptr) || !dbus_validate_path(path, nullptr) ||
        (interface && !dbus_validate_interface(interface, nullptr)) || !dbus_validate_member(method, nullptr)) {
        return nullptr;
    }
    return OwnedMessage(dbus_message_new_method_call(destination, path, interface, method));
}

static OwnedPendingCall sendCall(message_bus* bus, DBusMessage* message) {
    DBusPendingCall* call = nullptr;
    if (!dbus_connection_send_with_reply(bus->connection.get(), message, &call, DBUS_TIMEOUT_USE_DEFAULT))
        return nullptr;
    return OwnedPendingCall(call);  // null as well when the connection is lost
}

// From here on the call waits for its reply and owns the reference. On failure the caller still owns it.
static bool awaitReply(message_bus* bus, const char* method, DBusPendingCall* call) {
    OwnedRecord<method_reply_context> context = newRecord<method_reply_context>();
    if (!context) return false;
    context->bus = bus;
    context->call = call;
    context->method = copyText(method);
    if (!context->method) return false;
    if (!dbus_pending_call_set_notify(call, handle_method_reply, context.get(), releaseContext)) return false;
    appendRecord(&iWaitingCalls, std::move(context));
    return true;
}

int message_bus_call_method(message_bus* bus, const char* path, const char* interface, const char* method) {
    const OwnedMessage message = newMethodCall(bus->name.get(), path, interface, method);
    if (!message) {
        LOG(WARN, "failed to create");
        return 0;
    }
    OwnedPendingCall call = sendCall(bus, message.get());
    if (!call) {
        LOG(WARN, "failed to call dbus method");
        return 0;
    }
    if (!awaitReply(bus, method, call.get())) {
        LOG(WARN, "failed to set dbus method call notify function");
        dbus_pending_call_cancel(call.get());
        return 0;
    }
    (void)call.release();
    return 1;
}

static OwnedMessage newSignal(const char* path, const char* interface, const char* name) {
    if (!dbus_validate_path(path, nullptr) || !dbus_validate_interface(interface, nullptr) ||
        !dbus_validate_member(name, nullptr)) {
        return nullptr;
    }
    return OwnedMessage(dbus_message_new_signal(path, interface, name));
}

int message_bus_send_signal(message_bus* bus, const char* path, const char* interface, const char* name,
                            const char* text) {
    const OwnedMessage signal = newSignal(path, interface, name);
    if (!signal) {
        LOG(WARN, "failed to create message signal");
        return 0;
    }
    if (!isSendable(text) || !dbus_message_append_args(signal.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID)) {
        LOG(WARN, "Cannot append arg to signal - Out Of Memory!\n");
        return 0;
    }
    if (!dbus_connection_send(bus->connection.get(), signal.get(), nullptr)) {
        LOG(WARN, "failed to send dbus signal");
        return 0;
    }
    return 1;
}
