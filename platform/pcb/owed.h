// Checks of what a caller must do. In the sanitizer builds a violation ends the process with one line that names the
// call.
#pragma once

#ifdef ORSM_STRICT

#include <signal.h>

#include <cstdio>
#include <cstdlib>

#define OWED(condition) ((condition) ? (void)0 : endForWhatIsOwed(__func__, #condition))

[[noreturn]] inline void endForWhatIsOwed(const char* call, const char* owed) {
    fprintf(stderr, "pcb: %s: the caller owes %s\n", call, owed);
    abort();
}

/// Whether the thread is inside a handler of a signal that ends or reloads programs: only there one of them is blocked
/// and not the others.
inline bool isSignalHandler() {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return sigismember(&mask, SIGTERM) + sigismember(&mask, SIGINT) + sigismember(&mask, SIGHUP) == 1;
}

#else

#define OWED(condition) ((void)0)

#endif
