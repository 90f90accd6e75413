// Arms timers on the bus thread's event loop.
#pragma once

#include <event2/event.h>

/// Arms `timer` to fire once after `seconds` and `microseconds` from now; an arming that was pending is replaced. From
/// now, not from when the loop last woke: libevent counts from its cached time, and a callback may have blocked for
/// long since then. 1 armed, 0 when out of memory (the timer stays as it was). The thread of the timer's event base.
[[nodiscard]] int armTimer(struct event* timer, long seconds, long microseconds);
