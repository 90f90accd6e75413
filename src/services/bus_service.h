// Method table, dispatch, description and registration, shared by the daemon's D-Bus services.
#pragma once

#include <dbus/dbus.h>
#include <event2/event.h>

#include <span>

#include "common/msg_bus/message_bus.h"
#include "common/owned/owned.h"

/// Releases a call that nobody answers (null is ignored); its client waits until its own time-out. Bus thread.
inline void releaseUnanswered(DBusMessage* call) { message_bus_send_no_reply(nullptr, call); }
using UnansweredCall = Owned<DBusMessage, releaseUnanswered>;

/// A call that waits for its one answer. Answering takes the message out, so it cannot be answered twice; a call that
/// goes out of scope unanswered is released.
struct MethodCall {
    message_bus* bus;
    const char* firstArgument;  // null when it has no text form; belongs to the message
    UnansweredCall message;
};

/// The reply to send when a step fails; null when the step succeeded and the next one may follow.
using Refusal = const char*;

/// A method of a service. The service's description and the bus policy must agree with it; a test compares them.
struct Method {
    const char* name;
    const char* arguments;  // the types of what it takes, as D-Bus writes them
    bool isGuarded;         // it changes something or asks a server: for root and the group only
    void (*answer)(MethodCall& call);
};

/// All that makes one service: who it is on the bus, how it describes itself to clients that introspect it, its methods
/// in the order of their registration, and the log lines of its registration that are its own.
struct BusService {
    const char* interface;
    const char* path;
    const char* description;
    std::span<const Method> methods;
    message_bus_method_callback handler;
    const char* enablingLine;
    const char* cannotCreateLine;
    const char* createdLine;
};

/// Makes the service's bus object, asks for the daemon's bus name, listens for the methods and answers introspection.
/// `service` lives as long as the process. The object, to be freed with message_bus_free, or null when any of it failed
/// (logged, nothing left behind). Blocks for the bus's answers. Main thread, before the bus thread runs.
[[nodiscard]] message_bus* offerService(const BusService& service, struct event_base* base);

/// Sets what every call waits for: `look` runs outside the gate before the call is logged and answered. Bus thread, or
/// before it runs.
void beforeEachCall(void (*look)());

/// The body of every service's method callback: logs the call and lets the method of that name answer it, holding the
/// gate. Takes `call` over: it is answered, or released without an answer, also for an unknown name (logged). Bus
/// thread.
void dispatchMethodCall(std::span<const Method> methods, message_bus* bus, const char* method,
                        const char* firstArgument, DBusMessage* call);

/// Answer the call and release its message, whatever the outcome; the message bus logs a reply that cannot be sent.
/// `text` is not null and stays the caller's. Bus thread; blocks until the reply is written.
void replyText(MethodCall& call, const char* text);
void replyBool(MethodCall& call, bool value);
