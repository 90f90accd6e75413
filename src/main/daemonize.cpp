// The program's own daemon() and its pid file.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/log/log.h"
#include "src/main/pidfile.h"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "src/main";

/// Detaches the process into the background. `keepDirectory` nonzero keeps the working directory, else it becomes "/";
/// `keepStreams` nonzero keeps the standard streams, else they become /dev/null (and stay where that cannot be opened).
/// 0 in the process that goes on, -1 when a fork or the new session failed. Before any other thread exists.
extern "C" int daemon(int keepDirectory, int keepStreams) {
    // What sits in stdio now would be written by every process that comes out of a fork.
    fflush(nullptr);

    pid_t child = fork();
    if (child < 0) return -1;
    if (child > 0) _exit(0);
    if (setsid() < 0) return -1;
    child = fork();
    if (child < 0) return -1;
    if (child > 0) _exit(0);

    if (!keepDirectory && chdir("/") != 0) {
        // The root directory is always there; a process that may not enter it stays where it is.
    }
    if (keepStreams) return 0;
    const int null = open("/dev/null", O_RDWR);
    if (null < 0) return 0;
    for (int stream = 0; stream <= 2; ++stream) {
        dup2(null, stream);
    }
    if (null > 2) close(null);
    return 0;
}

int write_pidfile(const char* path) {
    // Not fopen: with an umask of 0 it makes a file that everybody may write, and a supervisor believes its number.
    const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (file < 0) return 0;
    if (dprintf(file, "%ld\n", static_cast<long>(getpid())) < 0) {
        LOG(WARN, "Cannot write the pid file: %s", strerror(errno));
    }
    close(file);
    return 1;
}
