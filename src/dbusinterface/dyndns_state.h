// What the bus thread knows of the conditions for a DynDNS registration. Read and written on the bus thread only; zero
// at start.
#pragma once

enum TriState : int { TRI_UNKNOWN = 0, TRI_TRUE = 1, TRI_FALSE = 2 };

constexpr int KHomeAutomationIdSize = 128;

extern char iHomeAutomationId[KHomeAutomationIdSize];  // the gateway's HA-ID, at most 127 bytes; empty while unknown
extern TriState iHomeAutomationEnable;
extern TriState iDnsServerStatus;         // true: the gateway's DNS server is ready
extern TriState iIsBehindCgNat;           // true: behind carrier-grade NAT
extern TriState iDynDnsEnable;            // "Enable" of the DynDNS object as last known here
extern TriState iUnansweredEnable;        // what a write of "Enable" that failed may still set it to
extern int iApplicationServerUrlDefined;  // 1 once the initial address has come, empty or not

/// The HA-ID buffer itself, not a copy; an empty text while the HA-ID is unknown. Bus thread.
const char* getHomeAutomationId();

/// True for "true" and exactly "1", false for any other text (not null). Any thread.
TriState triStateOf(const char* text);
