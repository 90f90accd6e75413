// Linked into the steered daemon: its timers and its requests' limits pass quicker, and its wall clock can be set.
#include <curl/curl.h>
#include <event2/event.h>
#include <sys/syscall.h>
#include <sys/time.h>

#include <cstdarg>
#include <ctime>

#include "tests/daemon/steering.h"

extern "C" {
int __real_event_add(event*, const timeval*);
int __wrap_event_add(event*, const timeval*);
int __wrap_event_add(event* event, const timeval* time) {
    const int second = steering().second;
    if (!time || time->tv_sec == 0 || second == 0) return __real_event_add(event, time);
    steering().armed = steering().armed * 100 + time->tv_sec;
    const int64_t scaled = time->tv_sec * second;
    const timeval delay = {scaled / 1'000'000, scaled % 1'000'000};
    return __real_event_add(event, &delay);
}

CURLcode __real_curl_easy_setopt(CURL*, unsigned, ...);
CURLcode __wrap_curl_easy_setopt(CURL*, unsigned, ...);
CURLcode __wrap_curl_easy_setopt(CURL* handle, unsigned option, ...) {
    static bool hurried = false;
    va_list arguments;
    va_start(arguments, option);
    void* const value = va_arg(arguments, void*);  // a long is as wide
    va_end(arguments);
    if (option == CURLOPT_URL) hurried = steering().hurriedRequest > 0 && --steering().hurriedRequest == 0;
    if (option == CURLOPT_CONNECTTIMEOUT || option == CURLOPT_TIMEOUT) {
        const auto seconds = reinterpret_cast<intptr_t>(value);
        const bool whole = option == CURLOPT_TIMEOUT;
        steering().limits = (whole ? steering().limits * 100 : 0) + seconds;
        const unsigned inMilliseconds = whole ? CURLOPT_TIMEOUT_MS : CURLOPT_CONNECTTIMEOUT_MS;
        if (hurried) return __real_curl_easy_setopt(handle, inMilliseconds, seconds * steering().second / 1000);
    }
    return __real_curl_easy_setopt(handle, option, value);
}

// Defined here, they are taken by all libraries, too.
int clock_gettime(clockid_t clock, timespec* now) noexcept {
    if (syscall(SYS_clock_gettime, clock, now) != 0) return -1;
    if (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE) now->tv_sec += steering().wallClockAhead;
    return 0;
}

int gettimeofday(timeval* now, void*) noexcept {
    timespec time = {};
    if (clock_gettime(CLOCK_REALTIME, &time) != 0) return -1;
    *now = {time.tv_sec, time.tv_nsec / 1000};
    return 0;
}

time_t time(time_t* copy) noexcept {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    if (copy) *copy = now.tv_sec;
    return now.tv_sec;
}
}
