// What the measuring program measures with: series of figures, calls, and what the kernel knows of a process.
#pragma once

#include <dbus/dbus.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace bench {

/// Figures of one kind, in microseconds unless said otherwise.
class Series {
  public:
    void add(double figure) { figures_.push_back(figure); }
    double median() const { return quantile(0.5); }
    double p99() const { return quantile(0.99); }
    double most() const { return quantile(1); }

  private:
    double quantile(double part) const;
    std::vector<double> figures_;
};

double microsecondsNow();

/// How long `work` takes.
double timed(const std::function<void()>& work);

/// What is called, of whom.
struct Target {
    std::string destination, path, interface, method;
    std::string argument = {};  // none when empty
};

/// Its call message, which the caller releases.
DBusMessage* newCall(const Target& target);

/// Makes one call and waits for its reply; ends the program when it is an error.
void callOnce(DBusConnection* connection, const Target& target);

/// Waits until `name` has an owner.
void waitForName(DBusConnection* connection, const char* name);

/// Processor time that a process has used so far.
double cpuOf(pid_t process);

/// Context switches of all threads of a process so far: each wake-up is one.
long switchesOf(pid_t process);

/// A row of a process's memory, such as "Pss", in KiB.
long memoryOf(pid_t process, const std::string& row);

}  // namespace bench
