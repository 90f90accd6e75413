#include "src/main/pidfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/log/log.h"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "src/main";

int write_pidfile(const char* path) {
    // A link would lead elsewhere, and a pipe may have no reader: an ordinary file takes their place.
    struct stat present = {};
    if (lstat(path, &present) == 0 && !S_ISREG(present.st_mode)) (void)unlink(path);
    // Not fopen: with an umask of 0 it makes a file that everybody may write, and a supervisor believes its number.
    const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0644);
    if (file < 0) return 0;
    if (dprintf(file, "%ld\n", static_cast<long>(getpid())) < 0) {
        LOG(WARN, "Cannot write the pid file: %s", strerror(errno));
    }
    close(file);
    return 1;
}
