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

extern message_bus* iOrvoServicesInfoMessageBus;  // null while the service is not offered

extern const BusService KOrvoServicesInfoService;

/// As offerService and withdrawService.
[[nodiscard]] bool enableDbusForOrvoServicesInfo(struct event_base* base);
void disableDbusForOrvoServicesInfo();

/// The service's method callback; takes `call` over. Bus thread; blocks until the reply is written.
void handleOrvoServicesInfoMethodCall(message_bus* bus, const char* method, const char* firstArgument,
                                      DBusMessage* call);
