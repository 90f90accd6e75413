// The smart-plug service on D-Bus: switches and reads the plugs of the account that is paired with the gateway.
#pragma once

#include <dbus/dbus.h>
#include <event2/event.h>

#include "src/services/bus_service.h"

extern message_bus* iVoltaroMessageBus;  // null while the service is not offered

extern const BusService KVoltaroService;

/// As offerService (1 or 0) and withdrawService.
[[nodiscard]] int enableDbusForVoltaro(struct event_base* base);
void disableDbusForVoltaro();

/// The service's method callback; takes `call` over. Bus thread; Set and Get block for three or four requests of up to
/// 30 s each, EnableBackend for its exchanges and the save.
void handleVoltaroMethodCall(message_bus* bus, const char* method, const char* firstArgument, DBusMessage* call);
