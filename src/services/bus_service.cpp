#include "src/services/bus_service.h"

#include <cstring>

#include "common/gate/gate.h"
#include "common/log/log.h"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "src/bus_service";

static constexpr char KBusName[] = "com.corvane.orsm";

static void (*iBeforeEachCall)();

void beforeEachCall(void (*look)()) { iBeforeEachCall = look; }

static bool setListeners(message_bus* bus, std::span<const Method> methods) {
    if (!message_bus_request_name(bus, KBusName)) return false;
    for (const Method& method : methods) {
        if (!message_bus_add_method_listener(bus, method.name)) return false;
    }
    return true;
}

// Answers before libdbus does: its own answer for these paths would lack the interface.
static DBusHandlerResult answerIntrospection(DBusConnection* connection, DBusMessage* call, void* data) {
    const auto* service = static_cast<const BusService*>(data);
    if (!dbus_message_is_method_call(call, DBUS_INTERFACE_INTROSPECTABLE, "Introspect") ||
        !dbus_message_has_path(call, service->path)) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    if (dbus_message_get_no_reply(call)) return DBUS_HANDLER_RESULT_HANDLED;
    const UnansweredCall reply(dbus_message_new_method_return(call));
    const bool sent =
        reply && dbus_message_append_args(reply.get(), DBUS_TYPE_STRING, &service->description, DBUS_TYPE_INVALID) &&
        dbus_connection_send(connection, reply.get(), nullptr);
    return sent ? DBUS_HANDLER_RESULT_HANDLED : DBUS_HANDLER_RESULT_NEED_MEMORY;
}

static bool describe(const BusService& service) {
    DBusConnection* connection = dbus_bus_get(DBUS_BUS_SESSION, nullptr);  // the one that the object is on
    if (!connection) return false;
    // libdbus hands the service back as it was given, and reads nothing of it.
    const bool added =
        dbus_connection_add_filter(connection, answerIntrospection, const_cast<BusService*>(&service), nullptr);
    dbus_connection_unref(connection);
    return added;
}

message_bus* offerService(const BusService& service, struct event_base* base) {
    LOG(INFO, "%s", service.enablingLine);
    message_bus* bus = message_bus_new(base, service.interface, service.path);
    if (!bus) {
        LOG(ERROR, "%s", service.cannotCreateLine);
        return nullptr;
    }
    message_bus_set_method_callback(bus, service.handler);
    if (!setListeners(bus, service.methods) || !describe(service)) {
        message_bus_free(&bus);
        LOG(ERROR, "Error setting listeners");
        return nullptr;
    }
    LOG(INFO, "%s", service.createdLine);
    return bus;
}

void dispatchMethodCall(std::span<const Method> methods, message_bus* bus, const char* method,
                        const char* firstArgument, DBusMessage* message) {
    if (iBeforeEachCall) iBeforeEachCall();
    const InsideGate inside;
    MethodCall call = {bus, firstArgument, UnansweredCall(message)};
    LOG(INFO, "Method call: %s.%s", method, firstArgument);
    for (const Method& known : methods) {
        if (strcmp(known.name, method) == 0) return known.answer(call);
    }
    LOG(WARN, "Received unsupported method name: %s", method);
}

void replyText(MethodCall& call, const char* text) {
    (void)message_bus_send_string_reply(call.bus, call.message.release(), text);
}

void replyBool(MethodCall& call, bool value) {
    (void)message_bus_send_bool_reply(call.bus, call.message.release(), value);
}
