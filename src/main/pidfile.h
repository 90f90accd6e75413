// The pid file, and the way into the background.
#pragma once

/// Writes the number of the calling process and a line end to `path`, in place of what was there; a new file is for its
/// owner alone to write. 0 when the file cannot be opened, else 1: a full disk costs the number (logged), not the
/// service. Main thread.
[[nodiscard]] int write_pidfile(const char* path);

// daemon() is declared by <unistd.h>; the program's own stands in place of the C library's: it forks twice, so that the
// process that stays is no session leader and can never acquire a terminal.
