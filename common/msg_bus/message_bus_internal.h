// What the files of this folder share: the record of a bus object, and the owners of what libdbus and libevent hand
// out.
#pragma once

#include <dbus/dbus.h>
#include <event2/event.h>

#include <cstdlib>
#include <memory>
#include <new>

#include "common/msg_bus/message_bus.h"
#include "common/text/text.h"

struct FreeEvent {
    void operator()(event* owned) const { event_free(owned); }
};
using OwnedEvent = std::unique_ptr<event, FreeEvent>;

struct UnrefConnection {
    void operator()(DBusConnection* connection) const { dbus_connection_unref(connection); }
};
using OwnedConnection = std::unique_ptr<DBusConnection, UnrefConnection>;

struct UnrefMessage {
    void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using OwnedMessage = std::unique_ptr<DBusMessage, UnrefMessage>;

/// An error that libdbus fills in, released with its scope.
struct BusError {
    DBusError raw = DBUS_ERROR_INIT;

    BusError() = default;
    ~BusError() { dbus_error_free(&raw); }
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;
};

struct DeleteRecord {
    template <class Record>
    void operator()(Record* record) const {
        record->~Record();
        free(record);
    }
};
template <class Record>
using OwnedRecord = std::unique_ptr<Record, DeleteRecord>;

/// A zero-filled record; null when memory is short.
template <class Record>
[[nodiscard]] OwnedRecord<Record> newRecord() {
    void* memory = calloc(1, sizeof(Record));
    return OwnedRecord<Record>(memory ? new (memory) Record{} : nullptr);
}

/// Hands `entry` over to the list, at its tail.
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
    OwnedText path;  // null unless the object is registered there
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

/// Gives up the outgoing calls of the object that wait for their reply: no callback comes for them any more.
void cancel_method_calls(const message_bus* bus);
