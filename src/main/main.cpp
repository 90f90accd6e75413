// The OrvoServiceManager daemon: the command line and the order of the start.
#include <event2/event.h>
#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/conffile/conffile.h"
#include "common/log/log.h"
#include "pcblib/pcbclient.h"
#include "src/dbusinterface/event_pipe.h"
#include "src/dbusinterface/service_store.h"
#include "src/main/bus_thread.h"
#include "src/main/cgnat_check.h"
#include "src/main/daemonize.h"
#include "src/main/data_model_watch.h"
#include "src/main/event_writer.h"
#include "src/main/pidfile.h"
#include "src/main/process_end.h"
#include "src/main/public_interface.h"
#include "src/main/startup_config.h"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "src/main";

static constexpr const char* KOrsmVersion = ORSM_VERSION;

static struct event_base* iEventBase;  // the bus thread's; lives as long as the process

// What a reconciliation asks for before it synchronizes.
static void renewWatch() {
    renewParameterWatch();
    renewCgNatCheck();
}

// Subscribes to everything that is watched, and runs the data-model loop if all of it succeeded; ends the process.
[[noreturn]] static void watchDataModel() {
    setInitialValuesCallback(tellFirstValuesAreSent);
    setPcbChangesCallbacks(pcbObjectChanged, pcbParamChanged);
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
    if (!startBusThread(iEventBase)) {
        LOG(ERROR, "Could not create thread for dbus handling");
        return 1;
    }
    loadOrvoServiceData();
    tellStoreIsLoaded();
    if (!createPcbDataModelClient()) endProcess(1);

    endLoopOnSignals();
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

    endAtOnceOnSignals();
    if (!write_pidfile(KOrsmPidFileName)) return 1;
    const int status = serve();
    unlink(KOrsmPidFileName);
    return status;
}

// A signal that the parent process has left blocked would never arrive.
static void unblockSignals() {
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
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
