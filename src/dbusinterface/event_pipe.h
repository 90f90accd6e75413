// The read end of the event pipe, the only connection from the main thread to the bus thread.
#pragma once

#include <event2/event.h>

/// Makes the pipe and registers its read end on `base` with handleEventPipeRecord. Returns the two descriptors, read
/// end first, which live as long as the process; null when it cannot be made (logged, nothing left behind). Once, on
/// the main thread, before the bus thread runs.
[[nodiscard]] int* createPipeForProvidingChangesInDataModel(struct event_base* base);

/// Reads one record and reacts to it; the read end's callback. Holds the gate. Bus thread.
void handleEventPipeRecord(evutil_socket_t readEnd, short, void*);

/// Handles the records that the pipe holds now, before anything else in the loop: what follows must not overtake
/// changes that came before it. Outside the gate. Bus thread; blocks as the reactions do.
void handleWaitingEventPipeRecords();
