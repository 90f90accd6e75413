// The data-model bus: what its files share. One thread, one event loop.
#pragma once

#include <event2/event.h>

#include "common/json/json.h"
#include "platform/pcb/buffer.h"
#include "platform/pcb/tree.h"
#include "platform/pcb/wire.h"

struct Client;

struct Bus {
    event_base* base = nullptr;
    object_t* tree = nullptr;  // the root
    Client* firstClient = nullptr;
};

extern Bus iBus;

using OwnedEvent = Owned<event, event_free>;

// ---- clients.cpp: connections and frames ----

/// Serves a connection that was accepted.
void serveClient(int socket);
/// Closes a client's connection with a message on standard error. The event loop frees the client later.
void dropClient(Client* client, const char* reason);
/// Frees all clients at the end.
void freeClients();
/// Queues a frame for sending (null: out of memory); true when this frame was queued. Sends an error instead of a frame
/// that is too large. A client that reads nothing, or for whom there is no memory, is dropped.
bool sendFrame(Client* client, uint64_t id, OwnedJson frame);
void sendError(Client* client, uint64_t id, uint32_t code, const char* path, const char* member);
/// An answer with an id and nothing else; null when out of memory.
[[nodiscard]] OwnedJson newAnswer(uint64_t id);
/// A client's right to set read-only parameters.
bool isPlatform(const Client* client);
void introduceClient(Client* client, const char* name, bool platform);

// ---- operations.cpp: what clients ask for ----

/// Carries out one frame, which has an id and an operation, and sends its answer or an error. `frame` stays the
/// caller's.
void handleFrame(Client* client, const cJSON* frame);

// ---- subscriptions.cpp ----

void subscribe(Client* client, uint64_t id, const cJSON* frame);
void cancelSubscription(const Client* client, uint64_t id);
/// Ends all subscriptions of a client.
void cancelSubscriptions(const Client* client);
/// Send a notification to every subscription that covers `path`. A client for whom there is no memory is dropped.
void notifyChange(const char* path, const char* parameter, const char* oldText, const char* newText);
void notifyCustom(const char* path, const char* value);

// ---- gateway.cpp: how the gateway behaves ----

/// Sets a value, tells who watches it, and does what the gateway does then. False when out of memory.
bool changeValue(object_t* object, parameter_t* parameter, const char* text);
/// False when out of memory. The stop functions release what was started, also after a start that failed.
bool startGateway();
void stopGateway();
/// The text of a parameter; null when it or its object does not exist.
const char* valueOf(const char* path, const char* parameter);
/// As changeValue; nothing when there is no such parameter.
void changeValueOf(const char* path, const char* parameter, const char* text);
/// Whether a list of words, divided by blanks or commas, holds `word`.
bool holdsWord(const char* words, const char* word);
/// The milliseconds that a parameter holds, at most an hour (a larger value counts as an hour). `otherwise` when the
/// parameter does not exist, or holds a negative value or no whole number.
long millisecondsOf(const char* path, const char* parameter, long otherwise);

// ---- functions.cpp: the functions of objects ----

bool startFunctions();
void stopFunctions();
/// Calls a function, after the delay that is set; answers of calls come in their order.
void callFunction(Client* client, uint64_t id, const cJSON* frame);
/// Serves the calls that have waited for the delay that is set now.
void serveDueCalls();
/// Drop one call of a client that waits (an unknown id is ignored), or all of them: they get no answer.
void cancelCall(const Client* client, uint64_t id);
void cancelCalls(const Client* client);

// ---- queries.cpp: the queries on the interfaces' data ----

/// Opens a query and gives its number as a new text; null when out of memory.
[[nodiscard]] OwnedText openQuery(object_t* data, const cJSON* arguments);
/// Closes the queries that were opened with these arguments, if there are any.
void closeQuery(object_t* data, const cJSON* arguments);
/// The addresses have changed: each query's result follows.
void updateQueries();
