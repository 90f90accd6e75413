// Client contexts: connecting and disconnecting.
#include <signal.h>

#include "pcblib/pcbclient_internal.h"

static constexpr char KClientName[] = "tarvik_pcb_client";
static constexpr char KBusUri[] = "pcb://ipc:{/var/run/pcb_sys}";

PcbContext* iPcbContext;

static int iPcbLibraryUsers;

namespace {

// Restores the program's handlers of SIGTERM and SIGINT at the end of its scope, in case the library replaced them.
struct KeepEndSignals {
    KeepEndSignals() {
        sigaction(SIGTERM, nullptr, &terminate_);
        sigaction(SIGINT, nullptr, &interrupt_);
    }
    ~KeepEndSignals() {
        sigaction(SIGTERM, &terminate_, nullptr);
        sigaction(SIGINT, &interrupt_, nullptr);
    }
    KeepEndSignals(const KeepEndSignals&) = delete;
    KeepEndSignals& operator=(const KeepEndSignals&) = delete;

    // Whether the library has SIGTERM now.
    bool areTaken() const {
        struct sigaction now;
        sigaction(SIGTERM, nullptr, &now);
        return now.sa_handler != terminate_.sa_handler;
    }

  private:
    struct sigaction terminate_, interrupt_;
};

// Blocks SIGTERM and SIGINT for its scope.
struct DelayEndSignals {
    DelayEndSignals() {
        sigset_t both;
        sigemptyset(&both);
        sigaddset(&both, SIGTERM);
        sigaddset(&both, SIGINT);
        pthread_sigmask(SIG_BLOCK, &both, &mask_);
    }
    ~DelayEndSignals() { pthread_sigmask(SIG_SETMASK, &mask_, nullptr); }
    DelayEndSignals(const DelayEndSignals&) = delete;
    DelayEndSignals& operator=(const DelayEndSignals&) = delete;

  private:
    sigset_t mask_;
};

}  // namespace

static bool initLibrary() {
    const DelayEndSignals delay;
    const KeepEndSignals keep;
    return connection_initLibrary();
}

// Connecting may take 5 s, too long to block the signals. A signal that the library took has set the library's flag.
static peer_info_t* connectToBus(pcb_t* pcb) {
    peer_info_t* peer = nullptr;
    bool lost = false;
    {
        const KeepEndSignals keep;
        peer = pcb_client_connect(pcb, KBusUri);
        lost = keep.areTaken() && connection_isTerminated();
    }
    if (lost) raise(SIGTERM);
    return peer;
}

static bool useLibrary() {
    if (iPcbLibraryUsers == 0 && !initLibrary()) {
        LOG(ERROR, "Cannot init pcb library");
        return false;
    }
    ++iPcbLibraryUsers;
    return true;
}

static void stopUsingLibrary() {
    if (iPcbLibraryUsers == 0) return;
    if (--iPcbLibraryUsers == 0) connection_exitLibrary();
}

namespace {

// One use of the library, given up with its scope unless it is kept.
struct LibraryUse {
    bool counts = useLibrary();

    LibraryUse() = default;
    ~LibraryUse() {
        if (counts) stopUsingLibrary();
    }
    LibraryUse(const LibraryUse&) = delete;
    LibraryUse& operator=(const LibraryUse&) = delete;

    void keep() { counts = false; }
};

}  // namespace

PcbContext* easyCreatePcbDataModelClient() {
    Owned<PcbContext, free> context(static_cast<PcbContext*>(calloc(1, sizeof(PcbContext))));
    if (!context) {
        LOG(ERROR, "No memory to create pcb context");
        return nullptr;
    }
    LibraryUse use;
    if (!use.counts) return nullptr;
    Owned<pcb_t, destroyClient> pcb(pcb_create(KClientName, 0, nullptr));
    if (!pcb) {
        LOG(ERROR, "Cannot create pcb client");
        return nullptr;
    }
    pcb_client_set_attribute(pcb.get(), KClientAttribute, 0);
    context->peer = connectToBus(pcb.get());
    if (!context->peer) {
        const uint32_t error = lastError();
        LOG(ERROR, "Failed to connect to %s (0x%8.8X - %s), exiting", KBusUri, error, errorText(error));
        return nullptr;
    }
    connection_setTerminated(false);
    context->pcb = pcb.release();
    use.keep();
    return context.release();
}

void easyDestroyPcbDataModelClient(PcbContext* context) {
    if (!context) return;
    if (context->pcb) pcb_destroy(context->pcb);
    free(context);
    stopUsingLibrary();
}

int createPcbDataModelClient() {
    if (iPcbContext) {
        LOG(ERROR, "Pcb data model singleton already created");
        return 0;
    }
    connection_setTerminated(false);
    iPcbContext = easyCreatePcbDataModelClient();
    return iPcbContext != nullptr;
}

void destroyPcbDataModelClient() {
    releasePendingWork();
    easyDestroyPcbDataModelClient(iPcbContext);
    iPcbContext = nullptr;
}
