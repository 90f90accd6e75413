// Drives the D-Bus connection from the event base: every watch and timeout of the connection becomes an event, and
// messages are dispatched from an event of their own, armed whenever there may be some.
#include <cstdlib>

#include "common/log/log.h"
#include "common/msg_bus/message_bus_internal.h"
#include "common/timer/timer.h"

static constexpr char KLogCategory[] = "message_bus";
static constexpr char KLogModule[] = "common/msg_bus/message_bus";

static void schedule_dispatch(message_bus* bus) {
    event* dispatch = bus->dispatchEvent.get();
    // When this fails (out of memory), the next activity on the connection arms it.
    if (!event_pending(dispatch, EV_TIMEOUT, nullptr)) (void)armTimer(dispatch, 0, 0);
}

static void dispatch_status_changed(DBusConnection*, DBusDispatchStatus status, void* data) {
    if (status == DBUS_DISPATCH_DATA_REMAINS) schedule_dispatch(static_cast<message_bus*>(data));
}

// Null once the connection is lost: libdbus ends the process when its own last message is looked at.
static DBusMessage* firstMessage(DBusConnection* connection) {
    if (!dbus_connection_get_is_connected(connection)) return nullptr;
    DBusMessage* first = dbus_connection_borrow_message(connection);
    if (first) dbus_connection_return_message(connection, first);
    return first;
}

// Dispatches the first message and says what is left. When libdbus is out of memory for it, libdbus puts it back and
// reports that data remains. The caller would then try it again at once, forever.
static DBusDispatchStatus dispatchFirst(DBusConnection* connection) {
    DBusMessage* message = firstMessage(connection);
    const OwnedMessage held(message ? dbus_message_ref(message) : nullptr);  // no other message gets its address
    const DBusDispatchStatus left = dbus_connection_dispatch(connection);
    const bool putBack = left == DBUS_DISPATCH_DATA_REMAINS && held && firstMessage(connection) == held.get();
    return putBack ? DBUS_DISPATCH_NEED_MEMORY : left;
}

static void handle_dispatch(evutil_socket_t, short, void* data) {
    const auto* bus = static_cast<message_bus*>(data);
    DBusConnection* connection = bus->connection.get();
    DBusDispatchStatus left = dbus_connection_get_dispatch_status(connection);
    while (left == DBUS_DISPATCH_DATA_REMAINS) {
        left = dispatchFirst(connection);
    }
    // A write event fires once each time libdbus switches it on. Without this flush, what the socket did not take then
    // would stay in the queue until the next message is sent.
    if (dbus_connection_has_messages_to_send(connection)) dbus_connection_flush(connection);
    // The message is already read from the socket, and nothing reports free memory: try again after a second.
    if (left == DBUS_DISPATCH_NEED_MEMORY ||
        dbus_connection_get_dispatch_status(connection) == DBUS_DISPATCH_NEED_MEMORY) {
        (void)armTimer(bus->dispatchEvent.get(), 1, 0);
    }
}

void dbus_event_free(dbus_event* entry) { const OwnedRecord<dbus_event> released(entry); }

// The link that leads to the entry with this key, or the empty link at the list's end.
static dbus_event** findLink(dbus_event** list, const void* key) {
    while (*list && (*list)->key != key) {
        list = &(*list)->next;
    }
    return list;
}

void remove_dbus_event(dbus_event** list, const void* key) {
    dbus_event** link = findLink(list, key);
    dbus_event* entry = *link;
    if (!entry) return;
    *link = entry->next;
    dbus_event_free(entry);
}

static dbus_bool_t keepEvent(dbus_event** list, OwnedEvent event, void* key) {
    OwnedRecord<dbus_event> entry = newRecord<dbus_event>();
    if (!entry) return FALSE;
    entry->event = std::move(event);
    entry->key = key;
    appendRecord(list, std::move(entry));
    return TRUE;
}

static void handle_watch(evutil_socket_t, short what, void* data) {
    auto* watch = static_cast<DBusWatch*>(data);
    auto* bus = static_cast<message_bus*>(dbus_watch_get_data(watch));
    unsigned int flags = 0;
    if (what & EV_READ) flags |= DBUS_WATCH_READABLE;
    if (what & EV_WRITE) flags |= DBUS_WATCH_WRITABLE;
    (void)dbus_watch_handle(watch, flags);
    schedule_dispatch(bus);
}

static short eventFlagsOf(DBusWatch* watch) {
    const unsigned int flags = dbus_watch_get_flags(watch);
    const bool readable = flags & DBUS_WATCH_READABLE;
    const bool writable = flags & DBUS_WATCH_WRITABLE;
    if (readable && writable) return EV_READ | EV_WRITE | EV_PERSIST;
    if (readable) return EV_READ | EV_PERSIST;
    return writable ? EV_WRITE : 0;
}

static dbus_bool_t add_watch(DBusWatch* watch, void* data) {
    auto* bus = static_cast<message_bus*>(data);
    OwnedEvent event(event_new(bus->base, dbus_watch_get_unix_fd(watch), eventFlagsOf(watch), handle_watch, watch));
    if (!event) return FALSE;
    dbus_watch_set_data(watch, bus, nullptr);
    // Added also while the watch is off: its first write event then dispatches the messages that blocking calls have
    // read before the loop runs. Nothing else reports those.
    if (event_add(event.get(), nullptr) != 0) return FALSE;
    return keepEvent(&bus->watches, std::move(event), watch);
}

// The library adds its watches to a new object before it removes them from the one before, so each object looks in its
// own lists only.
static void remove_watch(DBusWatch* watch, void* data) {
    remove_dbus_event(&static_cast<message_bus*>(data)->watches, watch);
}

static void toggle_watch(DBusWatch* watch, void* data) {
    const dbus_event* entry = *findLink(&static_cast<message_bus*>(data)->watches, watch);
    if (!entry) return;
    if (dbus_watch_get_enabled(watch)) {
        (void)event_add(entry->event.get(), nullptr);
    } else {
        (void)event_del(entry->event.get());
    }
}

static void handle_timeout(evutil_socket_t, short, void* data) {
    LOG(DEBUG, "Timeout");
    auto* timeout = static_cast<DBusTimeout*>(data);
    auto* bus = static_cast<message_bus*>(dbus_timeout_get_data(timeout));
    (void)dbus_timeout_handle(timeout);
    schedule_dispatch(bus);
}

static dbus_bool_t add_timeout(DBusTimeout* timeout, void* data) {
    auto* bus = static_cast<message_bus*>(data);
    OwnedEvent event(event_new(bus->base, -1, 0, handle_timeout, timeout));
    if (!event) return FALSE;
    dbus_timeout_set_data(timeout, bus, nullptr);
    const int interval = dbus_timeout_get_interval(timeout);
    if (!armTimer(event.get(), interval / 1000, (interval % 1000) * 1000L)) return FALSE;
    return keepEvent(&bus->timeouts, std::move(event), timeout);
}

static void remove_timeout(DBusTimeout* timeout, void* data) {
    remove_dbus_event(&static_cast<message_bus*>(data)->timeouts, timeout);
}

static bool installHandlers(message_bus* bus) {
    DBusConnection* connection = bus->connection.get();
    dbus_connection_set_dispatch_status_function(connection, dispatch_status_changed, bus, nullptr);
    bus->dispatchEvent.reset(event_new(bus->base, -1, 0, handle_dispatch, bus));
    return bus->dispatchEvent &&
           dbus_connection_set_watch_functions(connection, add_watch, remove_watch, toggle_watch, bus, nullptr) &&
           dbus_connection_set_timeout_functions(connection, add_timeout, remove_timeout, nullptr, bus, nullptr);
}

int connection_setup(message_bus* bus) {
    if (installHandlers(bus)) return 1;
    DBusConnection* connection = bus->connection.get();
    dbus_connection_set_dispatch_status_function(connection, nullptr, nullptr, nullptr);
    (void)dbus_connection_set_watch_functions(connection, nullptr, nullptr, nullptr, nullptr, nullptr);
    (void)dbus_connection_set_timeout_functions(connection, nullptr, nullptr, nullptr, nullptr, nullptr);
    bus->dispatchEvent.reset();
    return 0;
}

void connection_shutdown(message_bus* bus) {
    DBusConnection* connection = bus->connection.get();
    if (!dbus_connection_set_watch_functions(connection, nullptr, nullptr, nullptr, nullptr, nullptr)) {
        LOG(WARN, "setting watch functions to NULL failed");
        return;
    }
    if (!dbus_connection_set_timeout_functions(connection, nullptr, nullptr, nullptr, nullptr, nullptr)) {
        LOG(WARN, "setting timeout functions to NULL failed");
        return;
    }
    dbus_connection_set_dispatch_status_function(connection, nullptr, nullptr, nullptr);
}

int message_bus_set_dbus_socket(const char* address) {
    LOG(INFO, "setting dbus socket to %s", address);
    return setenv("DBUS_SESSION_BUS_ADDRESS", address, 1);
}
