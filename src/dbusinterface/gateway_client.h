// The GatewayClient guard: a server request is made while the gateway's connection to the application server is up.
#pragma once

#include "pcblib/pcbclient.h"

/// Makes sure that the GatewayClient is connected, waiting for it if need be (see below). True when it switched the
/// connection mode to "on": the caller then calls setGatewayClienModeOnDemand after its request. Bus thread; blocks.
[[nodiscard]] bool ensureGatewayClientIsConnected();

/// Asks for a connection and waits until it is up. Looks every 200 ms, for about 10 s of wall-clock time and at most 12
/// s of monotonic time, both counted from after the save of the switched mode. An exchange that is under way then may
/// add up to 5 s. A connection that does not come is logged. Does not wait at all when the mode cannot be read. True
/// when it switched the mode to "on". Bus thread; blocks.
[[nodiscard]] bool waitForGatewayClientConnection();

/// Sets the connection mode back to "ondemand" and saves the tree; a failure is logged. Bus thread; blocks.
void setGatewayClienModeOnDemand();

/// Sets the mode back if a guarded request has switched it and not put it back yet, through `client` (null: not at
/// all), because the bus thread may be using its own. Only for the end of the process, with the gate closed. Main
/// thread; blocks as setGatewayClienModeOnDemand does.
void putConnectionModeBack(PcbContext* client);

/// Runs `request` through the guard and returns its result. The request is made even when no connection came. A mode
/// that was switched is put back before the result is returned. Bus thread; blocks for the wait and the request.
template <class Request>
[[nodiscard]] auto withGatewayClient(const Request& request) {
    const bool switched = ensureGatewayClientIsConnected();
    auto answer = request();
    if (switched) setGatewayClienModeOnDemand();
    return answer;
}
