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
#include <fstream>
#include <string>

using namespace std::string_literals;

static constexpr const char* KFolders[] = {"/var/run", "/media", "/var/log"};

static pid_t iChild;
static bool iUnprivileged;

[[noreturn]] static void fail(const char* what) {
    fprintf(stderr, "enter: %s: %s\n", what, strerror(errno));
    exit(125);
}

static bool writeOnce(const std::string& path, const std::string& text) {
    const int file = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    const bool written = file >= 0 && write(file, text.data(), text.size()) > 0;
    close(file);
    return written;
}

// Our own users or groups, each under the same number.
static std::string ownMap(const std::string& name) {
    std::ifstream own("/proc/self/" + name);
    std::string map;
    for (std::string first, outside, count; own >> first >> outside >> count;) {
        map.append(first).append(" ").append(first).append(" ").append(count).append("\n");
    }
    return map;
}

// Gives the new namespace of a process its users: all of ours where that is allowed, else only ourselves, as root, or
// as somebody else in an unprivileged world.
static bool shareUsers(pid_t process) {
    const std::string folder = "/proc/" + std::to_string(process) + "/", inside = iUnprivileged ? "1000 " : "0 ";
    if (!iUnprivileged && writeOnce(folder + "gid_map", ownMap("gid_map"))) {
        return writeOnce(folder + "uid_map", ownMap("uid_map"));
    }
    return writeOnce(folder + "setgroups", "deny") &&
           writeOnce(folder + "gid_map", inside + std::to_string(getegid()) + " 1") &&
           writeOnce(folder + "uid_map", inside + std::to_string(geteuid()) + " 1");
}

// False when the kernel refuses. Only a process outside may put more than one user into a new namespace: it is started
// before.
static bool makeUserNamespace() {
    int door[2];
    if (pipe2(door, O_CLOEXEC) != 0) fail("pipe");
    const pid_t helper = fork();
    if (helper < 0) fail("fork");
    if (helper == 0) {
        char made = 0;
        close(door[1]);
        _exit(read(door[0], &made, 1) == 1 && shareUsers(getppid()) ? 0 : 1);
    }
    const bool made = unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWPID) == 0 && write(door[1], "m", 1) == 1;
    close(door[0]);
    close(door[1]);
    int status = 0;
    waitpid(helper, &status, 0);
    if (made && status != 0) fail("users of the namespace");
    return made;
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
    const std::string command = "cd "s + path + " && rm -rf orvoservice* orsm* pcb_sys* kelm.* desk cloud output*";
    if (system(command.c_str()) != 0) fail(path);
}

[[noreturn]] static void runCommand(char** command) {
    if (mkdir("/var/run/dbus", 0755) != 0 && errno != EEXIST) fail("/var/run/dbus");
    setenv("ORSM_WORLD", "1", 1);
    execvp(command[0], command);
    fail(command[0]);
}

// Runs `child` in a process that gets our signals, reaps whatever else ends meanwhile, and gives its status.
template <class Child>
static int runChild(const Child& child) {
    iChild = fork();
    if (iChild < 0) fail("fork");
    if (iChild == 0) child();
    for (int number : {SIGINT, SIGTERM, SIGHUP}) {
        signal(number, [](int forwarded) { kill(iChild, forwarded); });
    }
    int status = 0;
    while (wait(&status) != iChild) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Ends what the command left behind, where no PID namespace does: orphans are this process's children.
static void endOrphans() {
    for (;;) {
        std::ifstream children("/proc/self/task/" + std::to_string(getpid()) + "/children");
        for (pid_t orphan = 0; children >> orphan;) {
            kill(orphan, SIGKILL);
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
    _exit(runChild([command] {
        if (iUnprivileged) giveUpPrivileges();
        runCommand(command);
    }));
}

int main(int argc, char** argv) {
    iUnprivileged = argc > 1 && strcmp(argv[1], "--unprivileged") == 0;
    argv += iUnprivileged;
    if (!argv[0] || !argv[1]) {
        fputs("usage: enter [--unprivileged] COMMAND [ARGUMENT...]\n", stderr);
        return 125;
    }
    if (getenv("ORSM_WORLD") && !iUnprivileged) runCommand(argv + 1);

    const bool isRoot = geteuid() == 0 && !iUnprivileged;
    if (makeUserNamespace() || (isRoot && unshare(CLONE_NEWNS | CLONE_NEWPID) == 0)) {
        return runChild([argv] { runInit(argv + 1); });
    }
    if (!isRoot || !isContainer()) {
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
    const int status = runChild([argv] { runCommand(argv + 1); });
    endOrphans();
    return status;
}
