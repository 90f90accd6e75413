// The event loop's side of connections: waiting, waking, and what ends the loop.
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>

#include "platform/pcb/internal.h"

static constexpr size_t KMaxConnectionsInList = 32;

static std::atomic<bool> terminated = false;
static std::atomic<int> lostConnections = 0;
// Whether a wait has reported the loss as its failure. Before that a loss ends no loop, so the loop can log it first.
static std::atomic<bool> lossTold = false;
// Opened by the first initialisation and open for good: a signal may come at any time.
static std::atomic<int> wakeDescriptor = -1;

int connection_setEventsAvailable() {
    const uint64_t one = 1;
    const int reason = errno;
    const ssize_t count = write(wakeDescriptor, &one, sizeof one);
    // A counter that is full wakes as well.
    const bool woken = count == sizeof one || errno == EAGAIN;
    errno = reason;
    return woken;
}

static bool ignoreSignal(int signalNumber) {
    struct sigaction action {};
    action.sa_handler = SIG_IGN;
    return sigaction(signalNumber, &action, nullptr) == 0 || fail(PCB_ERROR_SYSTEM);
}

static bool initialize() {
    if (wakeDescriptor < 0) wakeDescriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return wakeDescriptor < 0 ? fail(PCB_ERROR_SYSTEM) : ignoreSignal(SIGPIPE);
}

[[maybe_unused]] static std::atomic<bool> isSetUp = false;

bool connection_initLibrary() {
    OWED(!isSetUp);
    const bool initialized = initialize();
    isSetUp = initialized;
    return initialized;
}

void connection_exitLibrary() {
    OWED(isSetUp);
    isSetUp = false;
}

void connection_setTerminated(bool flag) {
    OWED(!isSignalHandler());
    terminated = flag;
}

bool connection_isTerminated() {
    OWED(!isSignalHandler());
    return terminated || (lossTold && lostConnections > 0);
}

void countLostConnection() {
    ++lostConnections;
    connection_setEventsAvailable();
}

void forgetLostConnection() {
    if (--lostConnections == 0) lossTold = false;
}

bool connection_setSignalEventHandler([[maybe_unused]] connection_info_t* connection, int signalNumber,
                                      void (*handler)(int)) {
    OWED(connection);
    return handler ? fail(PCB_ERROR_INVALID_ARGUMENT) : ignoreSignal(signalNumber);
}

llist_iterator_t* connection_listLink(connection_info_t* connection) {
    OWED(connection);
    return &connection->link;
}

// The link is the first member of its connection.
static connection_info_t* connectionOf(llist_iterator_t* link) { return reinterpret_cast<connection_info_t*>(link); }

namespace {

struct Round {
    int ready = 0;  // connections with events; -1 on failure
    bool woken = false;
};

}  // namespace

static Round failedRound(uint32_t reason) {
    fail(reason);
    return {-1, false};
}

// Waits once, at most `milliseconds` (-1: without limit). Nothing is ready after a signal.
static Round waitOnce(llist_t* list, int wake, int milliseconds, fd_set* readSet, fd_set* writeSet) {
    pollfd waited[KMaxConnectionsInList + 1] = {
        {wake, POLLIN, 0}
    };
    nfds_t count = 1;
    Round round;
    for (llist_iterator_t* link = list->first; link; link = link->next) {
        connection_info_t* connection = connectionOf(link);
        if (count > KMaxConnectionsInList) return failedRound(PCB_ERROR_INVALID_ARGUMENT);
        if (holdsFrame(connection)) {
            ++round.ready;
        } else if (connection->lost) {
            return failedRound(PCB_ERROR_CONNECTION_LOST);
        }
        waited[count++] = {connection->socket, static_cast<short>(connection->out.length ? POLLIN | POLLOUT : POLLIN),
                           0};
    }
    if (poll(waited, count, round.ready ? 0 : milliseconds) < 0) {
        return errno == EINTR ? round : failedRound(PCB_ERROR_SYSTEM);
    }
    round.woken = waited[0].revents;
    nfds_t i = 0;
    for (llist_iterator_t* link = list->first; link; link = link->next) {
        if (findLoss(connectionOf(link), waited[++i].revents)) return failedRound(PCB_ERROR_CONNECTION_LOST);
        if (waited[i].revents) ++round.ready;
        if (readSet && waited[i].revents & ~POLLOUT) FD_SET(waited[i].fd, readSet);
        if (writeSet && waited[i].revents & POLLOUT) FD_SET(waited[i].fd, writeSet);
    }
    return round;
}

[[maybe_unused]] static bool isClear(const fd_set* set) {
    fd_set clear;
    FD_ZERO(&clear);
    return set && memcmp(set, &clear, sizeof clear) == 0;
}

int connection_waitForEvents_r(llist_t* list, fd_set* readSet, fd_set* writeSet) {
    OWED(list);
    OWED(isClear(readSet));
    OWED(isClear(writeSet));
    while (!connection_isTerminated()) {
        const Round round = lostConnections > 0 ? Round{} : waitOnce(list, wakeDescriptor, -1, readSet, writeSet);
        if (lostConnections > 0) {
            lossTold = true;
            return failedRound(PCB_ERROR_CONNECTION_LOST).ready;
        }
        if (round.woken && !connection_isTerminated()) {
            // One thread takes a wake-up; the end of the loop wakes every thread that waits.
            uint64_t wakes = 0;
            (void)!read(wakeDescriptor, &wakes, sizeof wakes);
        }
        if (round.ready || round.woken) return round.ready;
    }
    return 0;
}

int connection_waitForEvents(llist_t* list, timeval* timeout) {
    OWED(list);
    static constexpr int64_t KLongest = int64_t{1000} * 1000 * 1000;
    const int64_t wanted =
        timeout ? std::clamp<int64_t>(timeout->tv_sec, 0, KLongest) * 1000 + timeout->tv_usec / 1000 : 0;
    const int64_t deadline = deadlineIn(wanted);
    while (true) {
        const int milliseconds = timeout ? millisecondsUntil(deadline) : -1;
        const Round round = waitOnce(list, -1, milliseconds, nullptr, nullptr);
        if (round.ready || milliseconds == 0) return round.ready;
    }
}

static bool handleConnection(connection_info_t* connection) {
    (void)sendQueued(connection);
    const bool received = receive(connection);
    // What comes while handlers run waits for the next pass, so that a pass ends.
    const bool parsed = parseReceived(connection, 0, nullptr);
    for (size_t left = connection->kept; left && connection->firstKept; --left) {
        const OwnedJson frame = takeKept(connection);
        dispatchFrame(connection->client, frame.get());
    }
    return received && parsed;
}

// All connections, whatever the sets say: a connection can hold frames that its socket knows nothing of.
bool connection_handleEvents(llist_t* list) {
    OWED(list);
    bool handled = true;
    for (llist_iterator_t *link = list->first, *next = nullptr; link; link = next) {
        next = link->next;
        handled = handleConnection(connectionOf(link)) && handled;
    }
    return handled;
}

bool connection_handleEvents_r(llist_t* list, fd_set*, fd_set*) { return connection_handleEvents(list); }
