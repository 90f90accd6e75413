// The bus's clients: connections, frames, and the limits that keep one client from harming another.
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>

#include "platform/bus/bus.h"

struct Client {
    Owned<bufferevent, bufferevent_free> stream;
    OwnedText name;
    bool platform = false;
    bool dropped = false;
    Buffer in;
    size_t searched = 0;  // how much of `in` holds no line break
    Client* next = nullptr;
};

void introduceClient(Client* client, const char* name, bool platform) {
    client->name = copyText(name);
    client->platform = platform;
}

bool isPlatform(const Client* client) { return client->platform; }

static void release(Client* client) {
    cancelSubscriptions(client);
    cancelCalls(client);
    const OwnedRecord<Client> released(client);
}

static void freeDropped(evutil_socket_t, short, void*) {
    for (Client** link = &iBus.firstClient; *link;) {
        Client* client = *link;
        if (!client->dropped) {
            link = &client->next;
            continue;
        }
        *link = client->next;
        release(client);
    }
}

// Frees it later: a client may be dropped while its frame is handled, or while all clients are told of a change.
static void forget(Client* client) {
    if (client->dropped) return;
    client->dropped = true;
    bufferevent_disable(client->stream.get(), EV_READ | EV_WRITE);
    shutdown(bufferevent_getfd(client->stream.get()), SHUT_RDWR);
    const timeval atOnce{};
    event_base_once(iBus.base, -1, EV_TIMEOUT, freeDropped, nullptr, &atOnce);
}

void dropClient(Client* client, const char* reason) {
    if (client->dropped) return;
    fprintf(stderr, "pcb-bus: client %s dropped: %s\n", client->name ? client->name.get() : "without a name", reason);
    forget(client);
}

void freeClients() {
    while (Client* client = iBus.firstClient) {
        iBus.firstClient = client->next;
        release(client);
    }
}

OwnedJson newAnswer(uint64_t id) {
    OwnedJson answer(cJSON_CreateObject());
    if (!answer || !cJSON_AddNumberToObject(answer.get(), KWireId, static_cast<double>(id))) return nullptr;
    return answer;
}

void sendError(Client* client, uint64_t id, uint32_t code, const char* path, const char* member) {
    OwnedJson answer = newAnswer(id);
    const OwnedText info = formatText("%s%s%s", textOrEmpty(path), member ? "." : "", textOrEmpty(member));
    const bool complete = answer && info && cJSON_AddNumberToObject(answer.get(), KWireError, code) &&
                          addJsonText(answer.get(), KWireDescription, error_string(code)) &&
                          addJsonText(answer.get(), KWireInfo, info.get());
    sendFrame(client, id, complete ? std::move(answer) : nullptr);
}

// Always false.
static bool drop(Client* client, const char* reason) {
    dropClient(client, reason);
    return false;
}

bool sendFrame(Client* client, uint64_t id, OwnedJson frame) {
    if (client->dropped) return false;
    const OwnedText text = frame ? printJson(frame.get()) : nullptr;
    if (!text) return drop(client, "memory is short");
    const size_t length = strlen(text.get());
    if (length > KMaxFrameLength) {
        sendError(client, id, PCB_ERROR_FRAME_TOO_LARGE, nullptr, nullptr);
        return false;
    }
    evbuffer* out = bufferevent_get_output(client->stream.get());
    if (evbuffer_get_length(out) + length > KMaxBacklog) return drop(client, "it does not read, 64 MiB wait");
    text.get()[length] = '\n';  // in the place of its zero
    return evbuffer_add(out, text.get(), length + 1) == 0 || drop(client, "memory is short");
}

// Whether a zero byte stands in the line, as such or escaped: it would cut a text short.
static bool holdsZero(std::string_view line) {
    if (line.find('\0') != std::string_view::npos) return true;
    size_t escape = line.find('\\');
    while (escape != std::string_view::npos) {
        if (line.substr(escape + 1, 5) == "u0000") return true;
        escape = line.find('\\', escape + 2);  // what is escaped may itself be a backslash
    }
    return false;
}

static void handleLine(Client* client, char* line, size_t length) {
    line[length] = '\0';
    const OwnedJson frame(holdsZero({line, length}) ? nullptr : cJSON_ParseWithOpts(line, nullptr, true));
    const bool complete = jsonCount(frame.get(), KWireId) && jsonText(frame.get(), KWireOperation);
    if (!complete) return dropClient(client, "malformed frame");
    handleFrame(client, frame.get());
}

static void readClient(bufferevent* stream, void* context) {
    auto* client = static_cast<Client*>(context);
    evbuffer* received = bufferevent_get_input(stream);
    const size_t count = evbuffer_get_length(received);
    if (client->dropped) return;
    if (!bufferReserve(&client->in, count)) return dropClient(client, "memory is short");
    evbuffer_remove(received, client->in.bytes.get() + client->in.start + client->in.length, count);
    client->in.length += count;
    while (!client->dropped) {
        const size_t end = client->in.content().find('\n', client->searched);
        const size_t length = end == std::string_view::npos ? client->in.length : end;
        client->searched = length;
        if (length > KMaxFrameLength) return dropClient(client, "frame of more than 16 MiB");
        if (end == std::string_view::npos) return;
        handleLine(client, client->in.bytes.get() + client->in.start, length);
        bufferTake(&client->in, length + 1);
        client->searched = 0;
    }
}

static void endClient(bufferevent*, short what, void* context) {
    auto* client = static_cast<Client*>(context);
    if (what & (BEV_EVENT_EOF | BEV_EVENT_ERROR)) forget(client);
}

void serveClient(int socket) {
    auto client = newRecord<Client>();
    if (client) client->stream.reset(bufferevent_socket_new(iBus.base, socket, BEV_OPT_CLOSE_ON_FREE));
    if (!client || !client->stream) {
        evutil_closesocket(socket);
        fputs("pcb-bus: a client was refused: memory is short\n", stderr);
        return;
    }
    bufferevent_setcb(client->stream.get(), readClient, nullptr, endClient, client.get());
    bufferevent_enable(client->stream.get(), EV_READ | EV_WRITE);
    client->next = iBus.firstClient;
    iBus.firstClient = client.release();
}
