#include "src/main/daemonize.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

extern "C" int daemon(int keepDirectory, int keepStreams) {
    // Buffered output would be written once by each process that a fork makes.
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
