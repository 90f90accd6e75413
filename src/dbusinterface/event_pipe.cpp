#include "src/dbusinterface/event_pipe.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/gate/gate.h"
#include "common/log/log.h"
#include "src/dbusinterface/event_reactions.h"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "src/dbusinterface";

static int iPipeEnds[2];
static struct event* iPipeWatcher;

static void closePipe() {
    close(iPipeEnds[0]);
    close(iPipeEnds[1]);
}

int* createPipeForProvidingChangesInDataModel(struct event_base* base) {
    // Closed in programs that the libraries might start.
    if (pipe2(iPipeEnds, O_CLOEXEC) != 0) {
        LOG(ERROR, "Failed to create event pipe: %s", strerror(errno));
        return nullptr;
    }
    const int flags = fcntl(iPipeEnds[0], F_GETFL);
    fcntl(iPipeEnds[0], F_SETFL, flags | O_NONBLOCK);

    iPipeWatcher = event_new(base, iPipeEnds[0], EV_READ | EV_PERSIST, handleEventPipeRecord, nullptr);
    // An event that cannot be added is treated like one that cannot be made.
    if (!iPipeWatcher || event_add(iPipeWatcher, nullptr) != 0) {
        LOG(ERROR, "Failed to create event pipewatcher: %s", strerror(errno));
        if (iPipeWatcher) event_free(iPipeWatcher);
        iPipeWatcher = nullptr;
        closePipe();
        return nullptr;
    }
    return iPipeEnds;
}

void handleEventPipeRecord(evutil_socket_t readEnd, short, void*) {
    const InsideGate inside;
    EventRecord record = {};
    const ssize_t count = read(readEnd, &record, sizeof record);
    if (count == 0) {
        LOG(WARN, "event pipe closed");
        return;
    }
    if (count < 0) {
        if (errno != EAGAIN) LOG(ERROR, "Failed to read from event pipe: %s", strerror(errno));
        return;
    }
    if (count != sizeof record) return;
    record.value[KEventValueMaxLength] = 0;
    reactToEvent(record);
}

void handleWaitingEventPipeRecords() {
    int bytes = 0;
    if (!iPipeWatcher || ioctl(iPipeEnds[0], FIONREAD, &bytes) != 0) return;  // the loop finds them
    for (int records = bytes / static_cast<int>(sizeof(EventRecord)); records > 0; --records) {
        handleEventPipeRecord(iPipeEnds[0], 0, nullptr);
    }
}
