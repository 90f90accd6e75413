// Whether the gateway is behind carrier-grade NAT: the query that reports a new WAN address, and the checks that ask
// again. What they find goes into the event pipe. Main thread.
#pragma once

#include "pcblib/pcbclient.h"

extern request_t* iRequestWanChangeNotify;  // the subscription to the query's object; null until it exists

/// Calls "closeQuery" or "openQuery" for the gateway's global addresses: the request, to be released with
/// freePcbRequestObject, or null when it could not be sent.
[[nodiscard]] request_t* executeWanChangeQuery(const char* function);

/// Closes the query that an earlier run may have left and opens a new one, whose object is watched once its number is
/// known. False when one of the calls could not be sent (logged).
[[nodiscard]] bool startWanQuery();

/// Whether this parameter is the one that holds the WAN addresses.
[[nodiscard]] bool isWanAddress(const char* path, const char* parameter);

/// Asks whether the gateway is behind CG-NAT; called in the loop. A call that cannot be queued is logged, and not made.
/// checkCgNatAgain only logs a line while its own earlier check is not answered yet.
void checkCgNatAtStart();
void checkCgNatAgain();

/// Asks again, in place of checks that are not answered, and opens the query again, whose object is then watched anew.
/// In the loop, not from one of its callbacks for requests.
void renewCgNatCheck();

/// The data-model client's callbacks for results of functions (`result` is null when out of memory) and for a call that
/// could not be sent; the client releases that call.
void pcbFunctionCallback(const char* path, const char* function, const char* result);
void pcbRequestLost(request_t* request);

/// Releases everything; outside the loop.
void releaseCgNatCheck();
