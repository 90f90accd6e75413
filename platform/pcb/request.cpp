// Requests, and what arrives for them.
#include <cstring>
#include <iterator>

#include "platform/pcb/internal.h"

struct request_argument_t {
    OwnedText name;
    variant_t value{};
    request_argument_t* next = nullptr;

    ~request_argument_t() { variant_cleanup(&value); }
};

struct request_t {
    OwnedText path;
    OwnedText function;  // none: a get-object request
    int32_t depth = 0;
    uint32_t flags = 0;
    request_argument_t* firstArgument = nullptr;
    request_reply_item_handler_t handler = nullptr;
    uint64_t id = 0;          // 0 before sending
    pcb_t* client = nullptr;  // since sending, while both live
    bool open = false;        // the bus may still send something for it
    bool handling = false;    // its handler runs
    request_t* next = nullptr;

    ~request_t() {
        while (request_argument_t* argument = firstArgument) {
            firstArgument = argument->next;
            const OwnedRecord<request_argument_t> released(argument);
        }
    }
};

struct notification_parameter_t {
    const char* value = nullptr;
    notification_parameter_t* next = nullptr;
};

struct notification_t {
    int type = 0;
    const char* path = nullptr;
    notification_parameter_t parameters[8];
    size_t count = 0;
};

struct argument_value_t {
    const char* name = nullptr;
    variant_t value{};  // inside the frame
    argument_value_t* next = nullptr;
};

struct argument_value_list_t {
    argument_value_t* first = nullptr;

    argument_value_list_t() = default;
    argument_value_list_t(const argument_value_list_t&) = delete;
    argument_value_list_t& operator=(const argument_value_list_t&) = delete;
    ~argument_value_list_t() {
        while (argument_value_t* argument = first) {
            first = argument->next;
            const OwnedRecord<argument_value_t> released(argument);
        }
    }
};

/// Its texts stand in the frame it was made from.
struct reply_item_t {
    int type = 0;
    uint32_t error = 0;
    const char *description = "", *info = "";
    datamodel_t model;
    object_t* object = nullptr;
    notification_t notification;
    variant_t returned{};
    argument_value_list_t arguments;
};

// ---- Making and sending ----

static request_t* createRequest(const char* path, const char* function, int32_t depth, uint32_t flags) {
    auto request = newRecord<request_t>();
    if (request) request->path = copyText(path);
    if (request && function) request->function = copyText(function);
    if (!request || !request->path || (function && !request->function)) {
        fail(PCB_ERROR_NO_MEMORY);
        return nullptr;
    }
    request->depth = depth;
    request->flags = flags;
    return request.release();
}

request_t* request_create_getObject(const char* objectPath, int32_t depth, uint32_t flags) {
    OWED(objectPath);
    return createRequest(objectPath, nullptr, depth, flags);
}

request_t* request_create_executeFunction(const char* objectPath, const char* functionName, uint32_t flags) {
    OWED(objectPath);
    OWED(functionName);
    return createRequest(objectPath, functionName, 0, flags);
}

bool request_addParameter(request_t* request, const char* name, variant_t* value) {
    OWED(request);
    OWED(name);
    OWED(value);
    if (!request->function || request->id) return fail(PCB_ERROR_INVALID_ARGUMENT);
    auto argument = newRecord<request_argument_t>();
    if (argument) argument->name = copyText(name);
    if (!argument || !argument->name) return fail(PCB_ERROR_NO_MEMORY);
    argument->value = *value;
    *value = {};
    request_argument_t** end = &request->firstArgument;
    while (*end) {
        end = &(*end)->next;
    }
    *end = argument.release();
    return true;
}

bool request_setReplyItemHandler(request_t* request, request_reply_item_handler_t handler) {
    OWED(request);
    request->handler = handler;
    return true;
}

static OwnedJson subscriptionFrame(const request_t* request) {
    OwnedJson frame = newFrame("subscribe", request->path.get());
    const bool complete = frame && cJSON_AddNumberToObject(frame.get(), KWireDepth, request->depth) &&
                          cJSON_AddNumberToObject(frame.get(), KWireFlags, request->flags);
    return complete ? std::move(frame) : nullptr;
}

static OwnedJson callFrame(const request_t* request) {
    OwnedJson frame = newFrame("call", request->path.get());
    if (!frame || !addJsonText(frame.get(), KWireFunction, request->function.get())) return nullptr;
    cJSON* arguments = cJSON_AddObjectToObject(frame.get(), KWireArguments);
    if (!arguments) return nullptr;
    for (const request_argument_t* argument = request->firstArgument; argument; argument = argument->next) {
        if (!addJson(arguments, argument->name.get(), variantToJson(&argument->value))) return nullptr;
    }
    return frame;
}

bool pcb_sendRequest(pcb_t* pcb, peer_info_t* peer, request_t* request) {
    OWED(pcb);
    OWED(peer);
    OWED(request);
    OWED(!isSignalHandler());
    if (request->id) return fail(PCB_ERROR_INVALID_ARGUMENT);
    if (peer->client != pcb) return fail(PCB_ERROR_NOT_CONNECTED);
    const OwnedJson frame = request->function ? callFrame(request) : subscriptionFrame(request);
    const uint64_t id = numberFrame(pcb, frame.get());
    if (!id || !queueFrame(&pcb->connection, frame.get())) return false;
    request->id = id;
    request->client = pcb;
    request->open = true;
    request->next = pcb->firstRequest;
    pcb->firstRequest = request;
    return true;
}

// Cancels the request on the bus. Out of memory: the bus goes on sending, and the frames are dropped here.
static void cancel(const request_t* request) {
    const uint32_t reason = pcb_error;
    const OwnedJson frame = newFrame("cancel", nullptr);
    if (frame && cJSON_AddNumberToObject(frame.get(), KWireRequest, static_cast<double>(request->id)) &&
        numberFrame(request->client, frame.get())) {
        (void)queueFrame(&request->client->connection, frame.get());
    }
    fail(reason);
}

void request_destroy(request_t* request) {
    OWED(request);
    OWED(!request->handling);
    const OwnedRecord<request_t> released(request);
    if (!request->client) return;
    request_t** link = &request->client->firstRequest;
    while (*link != request) {
        link = &(*link)->next;
    }
    *link = request->next;
    if (request->open) cancel(request);
}

void detachRequests(pcb_t* client) {
    while (request_t* request = client->firstRequest) {
        client->firstRequest = request->next;
        request->client = nullptr;
    }
}

request_t* findRequest(pcb_t* client, uint64_t id) {
    request_t* request = client->firstRequest;
    while (request && request->id != id) {
        request = request->next;
    }
    return request;
}

const char* request_path(const request_t* request) {
    OWED(request);
    return request->path.get();
}

const char* request_functionName(const request_t* request) {
    OWED(request);
    return request->function.get();
}

// ---- Reading what arrives ----

static bool readError(reply_item_t* item, const cJSON* frame) {
    item->type = REPLY_ITEM_ERROR;
    item->error = static_cast<uint32_t>(jsonCount(frame, KWireError));
    item->description = textOrEmpty(jsonText(frame, KWireDescription));
    item->info = textOrEmpty(jsonText(frame, KWireInfo));
    return true;
}

static bool readNotification(reply_item_t* item, const cJSON* frame) {
    item->type = REPLY_ITEM_NOTIFICATION;
    notification_t* notification = &item->notification;
    notification->type = static_cast<int>(jsonCount(frame, KWireNotification) & 0xFFFF);
    notification->path = textOrEmpty(jsonText(frame, KWirePath));
    const cJSON* text = nullptr;
    notification_parameter_t* last = nullptr;
    cJSON_ArrayForEach(text, cJSON_GetObjectItemCaseSensitive(frame, KWireParameters)) {
        if (notification->count == std::size(notification->parameters)) break;
        if (!cJSON_IsString(text)) return false;  // a number is no empty text
        notification_parameter_t* parameter = &notification->parameters[notification->count++];
        parameter->value = text->valuestring;
        if (last) last->next = parameter;
        last = parameter;
    }
    return true;
}

static bool readObject(reply_item_t* item, const cJSON* object, const request_t* request) {
    item->type = REPLY_ITEM_OBJECT;
    item->model.client = request->client;
    item->object = makeObject(&item->model.root, request->path.get());
    return item->object && objectFromJson(item->object, object);
}

static bool readReturn(reply_item_t* item, const cJSON* frame) {
    item->type = REPLY_ITEM_FUNCTION_RETURN;
    item->returned = variantInsideJson(cJSON_GetObjectItemCaseSensitive(frame, KWireReturns));
    const cJSON* json = nullptr;
    argument_value_t** end = &item->arguments.first;
    cJSON_ArrayForEach(json, cJSON_GetObjectItemCaseSensitive(frame, KWireArguments)) {
        auto argument = newRecord<argument_value_t>();
        if (!argument) return false;
        argument->name = textOrEmpty(jsonText(json, KWireName));
        argument->value = variantInsideJson(cJSON_GetObjectItemCaseSensitive(json, KWireValue));
        *end = argument.release();
        end = &(*end)->next;
    }
    return true;
}

// False when out of memory or malformed. An item without a type is nothing to hand on.
static bool readItem(reply_item_t* item, const cJSON* frame, const request_t* request) {
    const cJSON* object = cJSON_GetObjectItemCaseSensitive(frame, KWireObject);
    if (jsonCount(frame, KWireError)) return readError(item, frame);
    if (request->function) return readReturn(item, frame);
    if (cJSON_HasObjectItem(frame, KWireNotification)) return readNotification(item, frame);
    return !object || readObject(item, object, request);
}

// An item that cannot be read here does not end its subscription: the bus continues it.
static bool endsRequest(const reply_item_t* item, const request_t* request) {
    if (item->type == REPLY_ITEM_ERROR) return request->function || item->error != PCB_ERROR_UNREADABLE_FRAME;
    return item->type == REPLY_ITEM_FUNCTION_RETURN ||
           (item->type == REPLY_ITEM_OBJECT && !(request->flags & REQUEST_STAYS));
}

void dispatchFrame(pcb_t* client, const cJSON* frame) {
    request_t* request = findRequest(client, jsonCount(frame, KWireId));
    if (!request || !request->open) return;
    reply_item_t item;
    if (!readItem(&item, frame, request)) {
        item.type = REPLY_ITEM_ERROR;
        item.error = PCB_ERROR_UNREADABLE_FRAME;
        item.description = error_string(item.error);
    }
    if (endsRequest(&item, request)) request->open = false;
    if (!item.type || !request->handler) return;
    request->handling = true;
    (void)request->handler(request, &item);
    request->handling = false;
}

int reply_item_type(const reply_item_t* item) {
    OWED(item);
    return item->type;
}

object_t* reply_item_object(reply_item_t* item) {
    OWED(item);
    return item->object;
}

notification_t* reply_item_notification(reply_item_t* item) {
    OWED(item);
    return item->type == REPLY_ITEM_NOTIFICATION ? &item->notification : nullptr;
}

int reply_item_error(const reply_item_t* item) {
    OWED(item);
    return static_cast<int>(item->error);
}

const char* reply_item_errorDescription(const reply_item_t* item) {
    OWED(item);
    return item->description;
}

const char* reply_item_errorInfo(const reply_item_t* item) {
    OWED(item);
    return item->info;
}

const variant_t* reply_item_returnValue(const reply_item_t* item) {
    OWED(item);
    return item->returned.type != VARIANT_EMPTY ? &item->returned : nullptr;
}

argument_value_list_t* reply_item_returnArguments(reply_item_t* item) {
    OWED(item);
    return item->arguments.first ? &item->arguments : nullptr;
}

argument_value_t* argument_valueFirstArgument(argument_value_list_t* list) {
    OWED(list);
    return list->first;
}

argument_value_t* argument_valueNextArgument(argument_value_t* argument) {
    OWED(argument);
    return argument->next;
}

const char* argument_valueName(const argument_value_t* argument) {
    OWED(argument);
    return argument->name;
}

const variant_t* argument_value(const argument_value_t* argument) {
    OWED(argument);
    return &argument->value;
}

int notification_type(const notification_t* notification) {
    OWED(notification);
    return notification->type;
}

const char* notification_objectPath(const notification_t* notification) {
    OWED(notification);
    return notification->path;
}

notification_parameter_t* notification_firstParameter(notification_t* notification) {
    OWED(notification);
    return notification->count ? &notification->parameters[0] : nullptr;
}

notification_parameter_t* notification_nextParameter(notification_parameter_t* parameter) {
    OWED(parameter);
    return parameter->next;
}

const char* notification_parameter_value(const notification_parameter_t* parameter) {
    OWED(parameter);
    return parameter->value;
}
