// The socket to the bus: frames out and in, and the exchange of one frame for its answer.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <limits>

#include "platform/pcb/internal.h"

static constexpr int64_t KExchangeMilliseconds = 5000;
static constexpr size_t KReceiveAtOnce = size_t{64} * 1024;
static constexpr size_t KReceivePerPass = size_t{4} * 1024 * 1024;

static int64_t now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1000000;
}

int64_t deadlineIn(int64_t milliseconds) { return now() + milliseconds; }

int64_t deadlineOfExchange() { return deadlineIn(KExchangeMilliseconds); }

int millisecondsUntil(int64_t deadline) {
    return static_cast<int>(std::clamp<int64_t>(deadline - now(), 0, std::numeric_limits<int>::max()));
}

static void lose(connection_info_t* connection) {
    if (connection->lost) return;
    close(connection->socket);
    connection->socket = -1;
    connection->lost = true;
    countLostConnection();
}

bool openConnection(connection_info_t* connection, const char* path, int64_t deadline) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof address.sun_path) return fail(PCB_ERROR_INVALID_ARGUMENT);
    memcpy(address.sun_path, path, strlen(path));
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return fail(PCB_ERROR_SYSTEM);
    int result = 0;
    // A full queue of a listener that does not accept gives EAGAIN, and nothing to wait on.
    while ((result = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address)) < 0 &&
           (errno == EAGAIN || errno == EINTR) && millisecondsUntil(deadline)) {
        poll(nullptr, 0, 10);
    }
    if (result == 0 && fd < FD_SETSIZE) {
        connection->socket = fd;
        return true;
    }
    const uint32_t reason = result == 0       ? PCB_ERROR_SYSTEM
                            : errno == EAGAIN ? PCB_ERROR_TIMEOUT
                                              : PCB_ERROR_CANNOT_CONNECT;
    close(fd);
    return fail(reason);
}

void closeConnection(connection_info_t* connection) {
    while (takeKept(connection)) {
    }
    if (connection->socket >= 0) close(connection->socket);
    if (connection->lost) forgetLostConnection();
    connection->socket = -1;
    connection->lost = false;
    connection->in = {};
    connection->out = {};
    connection->searched = 0;
    connection->failedToReadOnce = false;
}

bool sendQueued(connection_info_t* connection) {
    while (!connection->lost && connection->out.length) {
        const std::string_view content = connection->out.content();
        const ssize_t count = send(connection->socket, content.data(), content.size(), MSG_NOSIGNAL);
        if (count >= 0) {
            bufferTake(&connection->out, static_cast<size_t>(count));
        } else if (errno == EAGAIN) {
            return true;
        } else if (errno == EPIPE || errno == ECONNRESET) {
            // What the bus wrote before it went may still be read; reading finds the end.
            bufferTake(&connection->out, connection->out.length);
            return fail(PCB_ERROR_CONNECTION_LOST);
        } else if (errno != EINTR) {
            return fail(PCB_ERROR_SYSTEM);
        }
    }
    return true;
}

bool queueFrame(connection_info_t* connection, const cJSON* frame) {
    if (connection->lost) return fail(PCB_ERROR_CONNECTION_LOST);
    if (connection->socket < 0) return fail(PCB_ERROR_NOT_CONNECTED);
    const OwnedText text = printJson(frame);
    if (!text) return fail(PCB_ERROR_NO_MEMORY);
    const size_t length = strlen(text.get());
    if (length > KMaxFrameLength) return fail(PCB_ERROR_FRAME_TOO_LARGE);
    if (connection->out.length + length > KMaxBacklog) return fail(PCB_ERROR_BACKLOG);
    text.get()[length] = '\n';  // in the place of its zero: a frame goes as a whole or not at all
    if (!bufferAppend(&connection->out, {text.get(), length + 1})) return fail(PCB_ERROR_NO_MEMORY);
    if (sendQueued(connection)) return true;
    // The rest of a partly sent frame stays queued and is sent later.
    if (connection->out.length > 0 && connection->out.length <= length) return true;
    connection->out.length -= std::min(connection->out.length, length + 1);
    return false;
}

bool receive(connection_info_t* connection) {
    size_t received = 0;
    // No more than the longest frame waits here: what a bus sends faster than it can be read stays in the socket.
    while (!connection->lost && received < KReceivePerPass && connection->in.length <= KMaxFrameLength) {
        if (!bufferReserve(&connection->in, KReceiveAtOnce)) return fail(PCB_ERROR_NO_MEMORY);
        char* end = connection->in.bytes.get() + connection->in.start + connection->in.length;
        const ssize_t count = recv(connection->socket, end, KReceiveAtOnce, 0);
        if (count > 0) {
            connection->in.length += static_cast<size_t>(count);
            received += static_cast<size_t>(count);
            if (static_cast<size_t>(count) < KReceiveAtOnce) break;  // that was all there is
        } else if (count < 0 && errno == EAGAIN) {
            break;
        } else if (count == 0 || errno != EINTR) {
            lose(connection);
        }
    }
    return true;
}

bool findLoss(connection_info_t* connection, int events) {
    char byte = 0;
    if (!(events & (POLLHUP | POLLERR)) || holdsFrame(connection)) return false;
    const ssize_t count = recv(connection->socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    if (count > 0 || (count < 0 && (errno == EAGAIN || errno == EINTR))) return false;
    lose(connection);
    return true;
}

// The length of the first line of what was received, or npos.
static size_t lineLength(connection_info_t* connection) {
    const std::string_view content = connection->in.content();
    const size_t end = content.find('\n', connection->searched);
    if (end == std::string_view::npos) connection->searched = content.size();
    return end;
}

bool holdsFrame(connection_info_t* connection) {
    return connection->firstKept || lineLength(connection) != std::string_view::npos;
}

static void keep(connection_info_t* connection, OwnedJson frame) {
    // A frame is a root of its own, so its link to a sibling is free.
    (connection->lastKept ? connection->lastKept->next : connection->firstKept) = frame.get();
    connection->lastKept = frame.release();
    ++connection->kept;
}

OwnedJson takeKept(connection_info_t* connection) {
    OwnedJson frame(connection->firstKept);
    if (!frame) return nullptr;
    connection->firstKept = frame->next;
    frame->next = nullptr;
    if (!connection->firstKept) connection->lastKept = nullptr;
    --connection->kept;
    return frame;
}

bool parseReceived(connection_info_t* connection, uint64_t id, OwnedJson* answer) {
    while (true) {
        const size_t length = lineLength(connection);
        if (length == std::string_view::npos) {
            // A bus that sends so long a frame cannot be used further.
            if (connection->in.length > KMaxFrameLength) lose(connection);
            return true;
        }
        char* line = connection->in.bytes.get() + connection->in.start;
        line[length] = '\0';
        OwnedJson frame = parseJson(line);
        line[length] = '\n';
        const bool unreadable = !frame && !connection->failedToReadOnce;
        connection->failedToReadOnce = unreadable;
        if (unreadable) return fail(PCB_ERROR_UNREADABLE_FRAME);
        bufferTake(&connection->in, length + 1);
        connection->searched = 0;
        const uint64_t frameId = jsonCount(frame.get(), KWireId);
        if (id && frameId == id) {
            *answer = std::move(frame);
            return true;
        }
        if (frame && findRequest(connection->client, frameId)) keep(connection, std::move(frame));
    }
}

OwnedJson newFrame(const char* operation, const char* path) {
    OwnedJson frame(cJSON_CreateObject());
    const bool complete = frame && addJsonText(frame.get(), KWireOperation, operation) &&
                          (!path || addJsonText(frame.get(), KWirePath, path));
    return complete ? std::move(frame) : nullptr;
}

uint64_t numberFrame(pcb_t* client, cJSON* frame) {
    const uint64_t id = client->lastId + 1;
    if (!frame || !cJSON_AddNumberToObject(frame, KWireId, static_cast<double>(id))) {
        fail(PCB_ERROR_NO_MEMORY);
        return 0;
    }
    return client->lastId = id;
}

// Waits until the socket can be read, or written when there is something to write, and does it.
static bool moveBytes(connection_info_t* connection, int64_t deadline) {
    const int remaining = millisecondsUntil(deadline);
    if (!remaining) return fail(PCB_ERROR_TIMEOUT);
    pollfd waited = {connection->socket, POLLIN, 0};
    if (connection->out.length) waited.events |= POLLOUT;
    if (poll(&waited, 1, remaining) < 0 && errno != EINTR) return fail(PCB_ERROR_SYSTEM);
    (void)sendQueued(connection);
    return receive(connection);
}

OwnedJson exchange(pcb_t* client, OwnedJson frame, int64_t deadline) {
    OWED(!isSignalHandler());
    connection_info_t* connection = &client->connection;
    const uint64_t id = numberFrame(client, frame.get());
    if (!id || !queueFrame(connection, frame.get())) return nullptr;
    frame.reset();
    OwnedJson answer;
    while (true) {
        if (!parseReceived(connection, id, &answer)) return nullptr;
        if (answer) break;
        if (connection->lost) {
            fail(PCB_ERROR_CONNECTION_LOST);
            return nullptr;
        }
        if (!moveBytes(connection, deadline)) return nullptr;
    }
    const auto error = static_cast<uint32_t>(jsonCount(answer.get(), KWireError));
    if (error) {
        fail(error);
        return nullptr;
    }
    return answer;
}
