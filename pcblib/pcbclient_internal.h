// What the files of the data-model client share.
#pragma once

#include "common/log/log.h"
#include "pcblib/pcbclient.h"

[[maybe_unused]] static constexpr char KLogCategory[] = "orvoservicemanager";
[[maybe_unused]] static constexpr char KLogModule[] = "pcblib/pcbclient";

extern PcbContext* iPcbContext;  // the singleton, or null

/// Sends queued calls, releases queued requests and makes queued subscriptions, each queue newest first. Main thread,
/// between two passes of the loop.
void drainPendingWork();

/// Releases what the queues hold, and the subscriptions that were made from them. Main thread, outside the loop.
void releasePendingWork();

/// Queues a call for drainPendingWork: false when memory is short.
[[nodiscard]] bool pushPendingExecution(request_t* request);

/// Sends a request through the singleton; a failure is logged.
[[nodiscard]] bool sendRequest(PcbContext* context, request_t* request);

/// Installs the handler of asynchronous calls and sends; a failure is logged.
[[nodiscard]] bool sendPreparedFunction(request_t* request);

/// Logs an error item.
void logErrorItem(const reply_item_t* item);

/// Makes the loop come round to the queues.
void wakeEventLoop();
