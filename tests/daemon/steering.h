// What a test shares with the steered daemon, in a page of a file: the test steers, the daemon reports.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>

struct Steering {
    std::atomic<int> second;       // microseconds that a timer's second takes; 0: a full second
    std::atomic<bool> alsoLog;     // calls for the log count, too
    std::atomic<int> call, fault;  // which call meets what, from 1; 0: none
    std::atomic<int> reported;     // calls whose failure the save must log
    std::atomic<int> seen;         // calls since `call` was set
    char calls[100];               // the first letter of each
    char refused[16];              // the call that always fails
};

constexpr int KKill = -1, KShortWrite = -2, KEnd = -3;  // what a call can meet besides an error number

/// The shared page of this world. The first process that needs it creates it.
inline Steering& steering() {
    static Steering* const page = [] {
        const int file = open("/var/run/steering", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (file < 0 || ftruncate(file, sizeof(Steering)) != 0) _exit(125);
        void* const mapped = mmap(nullptr, sizeof(Steering), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        close(file);
        return static_cast<Steering*>(mapped);
    }();
    return *page;
}

/// Lets call number `call`, counted from now, meet `fault`. The daemon's calls for its store count, and with `alsoLog`
/// also its writes to the log.
inline void strike(int call, int fault, bool alsoLog = false) {
    Steering& page = steering();
    page.call = 0;
    page.fault = fault;
    page.alsoLog = alsoLog;
    page.seen = page.reported = 0;
    std::fill(page.calls, page.calls + sizeof page.calls, '\0');
    page.call = call;
}
