// The write end of the event pipe: the main thread's side of it.
#pragma once

extern int* iPipeForPcbChanges;  // the event pipe's descriptors, read end first

/// Writes one record to the event pipe: whether it was sent. A value (null for none) of more than 1023 bytes is logged
/// and not sent; a write that fails is logged. Waits while the pipe is full, until there is room or the data-model loop
/// is to end (then it sends nothing). Main thread.
bool sendValueThroughPipe(unsigned code, const char* value);
