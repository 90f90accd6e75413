#include "src/dbusinterface/reconciliation.h"

#include <event2/event.h>
#include <sys/random.h>

#include <ctime>

#include "common/gate/gate.h"
#include "common/log/log.h"
#include "common/timer/timer.h"
#include "pcblib/pcbclient.h"
#include "src/dbusinterface/dyndns_sync.h"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "src/dbusinterface";

static constexpr int64_t KSecond = 1'000'000;  // microseconds

static long iInterval;        // seconds, 0 for never
static struct event* iTimer;  // made at the start, kept for the life of the process

void setReconciliationInterval(long seconds) { iInterval = seconds; }

static void armReconciliation(int64_t microseconds) {
    if (!armTimer(iTimer, static_cast<long>(microseconds / KSecond), static_cast<long>(microseconds % KSecond))) {
        LOG(ERROR, "Cannot arm reconciliation timer");
    }
}

static void reconcile(evutil_socket_t, short, void*) {
    const InsideGate inside;
    armReconciliation(iInterval * KSecond);
    // The first step comes a second later: what the data model answers meanwhile counts in its decision.
    callInPcbDataModelEventLoop();
    reconcileDynDnsConfiguration();
}

int64_t firstReconciliationDelay(long intervalSeconds, uint64_t random) {
    return static_cast<int64_t>(random % (static_cast<uint64_t>(intervalSeconds) * KSecond));
}

// Differs from gateway to gateway, also where the system has no random numbers yet.
static uint64_t randomNumber() {
    uint64_t number = 0;
    if (getrandom(&number, sizeof number, GRND_NONBLOCK) == sizeof number) return number;
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    // The nanoseconds since the power came back, spread over all numbers.
    return (static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec)) *
           0x9E3779B97F4A7C15;
}

void startReconciliation() {
    if (iInterval == 0) return;
    iTimer = event_new(iBusEventBase, -1, 0, reconcile, nullptr);
    if (!iTimer) {
        LOG(ERROR, "Cannot create reconciliation timer");
        return;
    }
    armReconciliation(firstReconciliationDelay(iInterval, randomNumber()));
}
