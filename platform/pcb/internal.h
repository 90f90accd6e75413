// What the files of the client library share.
#pragma once

#include <cstdint>

#include "common/json/json.h"
#include "platform/pcb/buffer.h"
#include "platform/pcb/owed.h"
#include "platform/pcb/pcb.h"
#include "platform/pcb/tree.h"
#include "platform/pcb/wire.h"

/// Sets the thread's error; always false.
inline bool fail(uint32_t code) {
    pcb_error = code;
    return false;
}

/// A socket that never blocks, with what came and what has to go. Frames for requests wait, parsed, for the event loop.
struct connection_info_t {
    llist_iterator_t link{};
    pcb_t* client = nullptr;
    int socket = -1;  // -1 before connecting and once lost
    bool lost = false;
    Buffer in, out;
    size_t searched = 0;            // how much of `in` holds no line break
    bool failedToReadOnce = false;  // the first frame of `in`
    cJSON *firstKept = nullptr, *lastKept = nullptr;
    size_t kept = 0;
};

struct peer_info_t {
    pcb_t* client = nullptr;
};

struct datamodel_t {
    object_t root;  // first, so that a root leads to its data model
    pcb_t* client = nullptr;
};

struct pcb_t {
    OwnedText name;
    bool platform = false;
    uint32_t error = 0;
    uint64_t lastId = 0;
    connection_info_t connection;
    peer_info_t peer;
    datamodel_t held;
    OwnedJson answer;   // of the last get
    variant_t value{};  // inside `answer`
    request_t* firstRequest = nullptr;
};

// ---- connection.cpp ----

/// Milliseconds of the monotonic clock at which something that begins now must be over.
int64_t deadlineOfExchange();
int64_t deadlineIn(int64_t milliseconds);
/// How long poll may wait until then: 0 when the time is over.
int millisecondsUntil(int64_t deadline);
/// Connects to the socket at `path` before `deadline`; false with pcb_error. closeConnection drops all that waits, and
/// may be called for a connection that is not open. The client's thread.
bool openConnection(connection_info_t* connection, const char* path, int64_t deadline);
void closeConnection(connection_info_t* connection);
/// Appends a frame to what waits to be sent, and sends what the socket takes. False when none of it was queued.
bool queueFrame(connection_info_t* connection, const cJSON* frame);
/// Sends what the socket takes. False when the system refuses, with the rest still there, or the bus has gone.
bool sendQueued(connection_info_t* connection);
/// Reads what has come, up to a few MiB; false when out of memory, the rest waits in the socket.
bool receive(connection_info_t* connection);
/// Whether the bus has gone and nothing is left to be read, after a wait that gave these poll events.
bool findLoss(connection_info_t* connection, int events);
/// Whether a whole frame is there to be handled.
bool holdsFrame(connection_info_t* connection);
/// Parses what was received. The answer to `id` (0: none awaited) ends it and is given; frames of living requests are
/// kept, others dropped. False with a frame that cannot be read: it is tried once more next time.
bool parseReceived(connection_info_t* connection, uint64_t id, OwnedJson* answer);
/// Takes out the oldest frame that is kept for the event loop; null when there is none.
OwnedJson takeKept(connection_info_t* connection);
/// Sends a frame (null: memory was short) and waits for its answer, which is no error; else null with pcb_error.
OwnedJson exchange(pcb_t* client, OwnedJson frame, int64_t deadline);
/// A frame for an operation on a path; null when out of memory.
OwnedJson newFrame(const char* operation, const char* path);
/// The next id, added to the frame; 0 when out of memory.
uint64_t numberFrame(pcb_t* client, cJSON* frame);

// ---- events.cpp ----

/// Count connections that are lost and not yet closed. The first also wakes the threads that wait. Any thread.
void countLostConnection();
void forgetLostConnection();

// ---- request.cpp ----

/// The client's request with this id, which stays its owner's; null when there is none.
request_t* findRequest(pcb_t* client, uint64_t id);
/// Hands a frame to its request's handler, if it still lives.
void dispatchFrame(pcb_t* client, const cJSON* frame);
/// Detaches all requests from a client that is destroyed; their owners still have them.
void detachRequests(pcb_t* client);

// ---- client.cpp ----

/// Sets a parameter on the bus; false with pcb_error. Blocks for the exchange.
bool setOnBus(pcb_t* client, const char* path, const char* parameter, const char* text);

// ---- variant.cpp ----

/// Null when out of memory.
OwnedJson variantToJson(const variant_t* variant);
/// Releases the entries; the map is empty afterwards.
void releaseEntries(variant_map_t* map);
/// The value of a JSON item, its text inside the item: never to be cleaned up. Empty for null and what is no value.
variant_t variantInsideJson(const cJSON* item);
