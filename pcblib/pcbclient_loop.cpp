// Subscriptions, the event loop, and the work that callbacks put off until the loop has handled the present events.
#include <signal.h>

#include <atomic>
#include <cerrno>

#include "pcblib/pcbclient_internal.h"

namespace {

// A linked stack: entries go in at the head and come out there, the newest first.
template <class Item>
struct Stack {
    struct Entry {
        Item item;
        Entry* next;
    };
    Entry* head;

    void push(Item item, Entry* entry) {
        *entry = {item, head};
        head = entry;
    }

    bool push(Item item) {
        Entry* entry = static_cast<Entry*>(malloc(sizeof(Entry)));
        if (entry) push(item, entry);
        return entry;
    }

    // The entry of an item, taken out; null when there is none.
    Entry* take(Item item) {
        Entry** link = &head;
        while (*link && (*link)->item != item) {
            link = &(*link)->next;
        }
        Entry* entry = *link;
        if (entry) *link = entry->next;
        return entry;
    }

    bool pop(Item* item) {
        const Owned<Entry, free> entry(head);
        if (!entry) return false;
        *item = entry->item;
        head = entry->next;
        return true;
    }

    void remove(Item item) {
        while (Entry* entry = take(item)) {
            free(entry);
        }
    }
};

}  // namespace

static PcbObjectChangedCallback iObjectChangedCallback;
static PcbParamChangedCallback iParamChangedCallback;
static PcbCustomNotificationCallback iCustomNotificationCallback;
static PcbRequestLostCallback iRequestLostCallback;

static void (*iLoopCallback)();
static std::atomic<bool> iLoopCallIsAsked = false;

static std::atomic<bool> iEnding = false;
static_assert(std::atomic<bool>::is_always_lock_free, "set by a signal handler");

static Stack<request_t*> iPendingExecutions;
static Stack<request_t*> iPendingRequestReleases;
static Stack<request_t*> iKeptRequests;              // all that live and do not wait for their release
static Stack<char*> iPendingListens;                 // paths, owned
static Stack<request_t*> iRequestsOfPendingListens;  // nobody else keeps these; they live as long as the client

void setPcbChangesCallbacks(PcbObjectChangedCallback objectChanged, PcbParamChangedCallback paramChanged) {
    iObjectChangedCallback = objectChanged;
    iParamChangedCallback = paramChanged;
}

void setPcbCustomNotificationCallback(PcbCustomNotificationCallback callback) {
    iCustomNotificationCallback = callback;
}

void setPcbRequestLostCallback(PcbRequestLostCallback callback) { iRequestLostCallback = callback; }

void setPcbLoopCallback(void (*callback)()) { iLoopCallback = callback; }

// ----- Subscriptions

void logCreateFailure() {
    const uint32_t error = lastError();
    LOG(ERROR, "Failed to create request (0x%8.8X - %s)", error, errorText(error));
}

request_t* keepRequest(request_t* created) {
    OwnedRequest request(created);
    if (!request) {
        logCreateFailure();
        return nullptr;
    }
    if (!iKeptRequests.push(request.get())) {
        LOG(ERROR, "No memory to keep request");
        return nullptr;
    }
    return request.release();
}

bool sendRequest(PcbContext* context, request_t* request) {
    if (pcb_sendRequest(context->pcb, context->peer, request)) return true;
    const uint32_t error = lastError();
    LOG(ERROR, "Failed to send request (0x%8.8X - %s)", error, errorText(error));
    return false;
}

static request_t* listenTo(const char* path, uint32_t flags, int (*handler)(request_t*, reply_item_t*)) {
    request_t* request = keepRequest(request_create_getObject(path, -1, flags));
    if (!request) return nullptr;
    request_setReplyItemHandler(request, handler);
    if (sendRequest(iPcbContext, request)) return request;
    freePcbRequestObject(request);
    return nullptr;
}

request_t* listenToChangesInPcbObject(const char* path) { return listenTo(path, KRequestWatch, clientHandleReplyItem); }

request_t* listenToNotificationsFromPcbObject(const char* path) {
    return listenTo(path, KRequestNotifications, clientHandleReplyItem);
}

request_t* listenToCustomNotificationsFromPcbObject(const char* path) {
    return listenTo(path, KRequestCustom, handleAsyncCustomNotifications);
}

// ----- Reply items

void logErrorItem(reply_item_t* item) {
    LOG(ERROR, "Request failed, error - %d - %s - %s", static_cast<int>(reply_item_error(item)),
        reply_item_errorDescription(item), reply_item_errorInfo(item));
}

static void reportObject(object_t* object) {
    if (!object || !iObjectChangedCallback) return;
    const OwnedText path(object_pathChar(object, 0));
    if (!path) {
        LOG(ERROR, "No memory for the path of an object");
        return;
    }
    iObjectChangedCallback(path.get(), object);
}

void walkThroughChangedParameters(notification_t* notification) {
    if (!iParamChangedCallback || notification_type(notification) != KNotificationValueChanged) return;
    const char* texts[3] = {};
    auto* parameter = notification_firstParameter(notification);
    for (size_t i = 0; parameter && i < 3; ++i) {
        texts[i] = notification_parameter_value(parameter);
        parameter = notification_nextParameter(parameter);
    }
    const char* path = notification_objectPath(notification);
    if (!path || !texts[0] || !texts[1] || !texts[2]) {
        // Passing it on with an empty value would look like a parameter that was cleared.
        LOG(WARN, "Incomplete change notification from %s", path);
        return;
    }
    iParamChangedCallback(path, texts[0], texts[1], texts[2]);
}

void walkThroughNotificationParameters(notification_t* notification) {
    if (!iCustomNotificationCallback || notification_type(notification) != KNotificationCustom) return;
    auto* parameter = notification_firstParameter(notification);
    const char* value = parameter ? notification_parameter_value(parameter) : nullptr;
    if (value) iCustomNotificationCallback(textOrEmpty(notification_objectPath(notification)), value);
}

// Hands on the notification of an item, if it has one.
static void walkThrough(void (*walk)(notification_t*), reply_item_t* item) {
    auto* notification = reply_item_notification(item);
    if (notification) walk(handleOf(notification));
}

int clientHandleReplyItem(request_t*, reply_item_t* item) {
    const int type = reply_item_type(item);  // as int, since -Wswitch-enum wants all members of an enumeration
    switch (type) {
        case KReplyObject: reportObject(handleOf(reply_item_object(item))); break;
        case KReplyNotification: walkThrough(walkThroughChangedParameters, item); break;
        case KReplyError: logErrorItem(item); break;
        default: break;
    }
    return 1;
}

int handleAsyncCustomNotifications(request_t*, reply_item_t* item) {
    const int type = reply_item_type(item);
    switch (type) {
        case KReplyNotification: walkThrough(walkThroughNotificationParameters, item); break;
        case KReplyError: logErrorItem(item); break;
        default: break;
    }
    return 1;
}

// ----- Work that is put off

void wakeEventLoop() {
    const int result = connection_setEventsAvailable();
    LOG(DEBUG, "connectin_setEventsAvailable() returned %d", result);
}

bool pushPendingExecution(request_t* request) { return iPendingExecutions.push(request); }

void listenToChangesInPcbObjectAsync(OwnedText path) {
    if (!path) return;
    if (!iPendingListens.push(path.get())) {
        LOG(ERROR, "No memory to listen to %s", path.get());
        return;
    }
    (void)path.release();  // the queue owns it now
    wakeEventLoop();
}

void freePcbRequestObject(request_t* request) {
    if (!request) return;
    // A request that waits in a queue must not be found there once it is gone.
    iPendingExecutions.remove(request);
    iPendingRequestReleases.remove(request);
    iKeptRequests.remove(request);
    destroyRequest(request);
}

void freePcbRequestObjectAsync(request_t* request) {
    if (!request) return;
    auto* entry = iKeptRequests.take(request);
    if (!entry) return;  // it waits for its release already
    iPendingRequestReleases.push(request, entry);
    wakeEventLoop();
}

static void listenNow(const OwnedText path) {
    request_t* request = listenToChangesInPcbObject(path.get());
    if (!request || iRequestsOfPendingListens.push(request)) return;
    LOG(ERROR, "No memory to listen to %s", path.get());
    freePcbRequestObject(request);
}

void drainPendingWork() {
    request_t* request = nullptr;
    while (iPendingExecutions.pop(&request)) {
        if (sendPreparedFunction(request)) continue;
        if (iRequestLostCallback) iRequestLostCallback(request);
        freePcbRequestObject(request);
    }
    while (iPendingRequestReleases.pop(&request)) {
        freePcbRequestObject(request);
    }
    char* path = nullptr;
    while (iPendingListens.pop(&path)) {
        listenNow(OwnedText(path));
    }
}

void releasePendingWork() {
    request_t* request = nullptr;
    while (iPendingExecutions.pop(&request)) {
        // Its owner has it and releases it.
    }
    while (iPendingRequestReleases.pop(&request)) {
        freePcbRequestObject(request);
    }
    while (iRequestsOfPendingListens.pop(&request)) {
        freePcbRequestObject(request);
    }
    char* path = nullptr;
    while (iPendingListens.pop(&path)) {
        free(path);
    }
}

// ----- The loop

void logWaitFailure() {
    const uint32_t error = lastError();
    LOG(ERROR, "Error %d (%s)", static_cast<int>(error), errorText(error));
}

static void runEventLoop(connection_info_t* connection) {
    ConnectionList connections(connection);
    connection_setTerminated(false);
    while (!isPcbDataModelEventLoopEnding()) {
        fd_set readSet;
        fd_set writeSet;
        FD_ZERO(&readSet);
        FD_ZERO(&writeSet);
        const int events = connection_waitForEvents_r(&connections.list, &readSet, &writeSet);
        reloadLogIfAsked();
        if (events < 0) {
            logWaitFailure();
            continue;
        }
        if (events > 0) connection_handleEvents_r(&connections.list, &readSet, &writeSet);
        if (iLoopCallIsAsked.exchange(false) && iLoopCallback) iLoopCallback();
        drainPendingWork();
    }
}

int startPcbDataModelEventLoop() {
    connection_info_t* connection = iPcbContext ? pcb_connection(iPcbContext->pcb) : nullptr;
    LOG(INFO, "Setting signal handlers for eveted pcb client");
    if (connection) connection_setSignalEventHandler(connection, SIGPIPE, nullptr);
    LOG(INFO, "Entered pcb data model event loop");
    if (!connection) {
        // There is nothing to wait for: a loop would only spin.
        setNotConnected();
        logWaitFailure();
        return 0;
    }
    runEventLoop(connection);
    connection_setTerminated(false);
    LOG(INFO, "Leaving pcb data model event loop");
    return 1;
}

void stopPcbDataModelEventLoop() { connection_setTerminated(true); }

void endPcbDataModelEventLoop() {
    const int before = errno;  // a signal handler's caller keeps its own
    iEnding = true;
    (void)connection_setEventsAvailable();
    errno = before;
}

void callInPcbDataModelEventLoop() {
    iLoopCallIsAsked = true;
    (void)connection_setEventsAvailable();
}

bool isPcbDataModelEventLoopEnding() { return iEnding || connection_isTerminated(); }
