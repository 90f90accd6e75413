// The smart-plug service on D-Bus: switches and reads the plugs of the account that is paired with the gateway.
#pragma once

#include <dbus/dbus.h>
#include <event2/event.h>

#include "src/services/bus_service.h"

extern const BusService KVoltaroService;

/// Offers the service on `base`: 1, or 0 when any of it failed (logged, nothing left behind). Main thread, before the
/// bus thread runs.
[[nodiscard]] int enableDbusForVoltaro(struct event_base* base);

/// Takes the service back, if it is offered; see message_bus_free for what that means for the other services. Only
/// while no thread runs the base.
void disableDbusForVoltaro();

/// The service's method callback; takes `call` over. Bus thread; Set and Get block for three or four requests of up to
/// 30 s each, EnableBackend for its exchanges and the save.
void handleVoltaroMethodCall(message_bus* bus, const char* method, const char* firstArgument, DBusMessage* call);
