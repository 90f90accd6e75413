// The public bus interface: brings the bus thread's data-model client and the D-Bus services up, as one.
#pragma once

#include <event2/event.h>

#include <span>

#include "src/services/bus_service.h"

/// The daemon's services, in the order of their start. Any thread.
std::span<const BusService* const> busServices();

/// Brings everything up on `base`. True, or false when any of it failed (the failing step has logged why; what was made
/// before is released). Once, on the main thread, before the bus thread runs.
[[nodiscard]] bool enableDbusPublicInterface(struct event_base* base);

/// Limits what a hostile client can do to the connection, and keeps calls from overtaking changes of the data model
/// that wait in the event pipe. Bus thread, once, after enableDbusPublicInterface and before it runs the base.
void prepareToServeDbus();

/// Takes the services and the client down. Only while no thread runs the base.
void disableDbusPublicInterface();
