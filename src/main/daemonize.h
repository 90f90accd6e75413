// Detaching into the background. The program's own daemon() replaces that of the C library. It forks twice, so that the
// remaining process is not a session leader and can never acquire a terminal.
#pragma once

#include <unistd.h>

// int daemon(int keepDirectory, int keepStreams), which <unistd.h> declares:
/// Detaches the process into the background. `keepDirectory` nonzero keeps the working directory, else it becomes "/";
/// `keepStreams` nonzero keeps the standard streams, else they become /dev/null (and stay where that cannot be opened).
/// 0 in the process that goes on, -1 when a fork or the new session failed. Before any other thread exists.
