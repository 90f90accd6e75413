// The bus thread: serves D-Bus, the event pipe and the synchronization once the start is far enough.
#pragma once

#include <event2/event.h>

/// Starts the thread, which runs `base` when it has been told both of the following; false when it cannot be started.
/// The process ends with status 1 when the loop ends. Once, on the main thread, before the data model is watched.
[[nodiscard]] bool startBusThread(struct event_base* base);

/// Tell the thread what it waits for: that the saved tree is loaded, and that the first values of all watched
/// parameters are in the event pipe. It waits at most 5 s for the second. Main thread, after startBusThread.
void tellStoreIsLoaded();
void tellFirstValuesAreSent();
