// What the daemon's D-Bus services share: their description as a table, their registration and the dispatch of calls.
#pragma once

#include <dbus/dbus.h>
#include <event2/event.h>

#include <span>

#include "common/msg_bus/message_bus.h"
#include "common/text/text.h"

/// A method call, valid until the method returns.
struct MethodCall {
    DBusMessage* message;
    const char* firstArgument;  // null when it has no text form; belongs to the message
};

/// What a method answers: a text that lives as long as the program, a text that is released after it was sent, or a
/// boolean; and at most two lines that are logged at INFO once the answer was sent. A text that is null is answered
/// with an error.
struct Reply {
    bool isText;
    bool flag = false;
    OwnedText owned;
    const char* text = nullptr;
    const char* linesAfter[2];

    Reply(const char* fixed, const char* first = nullptr, const char* second = nullptr)
        : isText(true), text(fixed), linesAfter{first, second} {}
    Reply(OwnedText built, const char* first = nullptr, const char* second = nullptr)
        : isText(true), owned(std::move(built)), text(owned.get()), linesAfter{first, second} {}
    Reply(bool value, const char* first = nullptr, const char* second = nullptr)
        : isText(false), flag(value), linesAfter{first, second} {}
    // An owner's text would be gone when it is sent: hand the owner over.
    Reply(char*, const char* = nullptr, const char* = nullptr) = delete;
    Reply(std::nullptr_t, const char* = nullptr, const char* = nullptr) = delete;
};

/// What a step of a method answers when it fails: the reply's text; null when the next step may follow.
using Refusal = const char*;

/// A method of a service. The service's description and the bus policy must agree with it; a test compares them.
struct Method {
    const char* name;
    const char* arguments;  // the types of what it takes, as D-Bus writes them
    bool isGuarded;         // it changes something or asks a server: for root and the group only
    Reply (*answer)(const MethodCall& call);
};

/// All that makes one service: where its code stands, who it is on the bus, its methods in the order of their
/// registration, and the log lines of its registration that are its own.
struct BusService {
    const char* sourcePath;  // in the log lines about it
    const char* interface;
    const char* path;
    std::span<const Method> methods;
    message_bus_method_callback handler;
    const char* enablingLine;
    const char* cannotCreateLine;
    const char* createdLine;
    message_bus** object;  // its bus object; null while the service is not offered
};

/// The XML text that describes an interface to clients that introspect it; null for an unknown one. The text lives as
/// long as the program. Any thread.
const char* descriptionOf(const char* interface);

/// Makes the service's bus object, asks for the daemon's bus name and listens for the methods: true, or false when any
/// of it failed (logged, nothing left behind). Blocks for the bus's answers. Main thread, before the bus thread runs.
[[nodiscard]] bool offerService(const BusService& service, struct event_base* base);

/// Takes the service back, if it is offered; see message_bus_free for what that means for the other services. Only
/// while no thread runs the base.
void withdrawService(const BusService& service);

/// Sets what every call waits for: `look` runs outside the gate before the call is logged and answered. Bus thread, or
/// before it runs.
void beforeEachCall(void (*look)());

/// The body of every service's method callback: logs the call, lets the method of that name answer it and sends the
/// answer, holding the gate. Takes `call` over: it is answered once, or released without an answer for an unknown name
/// (logged). The message bus logs an answer that cannot be sent. Bus thread; blocks until the answer is written.
void dispatchMethodCall(const BusService& service, message_bus* bus, const char* method, const char* firstArgument,
                        DBusMessage* call);
