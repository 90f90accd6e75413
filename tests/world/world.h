// What a test finds in its private world: real processes, real files, and one way to wait for things.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace world {

/// File and line where a helper was called, which its failure names: the last argument `Caller caller = here()`. In the
/// place of std::source_location, which clang 14 does not have.
using Caller = std::pair<const char*, int>;
constexpr Caller here(const char* file = __builtin_FILE(), int line = __builtin_LINE()) { return {file, line}; }

/// A running program whose standard output and error go to one file; killed and reaped at the end of its life.
class Process {
  public:
    /// Starts `arguments[0]` (a path, or a name looked up in PATH).
    explicit Process(std::vector<std::string> arguments);
    ~Process();
    Process(Process&&) = delete;

    pid_t pid() const { return pid_; }
    bool running();
    void send(int signalNumber) const;
    /// Waits for the end: the exit status, or 128 + the signal that killed it; -1 when it does not end in time.
    int wait();
    std::string output() const;

  private:
    pid_t pid_ = -1;
    int status_ = -1;
    bool ended_ = false;
    std::string outputPath_;
};

/// Runs a program to its end; its output goes into `output` when given. The exit status as Process::wait.
int run(std::vector<std::string> arguments, std::string* output = nullptr);

/// Waits until `condition` holds, looking again every few milliseconds; false after a generous bound (30 s), or when
/// `needed`, without which it cannot come true, has ended.
[[nodiscard]] bool waitFor(const std::function<bool()>& condition, Process* needed = nullptr);

/// The path of a program of this build, such as binary("pcb-bus").
std::string binary(const std::string& name);

std::string readFile(const std::string& path, size_t from = 0);
void writeFile(const std::string& path, std::string_view content);

/// Reads a growing log file from the front; each search starts after the match before. `writer` points to the process
/// that writes it, which may be replaced meanwhile; null while it is not known.
class LogReader {
  public:
    explicit LogReader(std::string path, const std::unique_ptr<Process>* writer = nullptr)
        : path_(std::move(path)), writer_(writer) {}
    /// Waits for the next line that holds `text` and moves past it. When none comes in time, or the writer has ended
    /// without it, the test fails in the caller's line and ends there.
    std::string next(std::string_view text, Caller caller = here());
    /// How many lines hold `text`, in the whole file.
    size_t count(std::string_view text) const;
    std::string content() const { return readFile(path_); }

  private:
    std::string path_;
    const std::unique_ptr<Process>* writer_;
    std::string after_ = "the beginning";  // the text that was looked for last
    size_t position_ = 0;
};

/// Starts a bus at /var/run/dbus/system_bus_socket with the world's own configuration or another one, and waits until
/// it listens.
std::unique_ptr<Process> startDbusDaemon(const std::string& configuration = ORSM_SOURCE_FOLDER "/tests/world/bus.conf");

/// Starts the data-model bus at /var/run/pcb_sys with the gateway's own definition or another one, and waits until it
/// listens.
std::unique_ptr<Process> startPcbBus(const std::string& definition = ORSM_SOURCE_FOLDER "/platform/bus/gateway.odl");

}  // namespace world
