#include "src/dbusinterface/service_store.h"

#include "common/log/log.h"
#include "src/dbusinterface/data_model_names.h"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "src/dbusinterface";

static constexpr char KStoreFolder[] = "/media";
static constexpr char KStoreFile[] = "orvoservice.odl";

PcbContext* iBusPcbClient;

PcbContext* helperPcbDataModelClient() { return iBusPcbClient; }

void loadOrvoServiceData() {
    if (!easyPcbDatamodelLoad_v2(iBusPcbClient, KStoreFolder, KStoreFile, KOrvoServiceObject)) {
        LOG(ERROR, "Cannot load OrvoService object");
    }
}

void saveOrvoServiceDataThrough(PcbContext* client) {
    // Fetched one by one so that the client holds the current values of all four; what fails is logged there.
    for (const char* object : {KDynDnsObject, KVoltaroObject, KGatewayClientObject, KServersObject}) {
        (void)easyGetPcbObject(client, object);
    }
    if (!easyPcbDatamodelSave_v2(client, KStoreFolder, KStoreFile, KOrvoServiceObject)) {
        LOG(ERROR, "Cannot save OrvoService object");
    }
}

void saveOrvoServiceData() { saveOrvoServiceDataThrough(iBusPcbClient); }
