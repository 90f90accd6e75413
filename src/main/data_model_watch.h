// The watch of the data model: every watched parameter's first value, and each change of it, go into the event pipe.
// Main thread.
#pragma once

#include "pcblib/pcbclient.h"

/// Subscribes to the objects of all watched parameters. False when one of the requests could not be sent (logged).
[[nodiscard]] bool watchParameters();

/// The data-model client's callbacks for an object that was delivered and for a parameter that has changed.
void pcbObjectChanged(const char* path, object_t* object);
void pcbParamChanged(const char* path, const char* parameter, const char* oldValue, const char* newValue);

/// Sets what is called, once, when every watched parameter's first value was sent, or could not be read.
void setInitialValuesCallback(void (*callback)());

/// Subscribes again to each object that was not delivered: the data model may have refused it, because it came later
/// than the daemon. In the loop, not from one of its callbacks for requests.
void renewParameterWatch();

/// Releases the subscriptions; outside the loop.
void releaseParameterWatch();
