// Stands between a daemon and the kernel, and strikes at the system calls that have to do with its store, and with its
// log where that is asked for: the daemon dies before the call, or the call fails, or writes half. (x86-64 only.)
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>

#include "tests/daemon/daemon.h"
#include "tests/platform/client.h"

namespace world {

constexpr int KKill = -1, KShortWrite = -2;  // what a call can meet besides an error number

class Tracer {
  public:
    /// Follows all threads of a process from now on. Calls are counted in each save, or, with `alsoLog`, from the last
    /// arming on and together with the writing of log lines.
    Tracer(pid_t process, bool alsoLog) : process_(process), alsoLog_(alsoLog) {
        void* const shared = mmap(nullptr, sizeof(Plan), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        plan_ = new (shared) Plan;
        // A process of its own: the test goes on waiting for the daemon's end, and would take the stops for that.
        tracer_ = fork();
        if (tracer_ == 0) follow();
        EXPECT_TRUE(waitFor([this] { return plan_->following || waitpid(tracer_, nullptr, WNOHANG) != 0; }));
        EXPECT_TRUE(plan_->following) << "the daemon cannot be traced";
    }
    ~Tracer() {
        kill(tracer_, SIGKILL);
        waitpid(tracer_, nullptr, 0);
        munmap(plan_, sizeof(Plan));
    }
    Tracer(const Tracer&) = delete;
    Tracer& operator=(const Tracer&) = delete;

    /// From now on, call number `call` (from 1) of each save in the set `saves` (bit 0: the next one) meets `fault`.
    void arm(unsigned saves, int call, int fault) {
        plan_->saves = saves;
        plan_->fault = fault;
        plan_->save = plan_->seen = plan_->struck = plan_->reported = 0;
        plan_->call = call;
    }
    /// How many calls have met their fault, and of how many of them the save must say so.
    int struck() const { return plan_->struck; }
    int reported() const { return plan_->reported; }
    /// How many saves have begun, and the calls that the last one made.
    int saves() const { return plan_->save; }
    std::vector<long> calls() const { return {plan_->numbers, plan_->numbers + plan_->seen}; }

  private:
    struct Plan {  // shared by both processes
        std::atomic<unsigned> saves = 0;
        std::atomic<int> call = 0, fault = 0, save = 0, seen = 0, struck = 0, reported = 0;
        std::atomic<bool> following = false;
        long numbers[100];
    };

    // The file that a call has to do with, whichever call it is.
    std::string fileOf(const user_regs_struct& call) const {
        const std::string proc = "/proc/" + std::to_string(process_);
        const unsigned long place = static_cast<int>(call.rdi) == AT_FDCWD ? call.rsi : call.rdi;
        char path[64] = "";
        if (place < 4096) {
            (void)!readlink((proc + "/fd/" + std::to_string(place)).c_str(), path, sizeof path - 1);
        } else {
            const int memory = open((proc + "/mem").c_str(), O_RDONLY | O_CLOEXEC);
            (void)!pread(memory, path, sizeof path - 1, static_cast<off_t>(place));
            close(memory);
        }
        return path;
    }

    bool isStruck(const user_regs_struct& call) {
        const std::string file = fileOf(call);
        const bool logs = alsoLog_ && call.orig_rax == SYS_write && file == KDaemonLog;
        if (!logs && !file.starts_with("/media")) return false;
        if (!alsoLog_ && call.orig_rax == SYS_openat && file == std::string(KStore) + ".new") {
            ++plan_->save;
            plan_->seen = 0;
        }
        plan_->numbers[plan_->seen % 100] = static_cast<long>(call.orig_rax);
        if (++plan_->seen != plan_->call) return false;
        if (!alsoLog_ && !(plan_->saves >> (plan_->save - 1) & 1)) return false;
        if (plan_->fault == KShortWrite && call.orig_rax != SYS_write) return false;
        // A write that was cut short or interrupted goes on, and the folder has nothing to say when it is closed.
        const bool harmless = call.orig_rax == SYS_write ? plan_->fault == KShortWrite || plan_->fault == EINTR
                                                         : call.orig_rax == SYS_close && file == "/media";
        plan_->reported += !harmless;
        ++plan_->struck;
        return true;
    }

    void onCall(pid_t thread) {
        user_regs_struct call;
        ptrace(PTRACE_GETREGS, thread, nullptr, &call);
        if (const auto found = pending_.find(thread); found != pending_.end()) {
            if (plan_->fault > 0) call.rax = static_cast<unsigned long>(-plan_->fault);
            call.rdx = found->second;  // the caller expects its registers unchanged
            pending_.erase(found);
        } else if (static_cast<long>(call.rax) != -ENOSYS || !isStruck(call)) {  // so it stands while a call begins
            return;
        } else if (plan_->fault == KKill) {
            kill(process_, SIGKILL);
            return;
        } else {
            pending_[thread] = call.rdx;
            if (plan_->fault == KShortWrite) {
                call.rdx /= 2;
            } else if (call.orig_rax != SYS_close) {  // which closes whatever it answers
                call.orig_rax = static_cast<unsigned long>(-1);
            }
        }
        ptrace(PTRACE_SETREGS, thread, nullptr, &call);
    }

    [[noreturn]] void follow() {
        int status = 0;
        for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(process_) + "/task")) {
            const pid_t thread = std::stoi(task.path().filename());
            if (ptrace(PTRACE_SEIZE, thread, nullptr, PTRACE_O_TRACESYSGOOD) != 0) _exit(1);
            ptrace(PTRACE_INTERRUPT, thread, nullptr, nullptr);
            waitpid(thread, &status, __WALL);
            ptrace(PTRACE_SYSCALL, thread, nullptr, nullptr);
        }
        plan_->following = true;
        for (pid_t thread; (thread = waitpid(-1, &status, __WALL)) > 0;) {
            if (!WIFSTOPPED(status)) continue;
            const bool isCall = WSTOPSIG(status) == (SIGTRAP | 0x80);
            if (isCall) onCall(thread);
            const long signal = isCall || status >> 16 ? 0 : WSTOPSIG(status);
            ptrace(PTRACE_SYSCALL, thread, nullptr, signal);
        }
        _exit(0);
    }

    pid_t process_, tracer_ = -1;
    bool alsoLog_;
    Plan* plan_ = nullptr;
    std::map<pid_t, unsigned long> pending_;  // the third argument of a struck call that has not come back
};

/// A gateway on which registrations are stored, and whose platform the test plays.
struct StoredGateway : Gateway {
    Client platform{"/var/run/pcb_sys", true};

    StoredGateway() {
        cloud->order({"register", "HA-1", "box", "true"});
        platform.set("Simulation.GatewayClient", "ConnectDelay", "0");
        platform.set("NMC.HomeAutomation", "HA-ID", "HA-1");
    }
    void emptyLog() {
        writeFile(KDaemonLog, "");
        log = LogReader(KDaemonLog);
    }
    /// Starts a daemon whose synchronizations begin after 10 ms instead of a second.
    void startHasty() {
        emptyLog();
        start("orvoservicemanager-failing", {
                                                {"HASTY", "1"}
        });
    }
    /// The value of a parameter in the store, of the first that is called so.
    static std::string stored(const std::string& parameter) {
        const std::string store = readFile(KStore), before = " " + parameter + " = \"";
        const size_t found = store.find(before), begin = found + before.size();
        return found == std::string::npos ? "none" : store.substr(begin, store.find('"', begin) - begin);
    }
    static bool isStoreWhole() {
        const std::string store = readFile(KStore);
        return store.starts_with("object OrvoService {\n") && store.ends_with("\n}\n");
    }
    /// What differs between the store and the data model, or lies beside the store; empty when nothing does.
    std::string disagreement() const {
        constexpr char model[] = "/var/run/model.odl";
        datamodel_save(pcb_client_get_object(platform.peer, "OrvoService", 0), -1, model, DATAMODEL_TEXT);
        std::string texts[] = {readFile(model), readFile(KStore)};
        for (std::string& text : texts) {  // the live connection goes its own way
            const size_t begin = text.find("read-only bool ConnectionStatus");
            if (begin != std::string::npos) text.erase(begin, text.find('\n', begin) - begin);
        }
        if (std::filesystem::exists(std::string(KStore) + ".new")) return "a temporary file";
        return texts[0] == texts[1] ? "" : "model:\n" + texts[0] + "store:\n" + texts[1];
    }
    /// Has a save made that nothing goes wrong with, and looks at the whole store.
    void heal(const std::string& marker) {
        emptyLog();
        // A daemon that died while it had the connection switched on leaves it so.
        platform.set("OrvoService.GatewayClient", "ConnectionMode", "ondemand");
        platform.set("OrvoService.HomeAutomation", "CommunicationServer", marker);
        log.next("Communication server URL changed: " + marker);
        log.next("orvoservice.odl saved to OrvoService");
        EXPECT_EQ(disagreement(), "");
        EXPECT_EQ(stored("CommunicationServer"), marker);
    }
};

}  // namespace world
