// What the files of this folder share: the record of a bus object, and the owners of what libdbus and libevent hand
// out.
#pragma once

#include <dbus/dbus.h>
#include <event2/event.h>

#include "common/msg_bus/message_bus.h"
#include "common/text/text.h"

using OwnedEvent = Owned<event, event_free>;
using OwnedConnection = Owned<DBusConnection, dbus_connection_unref>;
using OwnedMessage = Owned<DBusMessage, dbus_message_unref>;

/// An error that libdbus fills in, released with its scope.
struct BusError {
    DBusError raw = DBUS_ERROR_INIT;

    BusError() = default;
    ~BusError() { dbus_error_free(&raw); }
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;
};

/// Appends `entry` to the list, which owns it from now on. The thread that uses the list.
template <class Record>
void appendRecord(Record** list, OwnedRecord<Record> entry) {
    while (*list) {
        list = &(*list)->next;
    }
    *list = entry.release();
}

/// One watch or timeout of the connection and the event that stands for it.
struct dbus_event {
    OwnedEvent event;
    void* key;  // the DBusWatch or DBusTimeout, which belongs to libdbus
    dbus_event* next;
};

/// One name that an object listens for.
struct listener {
    OwnedText name;
    listener* next;
};

struct message_bus {
    OwnedConnection connection;
    OwnedEvent dispatchEvent;  // has no descriptor, is only ever armed as a timer
    dbus_event* watches;
    dbus_event* timeouts;
    event_base* base;
    listener* signalListeners;
    listener* methodListeners;
    message_bus_signal_callback signalCallback;
    message_bus_method_callback methodCallback;
    message_bus_method_call_callback methodCallCallback;
    OwnedText name;
    const char* description;  // the XML text for introspection; null for none
    OwnedText path;           // null unless the object is registered there
    bool hasFilter;           // whether the connection has the filter that this object added
};

/// Serves the object's connection from its base; takes the connection over from the object that served it before. 1, or
/// 0 with nothing installed on the connection and no dispatch event. While the base's loop does not run yet.
[[nodiscard]] int connection_setup(message_bus* bus);

/// Ends the serving of the object's connection, whichever object does it (failures are logged). While the base's loop
/// does not run.
void connection_shutdown(message_bus* bus);

/// Releases one entry with its event; null is ignored.
void dbus_event_free(dbus_event* entry);

/// Takes the entry with this key out of the list and releases it, if there is one.
void remove_dbus_event(dbus_event** list, const void* key);

/// A reference on the process's shared connection to a bus; null when it cannot be had (logged). Blocks while it is
/// made.
[[nodiscard]] OwnedConnection openSharedConnection(DBusBusType type);

/// The object path's message function; `data` is the bus object. Bus thread.
DBusHandlerResult handle_message(DBusConnection* connection, DBusMessage* message, void* data);

/// Gives up the outgoing calls of the object that wait for their reply: no callback comes for them any more. While no
/// thread runs the base.
void cancel_method_calls(const message_bus* bus);
