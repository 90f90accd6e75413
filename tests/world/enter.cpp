// enter COMMAND [ARGUMENT...]: runs a command in a private world and ends with its status. The world is a user, mount
// and PID namespace of its own, with empty folders at /var/run, /media and /var/log; everything that the command starts
// ends with it. Root finds every user of its own there, anybody else only itself, as root. Inside a world it only runs
// the command. With --unprivileged before the command it always makes a world, whose user is not root, has no
// capability and can write nowhere but in those three folders. Where the kernel refuses namespaces and the user is root
// in a container, the real folders serve, one world at a time.
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

static constexpr const char* KFolders[] = {"/var/run", "/media", "/var/log"};
static constexpr unsigned KUser = 1000;  // of an unprivileged world, whoever that is outside

static pid_t iChild;
static bool iUnprivileged;

static void forwardSignal(int number) { kill(iChild, number); }

[[noreturn]] static void fail(const char* what) {
    fprintf(stderr, "enter: %s: %s\n", what, strerror(errno));
    exit(125);
}

static void writeMap(const char* path, const char* text) {
    const int file = open(path, O_WRONLY | O_CLOEXEC);
    if (file < 0 || write(file, text, strlen(text)) < 0) fail(path);
    close(file);
}

// Gives the namespace of the process that started this one the users of our own, each under the same number.
static bool shareUsers(const char* name) {
    char path[64];
    snprintf(path, sizeof path, "/proc/self/%s", name);
    FILE* const own = fopen(path, "re");
    snprintf(path, sizeof path, "/proc/%d/%s", getppid(), name);
    const int shared = open(path, O_WRONLY | O_CLOEXEC);
    char line[128], map[4096] = "";
    size_t length = 0;
    while (own && length + sizeof line < sizeof map && fgets(line, sizeof line, own)) {
        char* next = line;
        const unsigned long first = strtoul(next, &next, 10);
        (void)strtoul(next, &next, 10);
        const unsigned long count = strtoul(next, &next, 10);
        length += static_cast<size_t>(snprintf(map + length, sizeof line, "%lu %lu %lu\n", first, first, count));
    }
    return write(shared, map, length) > 0;
}

// Only a process outside may put more than one user into a new namespace: it is started before, and the result, which
// is called inside, tells whether it did so.
static auto startSharingUsers() {
    int door[2];
    if (pipe2(door, O_CLOEXEC) != 0) fail("pipe");
    const pid_t helper = fork();
    if (helper < 0) fail("fork");
    if (helper == 0) {
        close(door[1]);
        char none = 0;
        (void)!read(door[0], &none, 1);  // until the namespace is there, or its maker gone
        _exit(!iUnprivileged && shareUsers("gid_map") && shareUsers("uid_map") ? 0 : 1);
    }
    close(door[0]);
    return [helper, inside = door[1]] {
        close(inside);
        int status = 0;
        return waitpid(helper, &status, 0) == helper && status == 0;
    };
}

static void becomeUserOfOwnNamespace(uid_t user, gid_t group) {
    char map[64];
    const unsigned inside = iUnprivileged ? KUser : 0;
    writeMap("/proc/self/setgroups", "deny");
    snprintf(map, sizeof map, "%u %u 1", inside, user);
    writeMap("/proc/self/uid_map", map);
    snprintf(map, sizeof map, "%u %u 1", inside, group);
    writeMap("/proc/self/gid_map", map);
}

static bool isContainer() {
    return access("/.dockerenv", F_OK) == 0 || access("/run/.containerenv", F_OK) == 0 ||
           getenv("container") != nullptr;
}

static void mountEmptyFolder(const char* path) {
    char real[PATH_MAX];
    if (!realpath(path, real)) fail(path);
    if (mount("world", real, "tmpfs", 0, "mode=0755") != 0) fail(real);
}

// What the namespace's first process may still do, the command may not: executing it as a user that is not root takes
// the capabilities away, and the empty bounding set keeps them away.
static void giveUpPrivileges() {
    mount_attr attributes = {.attr_set = MOUNT_ATTR_RDONLY, .attr_clr = 0, .propagation = 0, .userns_fd = 0};
    if (mount_setattr(AT_FDCWD, "/", AT_RECURSIVE, &attributes, sizeof attributes) != 0) fail("read-only root");
    attributes = {.attr_set = 0, .attr_clr = MOUNT_ATTR_RDONLY, .propagation = 0, .userns_fd = 0};
    for (const char* folder : KFolders) {
        if (mount_setattr(AT_FDCWD, folder, 0, &attributes, sizeof attributes) != 0) fail(folder);
    }
    for (unsigned long capability = 0; prctl(PR_CAPBSET_DROP, capability) == 0; ++capability) {
    }
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) fail("no new privileges");
}

static void emptyFolder(const char* path) {
    char command[PATH_MAX];
    snprintf(command, sizeof command, "cd %s && rm -rf orvoservice* orsm* pcb_sys* kelm.* desk cloud output*", path);
    if (system(command) != 0) fail(path);
}

[[noreturn]] static void runCommand(char** command) {
    if (mkdir("/var/run/dbus", 0755) != 0 && errno != EEXIST) fail("/var/run/dbus");
    setenv("ORSM_WORLD", "1", 1);
    execvp(command[0], command);
    fail(command[0]);
}

static int statusOf(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

// Ends what the command left behind, where no PID namespace does: orphans are this process's children.
static void endOrphans() {
    char path[64];
    snprintf(path, sizeof path, "/proc/self/task/%d/children", getpid());
    for (;;) {
        char children[4096] = "";
        const int file = open(path, O_RDONLY | O_CLOEXEC);
        if (file >= 0 && read(file, children, sizeof children - 1) < 0) children[0] = 0;
        if (file >= 0) close(file);
        char* next = children;
        for (long orphan = strtol(next, &next, 10); orphan > 0; orphan = strtol(next, &next, 10)) {
            kill(static_cast<pid_t>(orphan), SIGKILL);
        }
        if (waitpid(-1, nullptr, 0) < 0 && errno == ECHILD) return;
    }
}

// The first process of the PID namespace: it starts the command, reaps what is left behind by others, and takes the
// whole namespace with it when it ends.
[[noreturn]] static void runInit(char** command) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) fail("making mounts private");
    // Refused where parts of the outer /proc are covered; the outer one serves then, with outer numbers.
    (void)mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr);
    for (const char* folder : KFolders) {
        mountEmptyFolder(folder);
    }
    iChild = fork();
    if (iChild < 0) fail("fork");
    if (iChild == 0) {
        if (iUnprivileged) giveUpPrivileges();
        runCommand(command);
    }
    for (int number : {SIGINT, SIGTERM, SIGHUP}) {
        signal(number, forwardSignal);
    }
    for (;;) {
        int status = 0;
        const pid_t ended = wait(&status);
        if (ended == iChild) _exit(statusOf(status));
    }
}

int main(int argc, char** argv) {
    iUnprivileged = argc > 1 && strcmp(argv[1], "--unprivileged") == 0;
    argv += iUnprivileged;
    if (!argv[0] || !argv[1]) {
        fputs("usage: enter [--unprivileged] COMMAND [ARGUMENT...]\n", stderr);
        return 125;
    }
    if (getenv("ORSM_WORLD") && !iUnprivileged) runCommand(argv + 1);

    const uid_t user = geteuid();
    const gid_t group = getegid();
    const auto shareUsersNow = startSharingUsers();
    bool isolated = unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWPID) == 0;
    const bool shared = shareUsersNow();
    if (isolated) {
        if (!shared) becomeUserOfOwnNamespace(user, group);
    } else {
        isolated = user == 0 && !iUnprivileged && unshare(CLONE_NEWNS | CLONE_NEWPID) == 0;
    }
    if (!isolated) {
        if (iUnprivileged || user != 0 || !isContainer()) {
            fputs(
                "enter: this kernel lets nobody make namespaces; enable unprivileged user namespaces "
                "(sysctl kernel.unprivileged_userns_clone=1 and user.max_user_namespaces=10000), "
                "or run as root in a container\n",
                stderr);
            return 125;
        }
        const int lock = open("/tmp/orsm-world.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (lock < 0 || flock(lock, LOCK_EX) != 0) fail("/tmp/orsm-world.lock");
        for (const char* folder : KFolders) {
            emptyFolder(folder);
        }
        prctl(PR_SET_CHILD_SUBREAPER, 1);
    }

    iChild = fork();
    if (iChild < 0) fail("fork");
    if (iChild == 0) {
        if (isolated) runInit(argv + 1);
        runCommand(argv + 1);
    }
    for (int number : {SIGINT, SIGTERM, SIGHUP}) {
        signal(number, forwardSignal);
    }
    int status = 0;
    while (waitpid(iChild, &status, 0) < 0) {
        if (errno != EINTR) fail("waitpid");
    }
    if (!isolated) endOrphans();
    return statusOf(status);
}
