#include "benchmarks/measure.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <sstream>

#include "tests/world/world.h"

namespace bench {

double Series::quantile(double part) const {
    if (figures_.empty()) return NAN;
    std::vector<double> sorted = figures_;
    std::sort(sorted.begin(), sorted.end());
    return sorted[static_cast<size_t>(part * static_cast<double>(sorted.size() - 1))];
}

static double microseconds(clockid_t clock) {
    timespec time = {};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

double microsecondsNow() { return microseconds(CLOCK_MONOTONIC); }

double timed(const std::function<void()>& work) {
    const double begin = microsecondsNow();
    work();
    return microsecondsNow() - begin;
}

DBusMessage* newCall(const Target& target) {
    DBusMessage* call = dbus_message_new_method_call(target.destination.c_str(), target.path.c_str(),
                                                     target.interface.c_str(), target.method.c_str());
    const char* text = target.argument.c_str();
    if (*text) dbus_message_append_args(call, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    return call;
}

void callOnce(DBusConnection* connection, const Target& target) {
    DBusMessage* call = newCall(target);
    DBusMessage* reply = dbus_connection_send_with_reply_and_block(connection, call, -1, nullptr);
    if (!reply) {
        fprintf(stderr, "bench: %s of %s fails\n", target.method.c_str(), target.destination.c_str());
        exit(1);
    }
    dbus_message_unref(reply);
    dbus_message_unref(call);
}

void waitForName(DBusConnection* connection, const char* name) {
    while (!dbus_bus_name_has_owner(connection, name, nullptr)) {
        const timespec moment = {0, 100'000};
        nanosleep(&moment, nullptr);
    }
}

double cpuOf(pid_t process) {
    clockid_t clock = 0;
    return clock_getcpuclockid(process, &clock) == 0 ? microseconds(clock) : NAN;
}

// The sum of the numbers that follow the rows that end with `row`.
static long sumOfRows(const std::string& file, const std::string& row) {
    std::istringstream lines(world::readFile(file));
    long sum = 0;
    for (std::string line; std::getline(lines, line);) {
        const size_t colon = line.find(':');
        if (colon != std::string::npos && line.substr(0, colon).ends_with(row))
            sum += std::stol(line.substr(colon + 1));
    }
    return sum;
}

long switchesOf(pid_t process) {
    long sum = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
        sum += sumOfRows(task.path().string() + "/status", "ctxt_switches");
    }
    return sum;
}

long memoryOf(pid_t process, const std::string& row) {
    return sumOfRows("/proc/" + std::to_string(process) + "/smaps_rollup", row);
}

}  // namespace bench
