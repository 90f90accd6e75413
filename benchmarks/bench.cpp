// The figures of ./bench, on one page: each beside what it can be held against in the same run. What is compared is
// measured in turns, so that a busy machine disturbs both alike. ORSM_BENCH_ROUNDS (30) sets how many turns.
#include <curl/curl.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "benchmarks/measure.h"
#include "platform/pcb/pcb.h"
#include "src/httprequest/httprequest.h"
#include "tests/daemon/daemon.h"
#include "tests/world/bus_client.h"

using namespace bench;
using namespace world;

static constexpr char KDaemonName[] = "com.corvane.orsm";
static constexpr char KEchoName[] = "bench.echo";
static constexpr char KInfoText[] = R"({"status":"OK","services":["dyndns","voltaro"]})";
static constexpr char KIsEnabledText[] = R"({"status":"OK","result":false})";

static int rounds() {
    const char* wanted = getenv("ORSM_BENCH_ROUNDS");
    return wanted ? std::max(1, std::stoi(wanted)) : 30;
}

// ---- What the daemon is held against ----

// A service of libdbus alone: no event loop of ours, no log, no dispatch. It answers with the daemon's own bytes.
static int serveEcho() {
    BusClient client;
    DBusConnection* const connection = client.connection();
    static constexpr auto answer = [](DBusConnection* bus, DBusMessage* call, void* text) {
        if (dbus_message_get_type(call) != DBUS_MESSAGE_TYPE_METHOD_CALL) return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
        DBusMessage* reply = dbus_message_new_method_return(call);
        dbus_message_append_args(reply, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
        dbus_connection_send(bus, reply, nullptr);
        dbus_message_unref(reply);
        return DBUS_HANDLER_RESULT_HANDLED;
    };
    const DBusObjectPathVTable functions = {nullptr, answer, nullptr, nullptr, nullptr, nullptr};
    // The texts are only read.
    dbus_connection_register_object_path(connection, "/orvoservicesinfo", &functions, const_cast<char*>(KInfoText));
    dbus_connection_register_object_path(connection, "/dyndns", &functions, const_cast<char*>(KIsEnabledText));
    dbus_bus_request_name(connection, KEchoName, DBUS_NAME_FLAG_REPLACE_EXISTING, nullptr);
    while (dbus_connection_read_write_dispatch(connection, -1)) {
    }
    return 0;
}

// The system log's server: it reads and forgets. The /dev that it needs is this world's own. False where the kernel
// refuses that.
static bool startSystemLog() {
    if (unshare(CLONE_NEWNS) != 0) return false;
    const int null = open("/dev/null", O_PATH | O_CLOEXEC);
    const int random = open("/dev/urandom", O_PATH | O_CLOEXEC);
    if (mount("dev", "/dev", "tmpfs", 0, nullptr) != 0) return false;
    for (const auto& [file, name] : {std::pair(null, "/dev/null"), std::pair(random, "/dev/urandom")}) {
        writeFile(name, "");
        const std::string source = "/proc/self/fd/" + std::to_string(file);
        if (mount(source.c_str(), name, nullptr, MS_BIND, nullptr) != 0) return false;
    }
    const int log = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = {AF_UNIX, "/dev/log"};
    if (bind(log, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return false;
    if (fork() == 0) {
        for (char line[8192]; recv(log, line, sizeof line, 0) >= 0;) {
        }
        _exit(0);
    }
    close(log);
    return true;
}

// ---- The page ----

static void title(const char* text) { printf("\n%s\n", text); }

static void figure(const char* what, double value, const char* unit) {
    printf("  %-46s %11.1f %s\n", what, value, unit);
}

static void printRow(const char* what, const Series& series) {
    printf("  %-48s %9.1f %9.1f\n", what, series.median(), series.p99());
}

static void verdict(const char* what, double value, double allowed) {
    printf("  %-48s %9.1f us of at most %.1f us: %+.0f %%  %s\n", what, value, allowed, (value / allowed - 1) * 100,
           value <= allowed ? "held" : "NOT HELD");
}

// ---- Bus calls ----

static constexpr int KCalls = 200;  // a round

namespace {

struct Row {
    const char* name;
    Target target;
    pid_t process;  // who answers
    Series wait = {}, perSecond = {}, cpu = {};
};

struct DataModel {
    pcb_t* client = pcb_create("bench", 0, nullptr);
    peer_info_t* peer = pcb_client_connect(client, "pcb://ipc:{/var/run/pcb_sys}");
};

}  // namespace

static void writeLineToSystemLog() { syslog(LOG_NOTICE, " INFO Method call: %s.%s\n", "IsEnabled", ""); }

static void writeLineToFile() {
    static constexpr char KLine[] = "2026-11-25 08:27:22.795  INFO Method call: IsEnabled.\n";
    const int file = open("/var/log/bare.log", O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    EXPECT_EQ(write(file, KLine, strlen(KLine)), static_cast<ssize_t>(strlen(KLine)));
    close(file);
}

// `writeLine`: what a line that the daemon logs costs by itself; null when it logs none.
static void measureCalls(BusClient& client, const DataModel& model, pid_t daemon, pid_t echo, void (*writeLine)()) {
    const std::string peer = "org.freedesktop.DBus.Peer", info = "com.corvane.orsm.orvoservicesinfo",
                      dynDns = "com.corvane.orsm.dyndns";
    enum { PING, BARE, INFO_BYTES, INFO, ENABLED_BYTES, ENABLED };
    Row rows[] = {
        {"Peer.Ping of the daemon (libdbus's own answer)", {KDaemonName, "/", peer, "Ping"},                daemon},
        {"Peer.Ping of a bare libdbus service",            {KEchoName, "/", peer, "Ping"},                  echo  },
        {"services info's bytes from that service",        {KEchoName, "/orvoservicesinfo", info, "Get"},   echo  },
        {"services info: Get",                             {KDaemonName, "/orvoservicesinfo", info, "Get"}, daemon},
        {"IsEnabled's bytes from that service",            {KEchoName, "/dyndns", dynDns, "IsEnabled"},     echo  },
        {"IsEnabled",                                      {KDaemonName, "/dyndns", dynDns, "IsEnabled"},   daemon},
    };
    Series exchange, line;
    for (int round = 0; round < rounds(); ++round) {
        for (Row& row : rows) {
            callOnce(client.connection(), row.target);
            const double before = cpuOf(row.process);
            for (int i = 0; i < KCalls; ++i) {
                row.wait.add(timed([&] { callOnce(client.connection(), row.target); }));
            }
            row.cpu.add((cpuOf(row.process) - before) / KCalls);
            const auto many = [&] {
                client.callMany(
                    2 * KCalls, 32, [&](int) { return newCall(row.target); }, [](DBusMessage*) {});
            };
            row.perSecond.add(2 * KCalls / timed(many) * 1e6);
        }
        // As the daemon finds them: after a wait for the bus, not in a loop of their own.
        for (int i = 0; i < KCalls; ++i) {
            callOnce(client.connection(), rows[BARE].target);
            exchange.add(timed([&] { EXPECT_TRUE(pcb_client_get(model.peer, "OrvoService.DynDNS", "Enable")); }));
            callOnce(client.connection(), rows[BARE].target);
            if (writeLine) line.add(timed(writeLine));
        }
    }
    printf("  %-48s %9s %9s %10s %12s\n", "", "median us", "p99 us", "calls/s *", "CPU us/call");
    for (const Row& row : rows) {
        printf("  %-48s %9.1f %9.1f %10.0f %12.1f\n", row.name, row.wait.median(), row.wait.p99(),
               row.perSecond.median(), row.cpu.median());
    }
    printRow("one bare exchange with pcb-bus", exchange);
    if (writeLine) printRow("one line by itself", line);
    const auto allowed = [&](const Row& bytes) {
        return 1.1 * rows[PING].wait.median() + std::max(0.0, bytes.wait.median() - rows[BARE].wait.median());
    };
    const double get = allowed(rows[INFO_BYTES]), isEnabled = allowed(rows[ENABLED_BYTES]) + exchange.median();
    verdict("Get: Ping and a tenth, and its bytes", rows[INFO].wait.median(), get);
    verdict("IsEnabled: that, and one exchange", rows[ENABLED].wait.median(), isEnabled);
    if (!writeLine) return;
    verdict("Get, with its 2 lines before the reply", rows[INFO].wait.median(), get + 2 * line.median());
    verdict("IsEnabled, with its 3", rows[ENABLED].wait.median(), isEnabled + 3 * line.median());
}

// ---- Requests ----

// The request that the daemon makes, by library calls alone.
static void rawRequest(const std::string& url, const std::string& ca) {
    CURL* handle = curl_easy_init();
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_CAINFO, ca.c_str());
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    const curl_write_callback swallow = [](char*, size_t size, size_t count, void*) { return size * count; };
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, swallow);
    EXPECT_EQ(curl_easy_perform(handle), CURLE_OK);
    curl_easy_cleanup(handle);
}

static void measureRequests(DBusConnection* connection, const Cloud& cloud) {
    const std::string url = cloud.url() + "/hm/dyndns/verify?name=office";
    const Target taken = {KDaemonName, "/dyndns", "com.corvane.orsm.dyndns", "IsNameTaken", "office"};
    Series raw, ours, called;
    for (int i = 0; i < 10 * rounds(); ++i) {
        raw.add(timed([&] { rawRequest(url, cloud.caPath()); }));
        ours.add(timed([&] { EXPECT_TRUE(curlGet(url.c_str(), cloud.caPath().c_str())); }));
        called.add(timed([&] { callOnce(connection, taken); }));
    }
    printRow("libcurl's calls alone", raw);
    printRow("the daemon's module", ours);
    printRow("IsNameTaken, from a client to its reply", called);
}

// ---- Start, memory, idleness, size ----

static void measureStart(DBusConnection* connection, const std::string& configuration) {
    Series daemon, echo;
    for (int i = 0; i < std::max(3, rounds() / 2); ++i) {
        daemon.add(timed([&] {
            auto started = startDaemon(configuration);
            waitForName(connection, KDaemonName);
        }));
        echo.add(timed([&] {
            Process started({binary("bench"), "echo"});
            waitForName(connection, KEchoName);
        }));
        for (const char* name : {KDaemonName, KEchoName}) {
            EXPECT_TRUE(waitFor([&] { return !dbus_bus_name_has_owner(connection, name, nullptr); }));
        }
    }
    figure("start to the name on the bus", daemon.median() / 1000, "ms");
    figure("the same for a bare libdbus service", echo.median() / 1000, "ms");
}

static void printMemory(const char* when, pid_t daemon, pid_t echo) {
    for (const auto& [who, process] : {std::pair("the daemon", daemon), std::pair("a bare libdbus service", echo)}) {
        printf("  %-48s %9ld %9ld %9ld\n", (std::string(when) + ", " + who).c_str(), memoryOf(process, "Rss"),
               memoryOf(process, "Pss"), memoryOf(process, "Private_Dirty"));
    }
}

static void measureIdleness(pid_t daemon, pid_t bus) {
    constexpr int KSeconds = 30;
    const long before = switchesOf(daemon), busBefore = switchesOf(bus);
    sleep(KSeconds);
    figure("wake-ups of the daemon", static_cast<double>(switchesOf(daemon) - before) * 60 / KSeconds, "a minute");
    figure("the same for dbus-daemon", static_cast<double>(switchesOf(bus) - busBefore) * 60 / KSeconds, "a minute");
}

static void printProgram() {
    const std::string program = binary("orvoservicemanager");
    run({"strip", "-o", "/var/run/stripped", program});
    figure("stripped", static_cast<double>(std::filesystem::file_size("/var/run/stripped")) / 1024, "KiB");
    std::string output;
    run({"readelf", "-d", program}, &output);
    std::istringstream lines(output);
    printf("  needs");
    for (std::string line; std::getline(lines, line);) {
        const size_t begin = line.find("(NEEDED)") == std::string::npos ? std::string::npos : line.find('[') + 1;
        if (begin != std::string::npos) printf(" %s", line.substr(begin, line.find(']') - begin).c_str());
    }
    printf("\n");
}

int main(int count, char** arguments) {
    testing::InitGoogleTest(&count, arguments);
    if (count > 1 && strcmp(arguments[1], "echo") == 0) return serveEcho();
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const bool systemLog = startSystemLog();
    connection_initLibrary();
    Gateway gateway;
    BusClient client;
    DBusConnection* const connection = client.connection();
    const DataModel model;
    gateway.set("OrvoService.GatewayClient", "ConnectionMode", "on");
    EXPECT_TRUE(waitFor([&] { return gateway.get("OrvoService.GatewayClient", "ConnectionStatus") == "true"; }));
    // As it ships, with the world's servers.
    std::string shipped = readFile(ORSM_SOURCE_FOLDER "/orvoservicemanager.conf");
    const auto replace = [&](const std::string& from, const std::string& to) {
        while (shipped.find(from) != std::string::npos) {
            shipped.replace(shipped.find(from), from.size(), to);
        }
    };
    replace("https://appserver.example.net", gateway.cloud->url());
    replace("https://cloud.example.net", gateway.cloud->url());
    replace("/etc/ssl/certs/ca-certificates.crt", gateway.cloud->caPath());
    if (!systemLog) replace("logger.syslog = true", "logger.syslog = false");
    const std::string talkative = "logger.level = INFO\n" + shipped;  // the first line wins

    title("Start");
    measureStart(connection, shipped);
    const Process echo({binary("bench"), "echo"});
    waitForName(connection, KEchoName);
    const auto start = [&](const std::string& configuration) {
        if (gateway.daemon) {
            EXPECT_EQ(gateway.end(), 0);
        }
        gateway.daemon = startDaemon(configuration);
        waitForName(connection, KDaemonName);
        callOnce(connection, {KDaemonName, "/orvoservicesinfo", "com.corvane.orsm.orvoservicesinfo", "Get"});
        sleep(2);  // whatever a start leaves to do, such as a synchronization 1 s later, is done by then
    };
    start(shipped);
    title("Idle");
    measureIdleness(gateway.daemon->pid(), gateway.dbus->pid());
    title("Memory in KiB                                       resident proportional  private");
    printMemory("idle", gateway.daemon->pid(), echo.pid());
    title("Bus calls as shipped (* 32 outstanding)");
    measureCalls(client, model, gateway.daemon->pid(), echo.pid(), nullptr);
    title("One HTTPS request                                   median us    p99 us");
    measureRequests(connection, *gateway.cloud);
    title("Memory in KiB                                       resident proportional  private");
    printMemory("after that load", gateway.daemon->pid(), echo.pid());
    start(talkative);
    title(systemLog ? "Bus calls with INFO to the system log (* 32 outstanding)"
                    : "Bus calls, INFO to no output: the kernel lets nobody make a /dev (* 32 outstanding)");
    measureCalls(client, model, gateway.daemon->pid(), echo.pid(), systemLog ? writeLineToSystemLog : nullptr);
    start("logger.syslog = false\nlogger.file = true\nlogger.filename = /var/log/orsm.log\n" + talkative);
    title("Bus calls with INFO to a file (* 32 outstanding)");
    measureCalls(client, model, gateway.daemon->pid(), echo.pid(), writeLineToFile);
    title("Program");
    printProgram();
    pcb_destroy(model.client);
    return testing::Test::HasFailure() ? 1 : 0;
}
