// Clients: connecting, and reading and writing objects.
#include <cstring>

#include "platform/pcb/internal.h"

static constexpr std::string_view KUriBegin = "pcb://ipc:{";

pcb_t* pcb_create(const char* name, uint32_t flags, const char* configuration) {
    OWED(name);
    if (flags || configuration) {
        fail(PCB_ERROR_INVALID_ARGUMENT);
        return nullptr;
    }
    auto client = newRecord<pcb_t>();
    if (client) client->name = copyText(name);
    if (!client || !client->name) {
        fail(PCB_ERROR_NO_MEMORY);
        return nullptr;
    }
    client->connection.client = client.get();
    client->peer.client = client.get();
    client->held.client = client.get();
    return client.release();
}

void pcb_destroy(pcb_t* pcb) {
    OWED(pcb);
    detachRequests(pcb);
    closeConnection(&pcb->connection);
    const OwnedRecord<pcb_t> released(pcb);
}

bool pcb_client_set_attribute(pcb_t* pcb, uint32_t attribute, uint32_t value) {
    OWED(pcb);
    if (pcb_connection(pcb)) return fail(PCB_ERROR_INVALID_ARGUMENT);
    if (attribute == PCB_CLIENT_OWN_OBJECTS && value == 0) return true;
    if (attribute != PCB_CLIENT_PLATFORM) return fail(PCB_ERROR_INVALID_ARGUMENT);
    pcb->platform = value;
    return true;
}

// The path in "pcb://ipc:{PATH}"; null with pcb_error.
static OwnedText socketPath(std::string_view uri) {
    if (uri.substr(0, KUriBegin.size()) != KUriBegin || uri.back() != '}' || uri.size() <= KUriBegin.size() + 1) {
        fail(PCB_ERROR_INVALID_ARGUMENT);
        return nullptr;
    }
    uri.remove_prefix(KUriBegin.size());
    uri.remove_suffix(1);
    OwnedText path = copyPiece(uri);
    if (!path) fail(PCB_ERROR_NO_MEMORY);
    return path;
}

static bool introduce(pcb_t* client, int64_t deadline) {
    OwnedJson hello = newFrame("hello", nullptr);
    const bool complete = hello && addJsonText(hello.get(), KWireName, client->name.get()) &&
                          cJSON_AddBoolToObject(hello.get(), KWirePlatform, client->platform);
    return exchange(client, complete ? std::move(hello) : nullptr, deadline) != nullptr;
}

peer_info_t* pcb_client_connect(pcb_t* pcb, const char* uri) {
    OWED(pcb);
    OWED(uri);
    if (pcb_connection(pcb)) {
        fail(PCB_ERROR_INVALID_ARGUMENT);
        return nullptr;
    }
    const int64_t deadline = deadlineOfExchange();
    const OwnedText path = socketPath(uri);
    if (!path || !openConnection(&pcb->connection, path.get(), deadline)) return nullptr;
    if (introduce(pcb, deadline)) return &pcb->peer;
    const uint32_t reason = pcb_error;
    closeConnection(&pcb->connection);
    fail(reason);
    return nullptr;
}

connection_info_t* pcb_connection(pcb_t* pcb) {
    OWED(pcb);
    const bool connected = pcb->connection.socket >= 0 || pcb->connection.lost;
    return connected ? &pcb->connection : nullptr;
}

uint32_t pcb_client_error(const pcb_t* pcb) {
    OWED(pcb);
    return pcb->error;
}

// Remembers why an operation of this client failed.
template <class Result>
static Result remember(pcb_t* client, Result result) {
    if (!result) client->error = pcb_error;
    return result;
}

static const variant_t* get(pcb_t* client, const char* path, const char* parameter) {
    OwnedJson frame = newFrame("get", path);
    if (frame && !addJsonText(frame.get(), KWireParameter, parameter)) frame.reset();
    client->answer = exchange(client, std::move(frame), deadlineOfExchange());
    if (!client->answer) return nullptr;
    client->value = variantInsideJson(cJSON_GetObjectItemCaseSensitive(client->answer.get(), KWireValue));
    if (client->value.type != VARIANT_EMPTY) return &client->value;
    fail(PCB_ERROR_UNREADABLE_FRAME);
    return nullptr;
}

const variant_t* pcb_client_get(peer_info_t* peer, const char* objectPath, const char* parameterName) {
    OWED(peer);
    OWED(objectPath);
    OWED(parameterName);
    return remember(peer->client, get(peer->client, objectPath, parameterName));
}

bool setOnBus(pcb_t* client, const char* path, const char* parameter, const char* text) {
    if (strlen(text) > KMaxValueLength) return fail(PCB_ERROR_VALUE_TOO_LONG);
    OwnedJson frame = newFrame("set", path);
    if (frame && !(addJsonText(frame.get(), KWireParameter, parameter) && addJsonText(frame.get(), KWireValue, text))) {
        frame.reset();
    }
    return exchange(client, std::move(frame), deadlineOfExchange()) != nullptr;
}

bool pcb_client_set(peer_info_t* peer, const char* objectPath, const char* parameterName, const variant_t* value) {
    OWED(peer);
    OWED(objectPath);
    OWED(parameterName);
    const OwnedText text(variant_char(value));
    return remember(peer->client, text && setOnBus(peer->client, objectPath, parameterName, text.get()));
}

static object_t* fetch(pcb_t* client, const char* path) {
    const OwnedJson answer = exchange(client, newFrame("object", path), deadlineOfExchange());
    if (!answer) return nullptr;
    object_t fetched;
    object_t* held = makeObject(&client->held.root, path);
    if (!held || !objectFromJson(&fetched, cJSON_GetObjectItemCaseSensitive(answer.get(), KWireObject))) {
        fail(PCB_ERROR_UNREADABLE_FRAME);
        return nullptr;
    }
    moveContents(held, &fetched);
    return held;
}

object_t* pcb_client_get_object(peer_info_t* peer, const char* objectPath, uint32_t flags) {
    OWED(peer);
    OWED(objectPath);
    if (!flags) return remember(peer->client, fetch(peer->client, objectPath));
    fail(PCB_ERROR_INVALID_ARGUMENT);
    return remember<object_t*>(peer->client, nullptr);
}
