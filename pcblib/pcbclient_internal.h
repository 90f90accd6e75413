// What the files of the data-model client share.
#pragma once

#include <type_traits>

#include "common/log/log.h"
#include "common/owned/owned.h"
#include "pcblib/pcbclient.h"

[[maybe_unused]] static constexpr char KLogCategory[] = "orvoservicemanager";
[[maybe_unused]] static constexpr char KLogModule[] = "pcblib/pcbclient";

/// The library's code of a failure: its own type, which may be an enumeration; the last one as a number; a code's text.
using PcbError = std::remove_cvref_t<decltype(pcb_error)>;
inline uint32_t lastError() { return static_cast<uint32_t>(pcb_error); }
inline const char* errorText(uint32_t code) { return error_string(static_cast<PcbError>(code)); }

/// Sets the library's code to that of a client without a connection.
inline void setNotConnected() { pcb_error = static_cast<PcbError>(KErrorNotConnected); }

/// What a library may hand out as constant.
template <class Handle>
Handle* handleOf(const Handle* handle) {
    return const_cast<Handle*>(handle);
}

/// Release what they are given. The library's own functions may be macros.
inline void destroyClient(pcb_t* client) { pcb_destroy(client); }
inline void destroyRequest(request_t* request) { request_destroy(request); }

/// A request that keepRequest has not taken over.
using OwnedRequest = Owned<request_t, destroyRequest>;

/// A variant on the stack that releases what it holds; `ready` says whether it can be used.
struct ScopedVariant {
    variant_t variant;
    bool ready;

    ScopedVariant() : ready(variant_initialize(&variant)) {}
    ~ScopedVariant() {
        if (ready) variant_cleanup(&variant);
    }
    ScopedVariant(const ScopedVariant&) = delete;
    ScopedVariant& operator=(const ScopedVariant&) = delete;
};

/// A list of one connection to wait on; `ready` is false when there is none.
struct ConnectionList {
    llist_t list;
    bool ready;

    explicit ConnectionList(connection_info_t* connection) : ready(connection) {
        (void)llist_initialize(&list);
        if (connection) (void)llist_append(&list, connection_listLink(connection));
    }
    ~ConnectionList() { llist_cleanup(&list); }
    ConnectionList(const ConnectionList&) = delete;
    ConnectionList& operator=(const ConnectionList&) = delete;
};

/// Sends queued calls, releases queued requests and makes queued subscriptions, each queue newest first. Main thread,
/// between two passes of the loop.
void drainPendingWork();

/// Releases what waits to be released, the queued paths and the subscriptions that were made from them; drops queued
/// calls, which are their owners'. Main thread, outside the loop.
void releasePendingWork();

/// Queues a call for drainPendingWork; the call stays its owner's. False when out of memory. Main thread.
[[nodiscard]] bool pushPendingExecution(request_t* request);

/// Logs why a request could not be created.
void logCreateFailure();

/// Takes in a request as it was created (null when that failed, which is logged), and makes what its release from a
/// callback will need, so that this never lacks memory. The request, to be released with freePcbRequestObject, or null
/// with nothing left. Main thread.
[[nodiscard]] request_t* keepRequest(request_t* created);

/// Sends a request through `context` (not null); false after a failure, which is logged. The request stays the
/// caller's. The context's thread.
[[nodiscard]] bool sendRequest(PcbContext* context, request_t* request);

/// Installs the handler of asynchronous calls and sends through the singleton; false after a failure, which is logged.
/// The request stays the caller's. Main thread.
[[nodiscard]] bool sendPreparedFunction(request_t* request);

/// Logs why a wait failed.
void logWaitFailure();

/// Logs an error item.
void logErrorItem(reply_item_t* item);

/// Wakes the loop, so that it drains the queues; a failure shows in the line that is logged. Main thread.
void wakeEventLoop();
