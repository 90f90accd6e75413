// The OrvoServiceManager daemon: command line, start-up order, the bus thread, and the one end of the process.
#include <event2/event.h>
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/conffile/conffile.h"
#include "common/gate/gate.h"
#include "common/log/log.h"
#include "pcblib/pcbclient.h"
#include "src/dbusinterface/event_pipe.h"
#include "src/dbusinterface/gateway_client.h"
#include "src/dbusinterface/reconciliation.h"
#include "src/dbusinterface/service_store.h"
#include "src/dyndnsrequest/dyndnsrequest.h"
#include "src/main/cgnat_check.h"
#include "src/main/daemonize.h"
#include "src/main/data_model_watch.h"
#include "src/main/event_writer.h"
#include "src/main/pidfile.h"
#include "src/main/public_interface.h"
#include "src/main/startup_config.h"
#include "src/orvoservicesinfo/orvoservicesinfo.h"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "src/main";

static constexpr const char* KOrsmVersion = ORSM_VERSION;
static constexpr const char* KOrsmPidFileName = "/var/run/orvoservicemanager.pid";

// How long the bus thread waits for the first values of the watched parameters.
static constexpr int KFirstValuesMilliseconds = 5000;
// How long the orderly end may take once the bus thread is stopped.
static constexpr suseconds_t KEndMicroseconds = 800'000;
// The longest time from the signal to the end of the process.
static constexpr unsigned KLongestEndSeconds = 3;

// The bus thread's stack. The default is too small with musl (128 KiB): parsing an answer nested 999 levels deep takes
// 104 KB.
static constexpr size_t KStackSize = size_t{512} * 1024;

static struct event_base* iEventBase;
static pthread_t iDbusThread;
static sem_t iStoreLoaded;         // posted once
static int iFirstValuesSent = -1;  // an eventfd, readable once the first values are sent
static std::atomic<int> iEndStatus = 0;

extern "C" void __lsan_do_leak_check() __attribute__((weak));

// Removes the pid file and ends the process at once. Safe in a signal handler.
[[noreturn]] static void endAtOnce(int status) {
    unlink(KOrsmPidFileName);
    _exit(status);
}

// ----- Signals

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

// Used until the data-model loop runs: start-up may be waiting for a bus that never answers.
static void endDuringStartUp(int) { endAtOnce(0); }

// Used when the orderly end takes too long. A system log that has stopped reading can block both threads.
static void endAtTheLimit(int) { endAtOnce(iEndStatus); }

static void endLoop(int) {
    alarm(KLongestEndSeconds);
    endPcbDataModelEventLoop();
}

// A signal that the parent process has left blocked would never arrive.
static void unblockSignals() {
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

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

// ----- The end of the process

// From now on the process ends at once when its orderly end takes too long, for example with a hung data model.
static void limitTheEnd(int status) {
    iEndStatus = status;
    const itimerval limit = {
        {                },
        { 0, KEndMicroseconds}
    };
    setitimer(ITIMER_REAL, &limit, nullptr);
}

// Ends the process while the bus thread runs, which may be inside a server request. Returning from main would run the
// libraries' exit handlers during that request. So this closes the gate, which the bus thread then never passes again,
// releases what there is to release, and ends the process at once.
[[noreturn]] static void endProcess(int status) {
    closeGateForever();
    limitTheEnd(status);
    putConnectionModeBack(iPcbContext);
    releaseParameterWatch();
    releaseCgNatCheck();
    destroyPcbDataModelClient();
    cleanRequestsEngine();
    cleanOrvoServicesInfo();
    fflush(nullptr);
    if (__lsan_do_leak_check) {
        handleSignal(SIGALRM, SIG_IGN);
        __lsan_do_leak_check();
    }
    endAtOnce(status);
}

// ----- The bus thread

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

static void* dbusThreadLoop(void*) {
    blockSignals();
    awaitStart();
    while (event_base_dispatch(iEventBase) > 0) {
    }
    // Nobody can reach this process any more. It ends, so that its supervisor starts a new one.
    LOG(ERROR, "Event loop of the bus thread has ended");
    endAtOnce(1);
}

static bool startBusThread() {
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) return false;
    pthread_attr_setstacksize(&attributes, KStackSize);
    const int result = pthread_create(&iDbusThread, &attributes, dbusThreadLoop, nullptr);
    pthread_attr_destroy(&attributes);
    return result == 0;
}

static void onObjectChanged(const char* path, object_t* object) {
    pcbObjectChanged(path, object);
    if (areInitialValuesSent()) (void)eventfd_write(iFirstValuesSent, 1);
}

// What a reconciliation asks for before it synchronizes.
static void renewWatch() {
    renewParameterWatch();
    renewCgNatCheck();
}

// Subscribes to everything that is watched, and runs the data-model loop if all of it succeeded; ends the process.
[[noreturn]] static void watchDataModel() {
    setPcbChangesCallbacks(onObjectChanged, pcbParamChanged);
    setPcbFunctionCallback(pcbFunctionCallback);
    setPcbRequestLostCallback(pcbRequestLost);
    setPcbLoopCallback(renewWatch);

    // Both are tried even when the first fails, so that each failure is logged.
    const bool watches = watchParameters();
    const bool queries = startWanQuery();
    const bool ended = watches && queries && startPcbDataModelEventLoop();
    endProcess(ended ? 0 : 1);
}

// The rest of the start, after the pid file. Returns the exit status only when it fails before the bus thread runs.
static int serve() {
    iEventBase = event_base_new();
    if (!iEventBase) {
        LOG(ERROR, "Cannot start event loop");
        return 1;
    }
    iPipeForPcbChanges = createPipeForProvidingChangesInDataModel(iEventBase);
    if (!iPipeForPcbChanges) {
        LOG(ERROR, "Cannot create pipe for listening pcb changes");
        return 1;
    }
    if (!enableDbusPublicInterface(iEventBase)) {
        LOG(ERROR, "Cannot enable dbus");
        return 1;
    }
    sem_init(&iStoreLoaded, 0, 0);
    iFirstValuesSent = eventfd(0, EFD_CLOEXEC);  // without it the bus thread serves when its time is over
    if (!startBusThread()) {
        LOG(ERROR, "Could not create thread for dbus handling");
        return 1;
    }
    loadOrvoServiceData();
    sem_post(&iStoreLoaded);
    handleSignal(SIGALRM, endAtTheLimit);
    if (!createPcbDataModelClient()) endProcess(1);

    handleEndSignals(endLoop);
    wakeOnHangup([] { (void)connection_setEventsAvailable(); });
    watchDataModel();
}

static int runDaemon(const char* configurationPath) {
    int daemonize = 0;
    {
        const OwnedConfig configuration = configFileLoad(configurationPath);
        if (!configuration) {
            printf("Error loading configuration file from path %s\n", configurationPath);
            return 1;
        }
        if (!initByConfig(configuration.get(), &daemonize)) {
            puts("Configuration file broken or no required parameters given");
            return 1;
        }
    }
    LOG(INFO, "OrvoServiceManager version %s", KOrsmVersion);
    if (daemonize) {
        if (daemon(0, 0) != 0) {
            LOG(ERROR, "Cannot demonize process!");
            return 1;
        }
        LOG(INFO, "Process demonized properly");
    }

    handleEndSignals(endDuringStartUp);
    if (!write_pidfile(KOrsmPidFileName)) return 1;
    const int status = serve();
    unlink(KOrsmPidFileName);
    return status;
}

// A closed standard stream would give its number to a socket later, and log lines would be written to that socket.
static void occupyStandardStreams() {
    for (int stream = 0; stream <= 2; ++stream) {
        if (fcntl(stream, F_GETFD) < 0) (void)open("/dev/null", O_RDWR);
    }
}

// Makes glibc give the memory of a long message or answer back to the system. By default it keeps blocks up to the size
// of the largest one freed, and does not merge freed small blocks, such as the nodes of a parsed answer.
static void giveMemoryBack() {
#if defined(M_MMAP_THRESHOLD) && defined(M_MXFAST)
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
    mallopt(M_MXFAST, 0);
#endif
}

int main(int argc, char** argv) {
    giveMemoryBack();
    unblockSignals();
    occupyStandardStreams();
    // A file that may not grow and a pipe without a reader are failed writes like any other.
    signal(SIGXFSZ, SIG_IGN);
    signal(SIGPIPE, SIG_IGN);
    unsetenv("SSLKEYLOGFILE");  // libcurl would write the secrets of its connections into that file
    if (argc == 2 && strcmp(argv[1], "-v") == 0) {
        printf("Version: %s\n", KOrsmVersion);
        return 1;
    }
    if (argc == 3 && strcmp(argv[1], "-c") == 0) return runDaemon(argv[2]);
    puts("Usage:");
    puts("-c configuration-file-path - run with configuration from given path");
    puts("-v - prints version");
    return 1;
}
