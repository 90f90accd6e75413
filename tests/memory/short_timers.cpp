// A second of the daemon's timers lasts a millisecond here: what is tried again after a failure is tried at once.
#include <event2/event.h>

int realArmTimer(struct event* timer, long seconds, long microseconds) asm("__real__Z8armTimerP5eventll");
int shortArmTimer(struct event* timer, long seconds, long microseconds) asm("__wrap__Z8armTimerP5eventll");

int shortArmTimer(struct event* timer, long seconds, long microseconds) {
    return realArmTimer(timer, 0, seconds * 1000 + microseconds / 1000);
}
