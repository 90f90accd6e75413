#include "common/timer/timer.h"

int armTimer(struct event* timer, long seconds, long microseconds) {
    event_base_update_cache_time(event_get_base(timer));
    const timeval delay = {seconds, microseconds};
    return event_add(timer, &delay) == 0;
}
