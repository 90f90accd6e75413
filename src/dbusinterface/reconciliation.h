// Reconciliation: synchronizes at intervals, so that a difference between server and data model that nothing reported
// does not last.
#pragma once

#include <cstdint>

/// The interval in seconds, 0 for never (the default). Main thread, before the bus thread runs.
void setReconciliationInterval(long seconds);

/// Starts the timer, when there is an interval: the first reconciliation comes at a random moment of the first
/// interval, so that a fleet that lost power together does not ask together; the next ones an interval apart, on the
/// monotonic clock. A timer that cannot be made is logged. Bus thread, once, before it runs the base.
void startReconciliation();

/// The microseconds until the first reconciliation: less than the interval, which is 1 s to a year, and spread evenly
/// over it as `random` is over all numbers. Any thread.
int64_t firstReconciliationDelay(long intervalSeconds, uint64_t random);
