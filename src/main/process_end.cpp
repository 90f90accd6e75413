#include "src/main/process_end.h"

#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>

#include "common/gate/gate.h"
#include "src/dbusinterface/gateway_client.h"
#include "src/dyndnsrequest/dyndnsrequest.h"
#include "src/main/cgnat_check.h"
#include "src/main/data_model_watch.h"
#include "src/main/pidfile.h"
#include "src/orvoservicesinfo/orvoservicesinfo.h"

// How long the orderly end may take once the bus thread is stopped.
static constexpr suseconds_t KEndMicroseconds = 800'000;
// The longest time from the signal to the end of the process.
static constexpr unsigned KLongestEndSeconds = 3;

static std::atomic<int> iEndStatus = 0;
static std::atomic<bool> iEndIsLimited = false;

extern "C" void __lsan_do_leak_check() __attribute__((weak));

void endAtOnce(int status) {
    unlink(KOrsmPidFileName);
    _exit(status);
}

// A system log that has stopped reading can block both threads.
static void endAtTheLimit(int) { endAtOnce(iEndStatus); }

static void handleSignal(int signalNumber, void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigaction(signalNumber, &action, nullptr);
}

static void handleEndSignals(void (*handler)(int)) {
    handleSignal(SIGTERM, handler);
    handleSignal(SIGINT, handler);
}

// Once: a second signal does not put the end off.
static void limitTheWholeEnd() {
    if (iEndIsLimited.exchange(true)) return;
    handleSignal(SIGALRM, endAtTheLimit);
    alarm(KLongestEndSeconds);
}

static void limitTheRest() {
    itimerval limit = {};
    limit.it_value.tv_usec = KEndMicroseconds;
    setitimer(ITIMER_REAL, &limit, nullptr);
}

static void checkForLeaks() {
    if (!__lsan_do_leak_check) return;
    signal(SIGALRM, SIG_IGN);
    __lsan_do_leak_check();
}

void endProcess(int status) {
    iEndStatus = status;
    limitTheWholeEnd();
    closeGateForever();
    limitTheRest();
    putConnectionModeBack(iPcbContext);
    releaseParameterWatch();
    releaseCgNatCheck();
    destroyPcbDataModelClient();
    cleanRequestsEngine();
    cleanOrvoServicesInfo();
    checkForLeaks();
    endAtOnce(status);
}

void endAtOnceOnSignals() {
    handleEndSignals([](int) { endAtOnce(0); });
}

void endLoopOnSignals() {
    handleEndSignals([](int) {
        limitTheWholeEnd();
        endPcbDataModelEventLoop();
    });
}
