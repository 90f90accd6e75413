// What each record from the event pipe causes on the bus thread.
#pragma once

#include "src/dbusinterface/event_record.h"

/// Logs the record and reacts to it; a record with an unknown code is only logged. `record.value` is zero-terminated.
/// Holding the gate. Bus thread; blocks where the reaction saves the tree or asks the server.
void reactToEvent(const EventRecord& record);
