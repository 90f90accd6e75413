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

// Writes of at most PIPE_BUF bytes are atomic: a record is written whole or not at all.
static_assert(sizeof(EventRecord) <= PIPE_BUF);

// Waits until the pipe has room for a record (true), or the loop is to end (false). A blocking write to a full pipe
// could not be interrupted safely by SIGTERM, so the end signals are unblocked only during this wait.
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
        // The write reports any failure other than an interruption.
        ready = result > 0 || (result < 0 && errno != EINTR);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return ready;
}

bool sendValueThroughPipe(unsigned code, const char* value) {
    EventRecord record = {};
    record.code = code;
    if (value) {
        const size_t length = strlen(value);
        if (length > KEventValueMaxLength) {
            LOG(ERROR, "Parameter value too long: %s", value);
            return false;
        }
        memcpy(record.value, value, length);
    }
    if (!waitForRoomInPipe()) return false;
    if (write(iPipeForPcbChanges[1], &record, sizeof record) == sizeof record) return true;
    LOG(ERROR, "Failed to write to event pipe");
    return false;
}
