#include "tests/world/world.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace world {

// What ran in this test, for the report when it fails.
static std::vector<std::string>& outputs() {
    static std::vector<std::string> paths;
    return paths;
}

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
        for (const std::string& path : outputs()) {
            fprintf(stderr, "----- %s\n%s", path.c_str(), readFile(path).c_str());
        }
    }
};

[[maybe_unused]] static const bool KIsWorld = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new World);
    return true;
}();

Process::Process(std::vector<std::string> arguments) {
    static std::atomic<int> serial = 0;
    const std::string name = arguments[0].substr(arguments[0].rfind('/') + 1);
    outputPath_ = "/var/log/output." + name + "." + std::to_string(++serial);
    outputs().push_back(outputPath_);
    const int file = open(outputPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_APPEND, 0644);
    std::vector<char*> raw;
    for (std::string& argument : arguments) {
        raw.push_back(argument.data());
    }
    raw.push_back(nullptr);
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

bool waitFor(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        poll(nullptr, 0, 5);
    }
    return true;
}

std::string binary(const std::string& name) { return std::string(ORSM_BINARY_FOLDER "/") + name; }

std::string readFile(const std::string& path, size_t from) {
    std::ifstream file(path, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(from));
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

void writeFile(const std::string& path, std::string_view content) {
    std::ofstream(path, std::ios::binary).write(content.data(), static_cast<std::streamsize>(content.size()));
}

std::string LogReader::next(std::string_view text) {
    std::string line;
    (void)waitFor([&] {
        const std::string rest = readFile(path_, position_);
        const size_t found = rest.find(text);
        if (found == std::string::npos) return false;
        const size_t end = rest.find('\n', found);
        if (end == std::string::npos) return false;
        const size_t begin = rest.rfind('\n', found) + 1;
        line = rest.substr(begin, end - begin);
        position_ += end + 1;
        return true;
    });
    EXPECT_FALSE(line.empty()) << "no log line holds: " << text;
    return line;
}

size_t LogReader::count(std::string_view text) const {
    size_t lines = 0;
    std::istringstream all(content());
    for (std::string line; std::getline(all, line);) {
        if (line.find(text) != std::string::npos) ++lines;
    }
    return lines;
}

static bool listens(const char* path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s", path);
    const int connection = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool connected = connect(connection, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(connection);
    return connected;
}

static std::unique_ptr<Process> startListener(std::vector<std::string> arguments, const char* socketPath) {
    unlink(socketPath);
    auto process = std::make_unique<Process>(std::move(arguments));
    if (!waitFor([&] { return listens(socketPath) || !process->running(); }) || !process->running()) {
        throw std::runtime_error("nothing listens at " + std::string(socketPath) + ": " + process->output());
    }
    return process;
}

std::unique_ptr<Process> startDbusDaemon(const std::string& configuration) {
    return startListener({"dbus-daemon", "--nofork", "--nopidfile", "--config-file=" + configuration},
                         "/var/run/dbus/system_bus_socket");
}

std::unique_ptr<Process> startPcbBus(const std::string& definition) {
    return startListener({binary("pcb-bus"), "--socket", "/var/run/pcb_sys", "--definition", definition},
                         "/var/run/pcb_sys");
}

}  // namespace world
