// The services-info service: hands out one text from the configuration.
#pragma once

#include <dbus/dbus.h>
#include <event2/event.h>

#include "src/services/bus_service.h"

/// Stores a copy of `text` as the service's answer, or nothing for null. 1 stored, 0 when out of memory (the old text
/// stays). Main thread, before the bus thread runs.
[[nodiscard]] int initOrvoServicesInfo(const char* text);

/// Releases the stored text. Only while the bus thread does not answer calls.
void cleanOrvoServicesInfo();

extern const BusService KOrvoServicesInfoService;

/// Offers the service on `base`: 1, or 0 when any of it failed (logged, nothing left behind). Main thread, before the
/// bus thread runs.
[[nodiscard]] int enableDbusForOrvoServicesInfo(struct event_base* base);

/// Takes the service back, if it is offered; see message_bus_free for what that means for the other services. Only
/// while no thread runs the base.
void disableDbusForOrvoServicesInfo();

/// The service's method callback; takes `call` over. Bus thread; blocks until the reply is written.
void handleOrvoServicesInfoMethodCall(message_bus* bus, const char* method, const char* firstArgument,
                                      DBusMessage* call);
