// Subscriptions, the event loop, and the work that callbacks put off until the loop has handled the present events.
#include <signal.h>

#include <memory>

#include "pcblib/pcbclient_internal.h"

namespace {

struct FreeMemory {
    void operator()(void* block) const { free(block); }
};

// A queue that is drained newest first: entries go in at the head and come out there.
template <class Item>
struct Queue {
    struct Entry {
        Item item;
        Entry* next;
    };
    Entry* head;

    bool push(Item item) {
        Entry* entry = static_cast<Entry*>(malloc(sizeof(Entry)));
        if (!entry) return false;
        *entry = {item, head};
        head = entry;
        return true;
    }

    bool pop(Item* item) {
        const std::unique_ptr<Entry, FreeMemory> entry(head);
        if (!entry) return false;
        *item = entry->item;
        head = entry->next;
        return true;
    }

    void remove(Item item) {
        for (Entry** link = &head; *link;) {
            Entry* entry = *link;
            if (entry->item != item) {
                link = &entry->next;
                continue;
            }
            *link = entry->next;
            free(entry);
        }
    }
};

}  // namespace

static PcbObjectChangedCallback iObjectChangedCallback;
static PcbParamChangedCallback iParamChangedCallback;
static PcbCustomNotificationCallback iCustomNotificationCallback;
static PcbRequestLostCallback iRequestLostCallback;

static Queue<request_t*> iPendingExecutions;
static Queue<request_t*> iPendingRequestReleases;
static Queue<char*> iPendingListens;                 // paths, owned
static Queue<request_t*> iRequestsOfPendingListens;  // nobody else keeps these; they live as long as the client

void setPcbChangesCallbacks(PcbObjectChangedCallback objectChanged, PcbParamChangedCallback paramChanged) {
    iObjectChangedCallback = objectChanged;
    iParamChangedCallback = paramChanged;
}

void setPcbCustomNotificationCallback(PcbCustomNotificationCallback callback) {
    iCustomNotificationCallback = callback;
}

void setPcbRequestLostCallback(PcbRequestLostCallback callback) { iRequestLostCallback = callback; }

// ----- Subscriptions

bool sendRequest(PcbContext* context, request_t* request) {
    if (pcb_sendRequest(context->pcb, context->peer, request)) return true;
    LOG(ERROR, "Failed to send request (0x%8.8X - %s)", pcb_error, error_string(pcb_error));
    return false;
}

static request_t* listenTo(const char* path, uint32_t flags, request_reply_item_handler_t handler) {
    OwnedRequest request(request_create_getObject(path, -1, flags));
    if (!request) {
        LOG(ERROR, "Failed to create request (0x%8.8X - %s)", pcb_error, error_string(pcb_error));
        return nullptr;
    }
    request_setReplyItemHandler(request.get(), handler);
    return sendRequest(iPcbContext, request.get()) ? request.release() : nullptr;
}

request_t* listenToChangesInPcbObject(const char* path) { return listenTo(path, REQUEST_WATCH, clientHandleReplyItem); }

request_t* listenToNotificationsFromPcbObject(const char* path) {
    return listenTo(path, REQUEST_NOTIFICATIONS, clientHandleReplyItem);
}

request_t* listenToCustomNotificationsFromPcbObject(const char* path) {
    return listenTo(path, REQUEST_CUSTOM, handleAsyncCustomNotifications);
}

// ----- Reply items

void logErrorItem(const reply_item_t* item) {
    LOG(ERROR, "Request failed, error - %d - %s - %s", reply_item_error(item), reply_item_errorDescription(item),
        reply_item_errorInfo(item));
}

static void reportObject(object_t* object) {
    if (!iObjectChangedCallback) return;
    const OwnedText path(object_pathChar(object, 0));
    if (!path) {
        LOG(ERROR, "No memory for the path of an object");
        return;
    }
    iObjectChangedCallback(path.get(), object);
}

void walkThroughChangedParameters(notification_t* notification) {
    if (notification_type(notification) != NOTIFICATION_VALUE_CHANGED || !iParamChangedCallback) return;
    notification_parameter_t* parameter = notification_firstParameter(notification);
    const char* texts[3] = {};
    for (const char*& text : texts) {
        text = notification_parameter_value(parameter);
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
    if (!iCustomNotificationCallback || notification_type(notification) != NOTIFICATION_CUSTOM) return;
    const char* value = notification_parameter_value(notification_firstParameter(notification));
    if (value) iCustomNotificationCallback(textOrEmpty(notification_objectPath(notification)), value);
}

int clientHandleReplyItem(request_t*, reply_item_t* item) {
    switch (reply_item_type(item)) {
        case REPLY_ITEM_OBJECT: reportObject(reply_item_object(item)); break;
        case REPLY_ITEM_NOTIFICATION: walkThroughChangedParameters(reply_item_notification(item)); break;
        case REPLY_ITEM_ERROR: logErrorItem(item); break;
        default: break;
    }
    return 1;
}

int handleAsyncCustomNotifications(request_t*, reply_item_t* item) {
    switch (reply_item_type(item)) {
        case REPLY_ITEM_NOTIFICATION: walkThroughNotificationParameters(reply_item_notification(item)); break;
        case REPLY_ITEM_ERROR: logErrorItem(item); break;
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
    (void)path.release();  // the queue's from here on
    wakeEventLoop();
}

void freePcbRequestObject(request_t* request) {
    if (!request) return;
    // A request that waits in a queue must not be found there once it is gone.
    iPendingExecutions.remove(request);
    iPendingRequestReleases.remove(request);
    request_destroy(request);
}

void freePcbRequestObjectAsync(request_t* request) {
    if (!request) return;
    if (!iPendingRequestReleases.push(request)) {
        // Memory is short. The platform library allows this from any handler, the request's own included.
        freePcbRequestObject(request);
        return;
    }
    wakeEventLoop();
}

static void listenNow(const OwnedText path) {
    OwnedRequest request(listenToChangesInPcbObject(path.get()));
    if (!request) return;
    if (!iRequestsOfPendingListens.push(request.get())) {
        LOG(ERROR, "No memory to listen to %s", path.get());
        return;
    }
    (void)request.release();  // the list's from here on
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
        request_destroy(request);
    }
    char* path = nullptr;
    while (iPendingListens.pop(&path)) {
        free(path);
    }
}

// ----- The loop

static void runEventLoop(connection_info_t* connection) {
    ConnectionList connections(connection);
    connection_setTerminated(false);
    while (!connection_isTerminated()) {
        fd_set readSet;
        fd_set writeSet;
        const int events = connection_waitForEvents_r(&connections.list, &readSet, &writeSet);
        reloadLogIfAsked();
        if (events < 0) {
            LOG(ERROR, "Error %d (%s)", static_cast<int>(pcb_error), error_string(pcb_error));
            continue;
        }
        if (events > 0) connection_handleEvents_r(&connections.list, &readSet, &writeSet);
        drainPendingWork();
    }
}

int startPcbDataModelEventLoop() {
    connection_info_t* connection = pcb_connection(iPcbContext ? iPcbContext->pcb : nullptr);
    LOG(INFO, "Setting signal handlers for eveted pcb client");
    connection_setSignalEventHandler(connection, SIGPIPE, nullptr);
    LOG(INFO, "Entered pcb data model event loop");
    if (!connection) {
        // There is nothing to wait for: a loop would only spin.
        pcb_error = PCB_ERROR_NOT_CONNECTED;
        LOG(ERROR, "Error %d (%s)", static_cast<int>(pcb_error), error_string(pcb_error));
        return 0;
    }
    runEventLoop(connection);
    connection_setTerminated(false);
    LOG(INFO, "Leaving pcb data model event loop");
    return 1;
}

void stopPcbDataModelEventLoop() { connection_setTerminated(true); }
