#include "src/dbusinterface/event_reactions.h"

#include <cstring>

#include "common/log/one_text_format.h"
#include "common/text/text.h"
#include "src/dbusinterface/dyndns_state.h"
#include "src/dbusinterface/dyndns_sync.h"
#include "src/dbusinterface/service_store.h"
#include "src/dyndnsrequest.h"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "src/dbusinterface";

static void useApplicationServer(const char* url) {
    iApplicationServerUrlDefined = 1;
    // A copy that cannot be made leaves the old address in use until the next change.
    if (*url) (void)setApplicationServerUrl(url);
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
    const OwnedText unfinished = easyGetPcbParamAsString(iBusPcbClient, getPcbObjectPathForDynDns(), "SyncNotFinished");
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
    LOG(INFO, "Synchronizing DynDNS in reaction to HA-ID change");
    synchronizeDynDnsConfiguration();
}

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

static void onDynDnsEnableChanged(const char* value) {
    const TriState previous = iDynDnsEnable;
    iDynDnsEnable = triStateOf(value);
    if (previous != iDynDnsEnable) (void)setupDynDnsOnServer();
}

namespace {

struct Reaction {
    OneTextFormat line;
    void (*react)(const char* value);  // null: the event is ignored without a line
};

}  // namespace

// By event code.
static constexpr Reaction KReactions[] = {
    {"Application server URL init value: %s", onApplicationServerInit     },
    {"Application server URL changed: %s",    onApplicationServerChanged  },
    {{},                                      nullptr                     },
    {"Communication server URL changed: %s",  onCommunicationServerChanged},
    {"HA-ID value: %s",                       onHomeAutomationIdInit      },
    {"HA-ID value: %s",                       onHomeAutomationIdChanged   },
    {"HA enable: %s",                         onHomeAutomationEnable      },
    {"HA enable: %s",                         onHomeAutomationEnable      },
    {"DNS server status: %s",                 onDnsServerStatus           },
    {"DNS server status: %s",                 onDnsServerStatus           },
    {{},                                      nullptr                     },
    {"CG-NAT status: %s",                     onCgNatStatus               },
    {"CG-NAT status: %s",                     onCgNatStatus               },
    {"DynDNS enable: %s",                     onDynDnsEnableInit          },
    {"DynDNS enable: %s",                     onDynDnsEnableChanged       },
};
static_assert(sizeof KReactions / sizeof *KReactions == EVENT_COUNT);

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
