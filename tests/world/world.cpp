#include "tests/world/world.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace world {

class World : public testing::EmptyTestEventListener {
    void OnTestProgramStart(const testing::UnitTest&) override {
        if (!getenv("ORSM_WORLD")) {
            fputs("Run tests through the world's door: tests/world/enter TEST\n", stderr);
            _exit(125);
        }
        signal(SIGPIPE, SIG_IGN);
    }
    void OnTestEnd(const testing::TestInfo& test) override {
        if (!test.result()->Failed()) return;
        // What the test's programs wrote, the latest at the end.
        (void)!system(R"(cd /var/log; for file in $(ls -tr output.* orsm.log test.log 2>/dev/null); do
            [ ! -s $file ] || tail -v -n 40 $file; done >&2)");
    }
};

[[maybe_unused]] static const bool KIsWorld = (testing::UnitTest::GetInstance()->listeners().Append(new World), true);

Process::Process(std::vector<std::string> arguments) {
    static std::atomic<int> serial = 0;
    const std::string name = arguments[0].substr(arguments[0].rfind('/') + 1);
    outputPath_ = "/var/log/output." + name + "." + std::to_string(++serial);
    const int file = open(outputPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_APPEND, 0644);
    std::vector<char*> raw(arguments.size() + 1);
    std::transform(arguments.begin(), arguments.end(), raw.begin(), [](std::string& text) { return text.data(); });
    pid_ = fork();
    if (pid_ < 0 || file < 0) throw std::runtime_error("cannot start " + name);
    if (pid_ == 0) {
        dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), 0);
        dup2(file, 1);
        dup2(file, 2);
        signal(SIGPIPE, SIG_DFL);
        execvp(raw[0], raw.data());
        dprintf(2, "cannot execute %s\n", raw[0]);
        _exit(127);
    }
    close(file);
}

Process::~Process() {
    if (!running()) return;
    send(SIGKILL);
    waitpid(pid_, nullptr, 0);
}

bool Process::running() {
    if (!ended_ && waitpid(pid_, &status_, WNOHANG) == pid_) ended_ = true;
    return !ended_;
}

void Process::send(int signalNumber) const { kill(pid_, signalNumber); }

int Process::wait() {
    if (!waitFor([this] { return !running(); })) return -1;
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : 128 + WTERMSIG(status_);
}

std::string Process::output() const { return readFile(outputPath_); }

int run(std::vector<std::string> arguments, std::string* output) {
    Process process(std::move(arguments));
    const int status = process.wait();
    if (output) *output = process.output();
    return status;
}

bool waitFor(const std::function<bool()>& condition, Process* needed) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    bool last = false;  // what a process did before its end still counts
    for (; !condition(); poll(nullptr, 0, 5)) {
        if (last) return false;
        last = std::chrono::steady_clock::now() > end || (needed && !needed->running());
    }
    return true;
}

std::string binary(const std::string& name) { return std::string(ORSM_BINARY_FOLDER "/") + name; }

std::string readFile(const std::string& path, size_t from) {
    std::ifstream file(path, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(from));
    return (std::ostringstream() << file.rdbuf()).str();
}

void writeFile(const std::string& path, std::string_view content) {
    std::ofstream(path, std::ios::binary).write(content.data(), static_cast<std::streamsize>(content.size()));
}

std::string LogReader::next(std::string_view text, Caller caller) {
    std::string match;
    Process* const writer = writer_ ? writer_->get() : nullptr;
    const auto came = [&] {
        const std::string rest = readFile(path_, position_);
        const size_t found = rest.find(text), end = rest.find('\n', found);
        if (end == std::string::npos) return false;
        const size_t begin = rest.rfind('\n', found) + 1;
        match = rest.substr(begin, end - begin);
        position_ += end + 1;
        return true;
    };
    const std::string after = std::exchange(after_, text);
    if (waitFor(came, writer)) return match;
    const std::string end = writer && !writer->running() ? std::to_string(writer->wait()) : "";
    const auto& [file, line] = caller;
    ADD_FAILURE_AT(file, line) << "no log line \"" << text << "\" after \"" << after << '"'
                               << (count(text) ? ", but before" : "")
                               << (end.empty() ? "" : "; the daemon has ended with status " + end);
    // To wait for what comes later would only hide this failure.
    throw testing::AssertionException({testing::TestPartResult::kFatalFailure, file, line, ""});
}

size_t LogReader::count(std::string_view text) const {
    size_t lines = 0;
    std::istringstream all(content());
    for (std::string line; std::getline(all, line);) {
        if (line.find(text) != std::string::npos) ++lines;
    }
    return lines;
}

// Starts a bus and waits until it says where it listens.
static std::unique_ptr<Process> startListener(const std::string& socketPath, std::vector<std::string> arguments) {
    unlink(socketPath.c_str());
    auto process = std::make_unique<Process>(std::move(arguments));
    const auto listens = [&] { return process->output().find(socketPath) != std::string::npos; };
    if (!waitFor([&] { return listens() || !process->running(); }) || !process->running()) {
        throw std::runtime_error("nothing listens at " + socketPath + ": " + process->output());
    }
    return process;
}

std::unique_ptr<Process> startDbusDaemon(const std::string& configuration) {
    return startListener("/var/run/dbus/system_bus_socket", {"dbus-daemon", "--nofork", "--nopidfile",
                                                             "--print-address", "--config-file=" + configuration});
}

std::unique_ptr<Process> startPcbBus(const std::string& definition) {
    return startListener("/var/run/pcb_sys",
                         {binary("pcb-bus"), "--socket", "/var/run/pcb_sys", "--definition", definition});
}

}  // namespace world
