// The OrvoServiceManager daemon: command line, start-up order, the bus thread, and the one end of the process.
#include <event2/event.h>
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <span>

#include "common/conffile/conffile.h"
#include "common/gate/gate.h"
#include "common/log/log.h"
#include "pcblib/pcbclient.h"
#include "src/dbusinterface/event_pipe.h"
#include "src/dbusinterface/public_interface.h"
#include "src/dbusinterface/service_store.h"
#include "src/dyndnsrequest.h"
#include "src/main/data_model_watch.h"
#include "src/main/pidfile.h"
#include "src/main/startup_config.h"
#include "src/orvoservicesinfo.h"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "src/main";

static constexpr const char* KOrsmVersion = "0.4.0";
static constexpr const char* KOrsmPidFileName = "/var/run/orvoservicemanager.pid";

static struct event_base* iEventBase;
static pthread_t iDbusThread;
static sem_t iStoreLoaded;  // posted once: from then on the bus thread serves the bus

extern "C" void __lsan_do_leak_check() __attribute__((weak));

// The end of the process once the bus thread lives, which may be anywhere, a server request included. Returning from
// main would run the libraries' exit handlers beside that request; so what is released is released here, behind the
// gate that the bus thread never passes again, and the process ends at once.
[[noreturn]] static void endProcess(int status, std::span<request_t* const> requests) {
    closeGateForever();
    for (request_t* request : requests) {
        freePcbRequestObject(request);
    }
    freePcbRequestObject(iRequestWanChangeNotify);
    releasePendingCgNatChecks();
    destroyPcbDataModelClient();
    cleanRequestsEngine();
    cleanOrvoServicesInfo();
    unlink(KOrsmPidFileName);
    fflush(nullptr);
    if (__lsan_do_leak_check) __lsan_do_leak_check();
    _exit(status);
}

// Signals are the main thread's: nothing that the bus thread waits for is ever cut short. Faults of its own code stay
// deliverable.
static void blockSignals() {
    sigset_t all;
    sigfillset(&all);
    for (int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS}) {
        sigdelset(&all, fault);
    }
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
}

static void* dbusThreadLoop(void*) {
    blockSignals();
    // A call served before the store is loaded could save the defaults over the stored file.
    while (sem_wait(&iStoreLoaded) != 0 && errno == EINTR) {
    }
    while (event_base_dispatch(iEventBase) > 0) {
    }
    return nullptr;
}

// Until the data-model loop is there to be ended in order, SIGTERM and SIGINT end the process on the spot: start-up may
// be waiting for a bus that never answers, and nothing it has made outlives the process but the pid file.
static void endDuringStartUp(int) {
    unlink(KOrsmPidFileName);
    _exit(0);
}

namespace {

struct SignalActions {
    struct sigaction onTerminate, onInterrupt;
};

}  // namespace

// The result is what the data-model library does on the two signals, for giveEndSignalsBack.
static SignalActions takeEndSignals() {
    // The library takes the signals over when it is first set up; only then may others be put in their place.
    (void)connection_initLibrary();
    struct sigaction atOnce = {};
    atOnce.sa_handler = endDuringStartUp;
    SignalActions before;
    sigaction(SIGTERM, &atOnce, &before.onTerminate);
    sigaction(SIGINT, &atOnce, &before.onInterrupt);
    return before;
}

static void giveEndSignalsBack(const SignalActions& before) {
    sigaction(SIGTERM, &before.onTerminate, nullptr);
    sigaction(SIGINT, &before.onInterrupt, nullptr);
}

// Subscribes to everything that is watched, and runs the data-model loop if all of it succeeded; ends the process.
[[noreturn]] static void watchDataModel() {
    setPcbChangesCallbacks(pcbObjectChanged, pcbParamChanged);
    setPcbFunctionCallback(pcbFunctionCallback);
    setPcbRequestLostCallback(pcbRequestLost);

    request_t* const requests[] = {
        listenToChangesInPcbObject("OrvoService.HomeAutomation"),
        listenToChangesInPcbObject("NMC.HomeAutomation"),
        listenToChangesInPcbObject("DNS.Server"),
        listenToChangesInPcbObject(getPcbObjectPathForDynDns()),
        executeWanChangeQuery("closeQuery"),
        executeWanChangeQuery("openQuery"),
    };
    bool complete = true;
    for (const request_t* request : requests) {
        complete = complete && request;
    }
    const bool ended = complete && startPcbDataModelEventLoop();
    endProcess(ended ? 0 : 1, requests);
}

// Everything behind the pid file; comes back, with the exit status, only while there is no bus thread.
static int serve(const SignalActions& loopActions) {
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
    if (pthread_create(&iDbusThread, nullptr, dbusThreadLoop, nullptr) != 0) {
        LOG(ERROR, "Could not create thread for dbus handling");
        return 1;
    }
    loadOrvoServiceData();
    sem_post(&iStoreLoaded);
    if (!createPcbDataModelClient()) endProcess(1, {});

    giveEndSignalsBack(loopActions);
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

    const SignalActions loopActions = takeEndSignals();
    if (!write_pidfile(KOrsmPidFileName)) return 1;
    const int status = serve(loopActions);
    unlink(KOrsmPidFileName);
    return status;
}

// A standard stream that is closed at the start would be the number of some socket later, and log lines would go there.
static void occupyStandardStreams() {
    for (int stream = 0; stream <= 2; ++stream) {
        if (fcntl(stream, F_GETFD) < 0) (void)open("/dev/null", O_RDWR);
    }
}

int main(int argc, char** argv) {
    occupyStandardStreams();
    signal(SIGXFSZ, SIG_IGN);  // a file that may not grow is a failed write like any other
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
