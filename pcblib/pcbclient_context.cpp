// Client contexts: connecting and disconnecting.
#include "pcblib/pcbclient_internal.h"

static constexpr char KClientName[] = "tarvik_pcb_client";
static constexpr char KBusUri[] = "pcb://ipc:{/var/run/pcb_sys}";

PcbContext* iPcbContext;

static int iPcbLibraryUsers;

static bool useLibrary() {
    if (iPcbLibraryUsers == 0 && !connection_initLibrary()) {
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

static bool connectContext(PcbContext* context) {
    context->pcb = pcb_create(KClientName, 0, nullptr);
    if (!context->pcb) {
        LOG(ERROR, "Cannot create pcb client");
        return false;
    }
    pcb_client_set_attribute(context->pcb, PCB_CLIENT_OWN_OBJECTS, 0);
    context->peer = pcb_client_connect(context->pcb, KBusUri);
    if (context->peer) return true;
    LOG(ERROR, "Failed to connect to %s (0x%8.8X - %s), exiting", KBusUri, pcb_error, error_string(pcb_error));
    pcb_destroy(context->pcb);
    return false;
}

PcbContext* easyCreatePcbDataModelClient() {
    PcbContext* context = static_cast<PcbContext*>(calloc(1, sizeof(PcbContext)));
    if (!context) {
        LOG(ERROR, "No memory to create pcb context");
        return nullptr;
    }
    if (!useLibrary()) {
        free(context);
        return nullptr;
    }
    if (!connectContext(context)) {
        free(context);
        stopUsingLibrary();
        return nullptr;
    }
    connection_setTerminated(false);
    return context;
}

void easyDestroyPcbDataModelClient(PcbContext* context) {
    if (!context) return;
    pcb_destroy(context->pcb);
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
