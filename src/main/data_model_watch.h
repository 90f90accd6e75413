// The data-model watch: the callbacks that hand every watched value, and each change of it, to the bus thread.
#pragma once

#include "pcblib/pcbclient.h"

extern int* iPipeForPcbChanges;             // the event pipe's descriptors, read end first
extern request_t* iRequestWanChangeNotify;  // the subscription to the WAN query's object; null until it exists

/// Writes one record to the event pipe; a value (null for none) of more than 1023 bytes is logged and not sent. Waits
/// while the pipe is full, until there is room or the data-model loop is to end. Main thread.
void sendValueThroughPipe(unsigned code, const char* value);

/// Calls "openQuery" or "closeQuery" for the gateway's global addresses: the request, or null. Main thread.
[[nodiscard]] request_t* executeWanChangeQuery(const char* function);

/// The callbacks of the data-model client. Main thread, in its loop.
void pcbObjectChanged(const char* path, object_t* object);
void pcbParamChanged(const char* path, const char* parameter, const char* oldValue, const char* newValue);
void pcbFunctionCallback(const char* path, const char* function, const char* result);

/// Whether every watched parameter's first value was sent, or could not be read. Main thread.
[[nodiscard]] bool areInitialValuesSent();

/// Forgets a CG-NAT check whose request the client releases because it could not be sent. Main thread, in the loop.
void pcbRequestLost(request_t* request);

/// Releases the CG-NAT checks that still wait for their answer. Main thread, outside the loop.
void releasePendingCgNatChecks();
