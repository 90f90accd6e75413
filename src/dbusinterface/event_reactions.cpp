#include "src/dbusinterface/event_reactions.h"

#include <cstring>

#include "common/log/one_text_format.h"
#include "common/text/text.h"
#include "src/dbusinterface/data_model_names.h"
#include "src/dbusinterface/dyndns_state.h"
#include "src/dbusinterface/dyndns_sync.h"
#include "src/dbusinterface/service_store.h"
#include "src/dyndnsrequest/dyndnsrequest.h"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "src/dbusinterface";

static void useApplicationServer(const char* url) {
    iApplicationServerUrlDefined = 1;
    // The old address stays in use until the next change.
    if (*url && !setApplicationServerUrl(url)) LOG(ERROR, "No memory to keep application server URL");
}

static void onApplicationServerInit(const char* url) { useApplicationServer(url); }

static void onApplicationServerChanged(const char* url) {
    if (*url) useApplicationServer(url);
    saveOrvoServiceData();
}

static void onCommunicationServerChanged(const char*) { saveOrvoServiceData(); }

static void copyHomeAutomationId(const char* id) {
    // Pads with zeros and never writes the last byte, which stays zero.
    strncpy(iHomeAutomationId, id, sizeof iHomeAutomationId - 1);
}

static void onHomeAutomationIdInit(const char* id) {
    copyHomeAutomationId(id);
    const OwnedText unfinished = easyGetPcbParamAsString(iBusPcbClient, KDynDnsObject, KSyncNotFinished);
    if (!unfinished) {
        LOG(WARN, "Cannot determine state of previous DynDNS synchronization");
        return;
    }
    if (!isDataModelTrue(unfinished.get())) return;
    LOG(INFO, "Continuing unfinished DynDNS synchronization");
    synchronizeDynDnsConfiguration();
}

static void onHomeAutomationIdChanged(const char* id) {
    copyHomeAutomationId(id);
    forgetOwedPush();  // it was for the registration of the HA-ID before
    LOG(INFO, "Synchronizing DynDNS in reaction to HA-ID change");
    synchronizeDynDnsConfiguration();
}

// The first value starts nothing: an unfinished synchronization goes on with the HA-ID, and a finished one is not made
// again at each start.
static void onHomeAutomationEnable(const char* value) {
    const TriState previous = iHomeAutomationEnable;
    iHomeAutomationEnable = triStateOf(value);
    if (previous == TRI_UNKNOWN) return;
    LOG(INFO, "Synchronizing DynDNS in reaction to HA enable change");
    synchronizeDynDnsConfiguration();
}

static void onDnsServerStatus(const char* value) { iDnsServerStatus = triStateOf(value); }

static void onCgNatStatus(const char* value) {
    const TriState previous = iIsBehindCgNat;
    iIsBehindCgNat = triStateOf(value);
    if (previous == TRI_UNKNOWN || previous == iIsBehindCgNat) return;
    LOG(INFO, "Synchronizing DynDNS in reaction to CG-NAT change");
    synchronizeDynDnsConfiguration();
}

static void onDynDnsEnableInit(const char* value) { iDynDnsEnable = triStateOf(value); }

// The switch as it is now; as it was reported when it cannot be read.
static TriState presentDynDnsEnable(TriState reported) {
    const OwnedText present = easyGetPcbParamAsString(iBusPcbClient, KDynDnsObject, KDynDnsEnable);
    return present ? triStateOf(present.get()) : reported;
}

// A report may be older than the last own write. Whether somebody else has changed the switch is told by what the data
// model holds now.
static void onDynDnsEnableChanged(const char* value) {
    const TriState reported = triStateOf(value);
    if (reported == iUnansweredEnable) {  // the own write that was not answered has taken effect
        iUnansweredEnable = TRI_UNKNOWN;
        iDynDnsEnable = reported;
        return;
    }
    if (reported == iDynDnsEnable) return;
    const TriState present = presentDynDnsEnable(reported);
    if (present == iDynDnsEnable) return;
    iDynDnsEnable = present;
    pushDynDnsEnable();
}

namespace {

struct Reaction {
    EventCode code;
    OneTextFormat line;
    void (*react)(const char* value);  // null: the record is ignored without a line
};

}  // namespace

static constexpr Reaction KReactions[] = {
    {EVENT_APP_SERVER_URL_INIT,       "Application server URL init value: %s", onApplicationServerInit     },
    {EVENT_APP_SERVER_URL_CHANGED,    "Application server URL changed: %s",    onApplicationServerChanged  },
    {EVENT_COMM_SERVER_URL_INIT,      {},                                      nullptr                     },
    {EVENT_COMM_SERVER_URL_CHANGED,   "Communication server URL changed: %s",  onCommunicationServerChanged},
    {EVENT_HA_ID_INIT,                "HA-ID value: %s",                       onHomeAutomationIdInit      },
    {EVENT_HA_ID_CHANGED,             "HA-ID value: %s",                       onHomeAutomationIdChanged   },
    {EVENT_HA_ENABLE_INIT,            "HA enable: %s",                         onHomeAutomationEnable      },
    {EVENT_HA_ENABLE_CHANGED,         "HA enable: %s",                         onHomeAutomationEnable      },
    {EVENT_DNS_SERVER_STATUS_INIT,    "DNS server status: %s",                 onDnsServerStatus           },
    {EVENT_DNS_SERVER_STATUS_CHANGED, "DNS server status: %s",                 onDnsServerStatus           },
    {EVENT_WAN_ADDRESS_CHANGED,       {},                                      nullptr                     },
    {EVENT_CGNAT_STATUS_INIT,         "CG-NAT status: %s",                     onCgNatStatus               },
    {EVENT_CGNAT_STATUS_CHANGED,      "CG-NAT status: %s",                     onCgNatStatus               },
    {EVENT_DYNDNS_ENABLE_INIT,        "DynDNS enable: %s",                     onDynDnsEnableInit          },
    {EVENT_DYNDNS_ENABLE_CHANGED,     "DynDNS enable: %s",                     onDynDnsEnableChanged       },
};

// Every code has its row, in the place of its number.
static consteval bool isComplete() {
    size_t rows = 0;
    while (rows < std::size(KReactions) && KReactions[rows].code == rows) {
        ++rows;
    }
    return rows == EVENT_COUNT;
}
static_assert(isComplete());

void reactToEvent(const EventRecord& record) {
    if (record.code >= EVENT_COUNT) {
        LOG(WARN, "Unknown event");
        return;
    }
    const Reaction& reaction = KReactions[record.code];
    if (!reaction.react) return;
    LOG_TEXT(LEVEL_INFO, reaction.line, record.value);
    reaction.react(record.value);
}
