#include "src/main/bus_thread.h"

#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/eventfd.h>

#include "common/log/log.h"
#include "src/dbusinterface/event_pipe.h"
#include "src/dbusinterface/reconciliation.h"
#include "src/main/process_end.h"
#include "src/main/public_interface.h"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "src/main";

static constexpr int KFirstValuesMilliseconds = 5000;

// The default is too small with musl (128 KiB): parsing an answer nested 999 levels deep takes 104 KB.
static constexpr size_t KStackSize = size_t{512} * 1024;

static pthread_t iDbusThread;
static sem_t iStoreLoaded;         // posted once
static int iFirstValuesSent = -1;  // an eventfd, readable once the first values are sent

// The main thread handles all signals, so that none interrupts a wait of the bus thread. Signals of program faults stay
// unblocked.
static void blockSignals() {
    sigset_t all;
    sigfillset(&all);
    for (int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS}) {
        sigdelset(&all, fault);
    }
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
}

// A call served before the store is loaded could save the defaults over the stored file. A call served before the first
// values are known would not find the HA-ID, and its own change would be taken for a first value.
static void awaitStart() {
    (void)sem_wait(&iStoreLoaded);  // no signal interrupts it: this thread has them blocked
    pollfd sent = {iFirstValuesSent, POLLIN, 0};
    (void)poll(&sent, 1, KFirstValuesMilliseconds);
    prepareToServeDbus();
    handleWaitingEventPipeRecords();
    startReconciliation();
}

static void* dbusThreadLoop(void* base) {
    blockSignals();
    awaitStart();
    while (event_base_dispatch(static_cast<event_base*>(base)) > 0) {
    }
    // Nobody can reach this process any more. It ends, so that its supervisor starts a new one.
    LOG(ERROR, "Event loop of the bus thread has ended");
    endAtOnce(1);
}

bool startBusThread(struct event_base* base) {
    sem_init(&iStoreLoaded, 0, 0);
    iFirstValuesSent = eventfd(0, EFD_CLOEXEC);  // without it the bus thread serves when its time is over
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) return false;
    pthread_attr_setstacksize(&attributes, KStackSize);
    const int result = pthread_create(&iDbusThread, &attributes, dbusThreadLoop, base);
    pthread_attr_destroy(&attributes);
    return result == 0;
}

void tellStoreIsLoaded() { sem_post(&iStoreLoaded); }

void tellFirstValuesAreSent() { (void)eventfd_write(iFirstValuesSent, 1); }
