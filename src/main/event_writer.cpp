#include "src/main/event_writer.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "common/log/log.h"
#include "pcblib/pcbclient.h"
#include "src/dbusinterface/event_record.h"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "src/main";

int* iPipeForPcbChanges;

// A write of a record then is whole, or does not happen.
static_assert(sizeof(EventRecord) <= PIPE_BUF);

// Waits until the pipe takes a record, or is full and the loop is to end; true when there is room. A write that blocks
// in a full pipe could not be left when SIGTERM arrives, so the signals are let in only while this waits.
static bool waitForRoomInPipe() {
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &ends, &before);
    pollfd writeEnd = {iPipeForPcbChanges[1], POLLOUT, 0};
    bool ready = false, mayWait = true;
    while (!ready && mayWait) {
        mayWait = !isPcbDataModelEventLoopEnding();
        const timespec atOnce = {};
        const int result = ppoll(&writeEnd, 1, mayWait ? nullptr : &atOnce, &before);
        // Another failure than an interruption is left to the write, which reports it.
        ready = result > 0 || (result < 0 && errno != EINTR);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return ready;
}

void sendValueThroughPipe(unsigned code, const char* value) {
    EventRecord record = {};
    record.code = code;
    if (value) {
        const size_t length = strlen(value);
        if (length > KEventValueMaxLength) {
            LOG(ERROR, "Parameter value too long: %s", value);
            return;
        }
        memcpy(record.value, value, length);
    }
    if (!waitForRoomInPipe()) return;
    if (write(iPipeForPcbChanges[1], &record, sizeof record) != sizeof record) {
        LOG(ERROR, "Failed to write to event pipe");
    }
}
