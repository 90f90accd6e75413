#include "src/dbusinterface/dyndns_state.h"

#include "common/text/text.h"

char iHomeAutomationId[KHomeAutomationIdSize];
TriState iHomeAutomationEnable;
TriState iDnsServerStatus;
TriState iIsBehindCgNat;
TriState iDynDnsEnable;
TriState iUnansweredEnable;
int iApplicationServerUrlDefined;

const char* getHomeAutomationId() { return iHomeAutomationId; }

TriState triStateOf(const char* text) { return isDataModelTrue(text) ? TRI_TRUE : TRI_FALSE; }
