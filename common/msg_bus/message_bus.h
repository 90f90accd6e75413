// The daemon's services on D-Bus: objects with a name, a path, the methods they listen for and one callback per kind of
// traffic. All objects of the process use one shared connection, which is driven by the libevent base that they
// are created with. Objects are created, configured and freed while no other thread uses the bus; from the start of the
// thread that runs the base on, everything else happens on that thread (the bus thread). Failures are logged here, at
// WARN; operations report 1 for success and 0 for failure.
#pragma once

struct DBusMessage;
struct event_base;
struct message_bus;

/// Receives a signal: its name as registered, and its first argument as text ("true" or "false" for a boolean, the
/// string itself for a string, null otherwise), which is valid during the call only. Bus thread.
using message_bus_signal_callback = void (*)(message_bus* bus, const char* name, const char* firstArgument);

/// Receives a method call: the method's name as registered, and the first argument as for a signal; that text belongs
/// to `call` and is valid until the reply. The handler hands `call` back through exactly one reply operation, at once
/// or later, which drops the reference that is held for it. Bus thread.
using message_bus_method_callback = void (*)(message_bus* bus, const char* name, const char* firstArgument,
                                             DBusMessage* call);

/// Receives the end of an outgoing call: the method's name, and the reply's string, valid during the call only; null
/// for an error, a time-out or a reply without a string. The bus object must not be freed from here. Bus thread.
using message_bus_method_call_callback = void (*)(message_bus* bus, const char* name, const char* reply);

/// Sets the address of the bus that objects created later connect to, such as "unix:path=/run/bus", in the environment
/// (DBUS_SESSION_BUS_ADDRESS): 0, or -1 when out of memory. Once, before the first object; no other thread running.
int message_bus_set_dbus_socket(const char* address);

/// A new object on the shared connection, served by `base`, or null. `name` is the interface it answers to and the
/// destination of its outgoing calls; `path` is where clients reach it, null for an object that only calls. A failure
/// leaves nothing behind, but may end the serving of earlier objects as message_bus_free does. Blocks for the first
/// object while the connection is made. Freed with message_bus_free.
[[nodiscard]] message_bus* message_bus_new(event_base* base, const char* name, const char* path);

/// Releases the object and takes its path back, and sets `*bus` to null; null and a null object are ignored. The event
/// base no longer serves the shared connection afterwards: objects are released as a set. Outgoing calls that still
/// wait for their reply end without a callback.
void message_bus_free(message_bus** bus);

/// Asks for a well-known name, replacing an owner that allows it: 1 also while the name is waited for in the bus's
/// queue, and for a name that the connection has already. Blocks for the bus's answer.
[[nodiscard]] int message_bus_request_name(message_bus* bus, const char* name);

/// Lets the object listen for a method or a signal of this name on its interface; the name is copied. The callback
/// must be set before. Blocks for the bus's answer.
[[nodiscard]] int message_bus_add_method_listener(message_bus* bus, const char* name);
[[nodiscard]] int message_bus_add_signal_listener(message_bus* bus, const char* name);

/// From now on no message is read while another one that holds file descriptors waits to be handled. Otherwise clients
/// could fill the process's descriptor table, and libdbus would drop the connection; no method takes descriptors. Call
/// it after the last blocking call to the bus: the answer to such a call could wait, too. Bus thread, before it
/// runs the base.
void message_bus_limit_descriptors(message_bus* bus);

/// From now on the object answers introspection with this XML text, instead of libdbus, which knows nothing of its
/// interface. The text stays the caller's and lives as long as the object; null leaves the answer to libdbus.
void message_bus_describe(message_bus* bus, const char* xml);

/// Sets the one callback of its kind; a message for which there is a listener but no callback counts as not handled.
void message_bus_set_method_callback(message_bus* bus, message_bus_method_callback callback);
void message_bus_set_signal_callback(message_bus* bus, message_bus_signal_callback callback);
void message_bus_set_method_call_callback(message_bus* bus, message_bus_method_call_callback callback);

/// Answers `call` with one argument and releases it, whatever the result. Blocks until the reply is written. A text
/// (not null) that is not UTF-8 or longer than 32 MiB less 4 KiB fails; the client then gets an error instead. Any
/// value other than 0 is true. A client that wants no answer is sent none, and the result is 1. The gate is given up
/// while the reply is written. Bus thread.
int message_bus_send_string_reply(message_bus* bus, DBusMessage* call, const char* text);
int message_bus_send_bool_reply(message_bus* bus, DBusMessage* call, int value);

/// Releases `call` without an answer: the client waits until its own time-out. Bus thread.
void message_bus_send_no_reply(message_bus* bus, DBusMessage* call);

/// Reads the first argument as a boolean, 1 or 0, into `value`, which stays untouched on failure. Bus thread.
[[nodiscard]] int get_first_argument_bool_value(DBusMessage* message, int* value);

/// An argument that must be a string, or null; the text belongs to the message. Bus thread.
[[nodiscard]] const char* get_first_argument_string_value(DBusMessage* message);
[[nodiscard]] const char* get_second_argument_string_value(DBusMessage* message);

/// Starts a call without arguments to the owner of the object's own name; its end reaches the method-call callback.
/// Malformed names fail. Does not block. Bus thread.
[[nodiscard]] int message_bus_call_method(message_bus* bus, const char* path, const char* interface,
                                          const char* method);

/// Queues a signal with one string argument; the bus thread's loop writes it. Malformed names and a text that is not
/// UTF-8 or longer than 32 MiB less 4 KiB fail. Bus thread.
[[nodiscard]] int message_bus_send_signal(message_bus* bus, const char* path, const char* interface, const char* name,
                                          const char* text);
