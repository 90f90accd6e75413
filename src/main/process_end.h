// The two ends of the process: at once, and in order within a limited time.
#pragma once

/// Removes the pid file and ends the process at once. Any thread; safe in a signal handler.
[[noreturn]] void endAtOnce(int status);

/// Ends the process in order, while the bus thread runs: closes the gate, which the bus thread then never passes again,
/// puts the connection mode back, releases what there is to release, and ends the process without the exit handlers of
/// the libraries, because the bus thread may be inside one of them. It ends at once when that takes too long. Main
/// thread.
[[noreturn]] void endProcess(int status);

/// What SIGTERM and SIGINT do: during the start, which may be waiting for a bus that never answers, they end the
/// process at once with status 0; later they end the data-model loop, and the process at once when that takes too long.
/// Main thread.
void endAtOnceOnSignals();
void endLoopOnSignals();
