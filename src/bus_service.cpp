#include "src/bus_service.h"

#include <cstring>

#include "common/gate/gate.h"
#include "common/log/log.h"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "src/bus_service";

static constexpr char KBusName[] = "com.corvane.orsm";

static bool setListeners(message_bus* bus, std::span<const Method> methods) {
    if (!message_bus_request_name(bus, KBusName)) return false;
    for (const Method& method : methods) {
        if (!message_bus_add_method_listener(bus, method.name)) return false;
    }
    return true;
}

message_bus* offerService(const BusService& service, struct event_base* base) {
    LOG(INFO, "%s", service.enablingLine);
    message_bus* bus = message_bus_new(base, service.interface, service.path);
    if (!bus) {
        LOG(ERROR, "%s", service.cannotCreateLine);
        return nullptr;
    }
    message_bus_set_method_callback(bus, service.handler);
    if (!setListeners(bus, service.methods)) {
        message_bus_free(&bus);
        LOG(ERROR, "Error setting listeners");
        return nullptr;
    }
    LOG(INFO, "%s", service.createdLine);
    return bus;
}

void dispatchMethodCall(std::span<const Method> methods, message_bus* bus, const char* method,
                        const char* firstArgument, DBusMessage* message) {
    const InsideGate inside;
    MethodCall call = {bus, firstArgument, std::unique_ptr<DBusMessage, ReleaseUnanswered>(message)};
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
