// The synchronization: keeps the registration on the application server and its copy in the data model in agreement.
#pragma once

#include <event2/event.h>

#include "src/dbusinterface/dyndns_state.h"

extern struct event_base* iBusEventBase;  // the bus thread's loop, not owned; set by the public bus interface
extern struct event* iDynDnsSyncTimer;    // made at the first start, kept for the life of the process
extern int iDynDnsSyncRetryInterval;      // seconds until the retry after the next failed step

/// What one step decides on.
struct SyncState {
    const char* haId;
    TriState homeAutomationEnable;
    TriState dnsServerStatus;
    TriState isBehindCgNat;
    bool applicationServerUrlDefined;
};

enum class SyncAction { SwitchOff, RetryLater, FetchAndStore };

struct SyncDecision {
    SyncAction action;
    int level;           // of the log line
    const char* reason;  // the log line; null for none
};

/// The decision of one step, without doing anything. Any thread.
SyncDecision decideSync(const SyncState& state);

/// Starts or restarts a synchronization: the first step runs in 1 s, and the retry schedule starts over. Bus thread.
void synchronizeDynDnsConfiguration();

/// One attempt; the timer's callback, arguments unused. Holds the gate. Bus thread; blocks for the GatewayClient wait
/// and the server request.
void runDynDnsSyncStep(evutil_socket_t, short, void*);

/// Sends the stored host name and the current enable flag to the server. True when the server accepted them, or there
/// is no host name to send; a failure is logged and not retried. Bus thread; blocks like a step.
[[nodiscard]] bool setupDynDnsOnServer();

/// Sends a switch that somebody else has changed to the server, as setupDynDnsOnServer does. While a step's answer is
/// stored only in part, the data model's host name may not be the server's: the push then waits for the step that
/// stores it whole. Bus thread; blocks like a step.
void pushDynDnsEnable();

/// Forgets a push that the server did not take: server and data model agree otherwise now. Bus thread.
void forgetOwedPush();

/// Starts a synchronization that nothing has triggered, unless one is under way (logged). A push that the server did
/// not take goes out before the server is asked; it is given up (logged) when the server has refused it until the next
/// reconciliation. Bus thread.
void reconcileDynDnsConfiguration();

/// Switches DynDNS off in the data model if it is on as far as is known here, and saves the tree; the server is not
/// asked. Bus thread; blocks for the exchanges.
void disableDynDnsInPcb();
