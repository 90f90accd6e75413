#include "src/main/daemonize.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

// Ends this process and goes on in a child; false in this process when there is none.
static bool goOnAsChild() {
    const pid_t child = fork();
    if (child > 0) _exit(0);
    return child == 0;
}

extern "C" int daemon(int keepDirectory, int keepStreams) {
    // Buffered output would be written once by each process that a fork makes.
    fflush(nullptr);

    // The second time, so that the process leads no session and no terminal can become its own.
    if (!goOnAsChild() || setsid() < 0 || !goOnAsChild()) return -1;

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
