#include "src/services/bus_service.h"

#include <cstring>

#include "common/gate/gate.h"
#include "common/log/log.h"

static constexpr char KLogCategory[] = "orvoservicemanager";

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

bool offerService(const BusService& service, struct event_base* base) {
    const char* const KLogModule = service.sourcePath;
    LOG(INFO, "%s", service.enablingLine);
    message_bus*& bus = *service.object;
    bus = message_bus_new(base, service.interface, service.path);
    if (!bus) {
        LOG(ERROR, "%s", service.cannotCreateLine);
        return false;
    }
    message_bus_set_method_callback(bus, service.handler);
    message_bus_describe(bus, descriptionOf(service.interface));
    if (!setListeners(bus, service.methods)) {
        message_bus_free(&bus);
        LOG(ERROR, "Error setting listeners");
        return false;
    }
    LOG(INFO, "%s", service.createdLine);
    return true;
}

void withdrawService(const BusService& service) { message_bus_free(service.object); }

static const Method* findMethod(const BusService& service, const char* name) {
    for (const Method& method : service.methods) {
        if (strcmp(method.name, name) == 0) return &method;
    }
    return nullptr;
}

void dispatchMethodCall(const BusService& service, message_bus* bus, const char* name, const char* firstArgument,
                        DBusMessage* call) {
    const char* const KLogModule = service.sourcePath;
    if (iBeforeEachCall) iBeforeEachCall();
    const InsideGate inside;
    LOG(INFO, "Method call: %s.%s", name, firstArgument);
    const Method* method = findMethod(service, name);
    if (!method) {
        LOG(WARN, "Received unsupported method name: %s", name);
        return message_bus_send_no_reply(bus, call);
    }
    const Reply reply = method->answer({call, firstArgument});
    (void)(reply.isText ? message_bus_send_string_reply(bus, call, reply.text)
                        : message_bus_send_bool_reply(bus, call, reply.flag));
    for (const char* line : reply.linesAfter) {
        if (line) LOG(INFO, "%s", line);
    }
}
