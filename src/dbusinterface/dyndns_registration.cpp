#include "src/dbusinterface/dyndns_registration.h"

#include <cstring>

#include "src/dbusinterface/data_model_names.h"
#include "src/dbusinterface/dyndns_state.h"
#include "src/dbusinterface/service_store.h"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "src/dbusinterface";

bool storeDynDnsEnable(bool enable) {
    const TriState value = enable ? TRI_TRUE : TRI_FALSE;
    if (!easySetPcbParamBoolValue(iBusPcbClient, KDynDnsObject, KDynDnsEnable, enable)) {
        // A write that was not answered in time may take effect later. It is reported only if it changes the value.
        iUnansweredEnable = value == iDynDnsEnable ? TRI_UNKNOWN : value;
        return false;
    }
    iUnansweredEnable = TRI_UNKNOWN;
    // Set before the data model reports this change, so that the report is not pushed back to the server.
    iDynDnsEnable = value;
    LOG(INFO, enable ? "DynDNS enable=true saved in PCB" : "DynDNS enable=false saved in PCB");
    return true;
}

static bool clearHostName() {
    if (!easyClearPcbParam(iBusPcbClient, KDynDnsObject, KHostName)) {
        LOG(ERROR, "Cannot clear DynDNS hostname value in PCB");
        return false;
    }
    LOG(INFO, "DynDNS empty hostname saved in PCB");
    return true;
}

bool storeDynDnsHostName(const char* name) {
    if (!*name) return clearHostName();
    if (!easySetPcbParam(iBusPcbClient, KDynDnsObject, KHostName, name)) {
        LOG(ERROR, "Cannot set DynDNS hostname value in PCB");
        return false;
    }
    LOG(INFO, "DynDNS hostname %s saved in PCB", name);
    return true;
}

bool checkServerResponseStatusAndResult(const cJSON* answer, bool* isSuccess) {
    const char* status = jsonTextMember(answer, "status");
    if (!status) return false;
    *isSuccess = strcmp(status, "SUCCESS") == 0;
    return true;
}

OwnedJson parseSuccessfulAnswer(const char* body, const OneTextFormat& statusWarning) {
    OwnedJson answer = parseJson(body);
    bool isSuccess = false;
    if (!checkServerResponseStatusAndResult(answer.get(), &isSuccess)) return nullptr;
    if (isSuccess) return answer;
    LOG_TEXT(LEVEL_WARN, statusWarning, jsonTextMember(answer.get(), "status"));
    return nullptr;
}
