// The DynDNS service on D-Bus: local clients ask for the registration, check a name and change it.
#pragma once

#include <dbus/dbus.h>
#include <event2/event.h>

#include "common/text/text.h"
#include "src/services/bus_service.h"

extern message_bus* iDynDnsMessageBus;  // null while the service is not offered

extern const BusService KDynDnsService;

/// As offerService. Main thread, before the bus thread runs.
[[nodiscard]] bool enableDbusForDynDns(struct event_base* base);

/// The service's method callback; takes `call` over. Bus thread; blocks for data-model exchanges, IsNameTaken and
/// Configure for their server request too, and Configure for the GatewayClient before it.
void handleDynDnsMethodCall(message_bus* bus, const char* method, const char* firstArgument, DBusMessage* call);

/// The rule for host names: 2 to 63 bytes, ASCII letters, digits and "-", no "-" in front. Null is invalid. Any thread.
bool isDynDnsNameValid(const char* name);

/// True for the ASCII letters and digits only. Any thread.
bool isLetterOrDigit(char character);

/// Writes `source`, its ASCII capitals lowered, over the same number of bytes of `destination`, without a terminator.
/// `destination`, or null when either is null. Any thread.
char* strtolower(const char* source, char* destination);

/// The reply {"status":...,"result":...} with texts, or JSON null for null; null when out of memory (logged). Any
/// thread.
[[nodiscard]] OwnedText generateDbusResponseJson_StringResult(const char* status, const char* result);
