// Bus objects: creating them on the shared connection, requesting a well-known name, adding listeners, releasing.
#include "common/msg_bus/message_bus.h"

#include "common/log/log.h"
#include "common/msg_bus/message_bus_internal.h"

static constexpr char KLogCategory[] = "message_bus";
static constexpr char KLogModule[] = "common/msg_bus/message_bus";

OwnedConnection openSharedConnection(DBusBusType type) {
    BusError error;
    OwnedConnection connection(dbus_bus_get(type, &error.raw));
    if (!connection) LOG(WARN, "Failed to open connection to activating message bus: %s", error.raw.message);
    return connection;
}

// Each object adds this filter once; the entries are identical. libdbus ends the process after this message, so nothing
// is released here.
static DBusHandlerResult handle_disconnected(DBusConnection*, DBusMessage* message, void*) {
    if (!dbus_message_is_signal(message, DBUS_INTERFACE_LOCAL, "Disconnected")) {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    LOG(WARN, "got signal Disconnected, freeing message_bus");
    return DBUS_HANDLER_RESULT_HANDLED;
}

static void releaseListeners(listener** list) {
    while (OwnedRecord<listener> first{*list}) {
        *list = first->next;
    }
}

static void releaseEvents(dbus_event** list) {
    while (*list) {
        remove_dbus_event(list, (*list)->key);
    }
}

// Releases an object, also a half-built one: its fields say how far it came.
static void releaseBus(message_bus* raw) {
    OwnedRecord<message_bus> bus(raw);
    DBusConnection* connection = bus->connection.get();
    bus->name.reset();
    releaseListeners(&bus->signalListeners);
    releaseListeners(&bus->methodListeners);
    bus->dispatchEvent.reset();
    releaseEvents(&bus->watches);
    releaseEvents(&bus->timeouts);
    connection_shutdown(bus.get());
    cancel_method_calls(bus.get());
    // A filter that was never added makes libdbus end the process.
    if (bus->hasFilter) dbus_connection_remove_filter(connection, handle_disconnected, nullptr);
    if (bus->path && !dbus_connection_unregister_object_path(connection, bus->path.get())) {
        // Out of memory: the path still points to the record, so the record stays, without listeners.
        (void)bus.release();
    }
}

static OwnedRecord<message_bus> newBus(OwnedConnection connection, event_base* base, const char* name) {
    OwnedRecord<message_bus> bus = newRecord<message_bus>();
    if (!bus) return nullptr;
    bus->connection = std::move(connection);
    bus->base = base;
    bus->name = copyText(name);
    return bus->name ? std::move(bus) : nullptr;
}

// A malformed path is refused here: libdbus would end the process.
static bool registerPath(message_bus* bus, const char* path) {
    static constexpr DBusObjectPathVTable KFunctions = {nullptr, handle_message, nullptr, nullptr, nullptr, nullptr};
    if (!dbus_validate_path(path, nullptr)) return false;
    OwnedText copy = copyText(path);
    if (!copy) return false;
    if (!dbus_connection_try_register_object_path(bus->connection.get(), path, &KFunctions, bus, nullptr)) return false;
    bus->path = std::move(copy);
    return true;
}

message_bus* message_bus_new(event_base* base, const char* name, const char* path) {
    OwnedConnection connection = openSharedConnection(DBUS_BUS_SESSION);
    if (!connection) return nullptr;
    Owned<message_bus, releaseBus> bus(newBus(std::move(connection), base, name).release());
    if (!bus || !connection_setup(bus.get())) {  // also when memory is too short for the object
        LOG(WARN, "failed to setup dbus connection");
        return nullptr;
    }
    if (!dbus_connection_add_filter(bus->connection.get(), handle_disconnected, nullptr, nullptr)) {
        LOG(WARN, "failed to add filter to dbus connection");
        return nullptr;
    }
    bus->hasFilter = true;
    if (path && !registerPath(bus.get(), path)) {
        LOG(WARN, "failed to register dbus object path: %s (service %s)", path, name);
        return nullptr;
    }
    return bus.release();
}

void message_bus_free(message_bus** bus) {
    if (!bus || !*bus) return;
    releaseBus(*bus);
    *bus = nullptr;
}

int message_bus_request_name(message_bus* bus, const char* name) {
    BusError error;
    int answer = -1;
    if (dbus_validate_bus_name(name, &error.raw)) {
        answer = dbus_bus_request_name(bus->connection.get(), name, DBUS_NAME_FLAG_REPLACE_EXISTING, &error.raw);
    }
    if (dbus_error_is_set(&error.raw)) {
        LOG(WARN, "failed to request message bus name: %s. Error:\n %s", name, error.raw.message);
    }
    return answer != -1;
}

void message_bus_limit_descriptors(message_bus* bus) {
    dbus_connection_set_max_received_unix_fds(bus->connection.get(), 1);
}

static bool add_match_rule(message_bus* bus, const char* name) {
    const OwnedText rule = formatText("type='signal',interface='%s',member='%s'", bus->name.get(), name);
    if (!rule) {  // out of memory: log the text that libdbus logs
        LOG(WARN, "Failed to dbus_bus_add_match: %s", DBUS_ERROR_NO_MEMORY);
        return false;
    }
    LOG(DEBUG, "Adding listener for %s", rule.get());
    // libdbus aborts on a name that is not UTF-8; a quote in the name would change the rule.
    BusError error;
    if (dbus_validate_interface(bus->name.get(), &error.raw) && dbus_validate_member(name, &error.raw)) {
        dbus_bus_add_match(bus->connection.get(), rule.get(), &error.raw);
    }
    if (!dbus_error_is_set(&error.raw)) return true;
    LOG(WARN, "Failed to dbus_bus_add_match: %s", error.raw.message);
    return false;
}

static int addListener(message_bus* bus, listener** list, const char* name) {
    OwnedRecord<listener> added = newRecord<listener>();
    if (added) added->name = copyText(name);
    if (!added || !added->name) {
        LOG(WARN, "Failed to dbus_bus_add_match: %s", DBUS_ERROR_NO_MEMORY);
        return 0;
    }
    if (!add_match_rule(bus, name)) return 0;
    appendRecord(list, std::move(added));
    return 1;
}

int message_bus_add_method_listener(message_bus* bus, const char* name) {
    return addListener(bus, &bus->methodListeners, name);
}

int message_bus_add_signal_listener(message_bus* bus, const char* name) {
    return addListener(bus, &bus->signalListeners, name);
}

void message_bus_describe(message_bus* bus, const char* xml) { bus->description = xml; }

void message_bus_set_method_callback(message_bus* bus, message_bus_method_callback callback) {
    bus->methodCallback = callback;
}

void message_bus_set_signal_callback(message_bus* bus, message_bus_signal_callback callback) {
    bus->signalCallback = callback;
}

void message_bus_set_method_call_callback(message_bus* bus, message_bus_method_call_callback callback) {
    bus->methodCallCallback = callback;
}
