// Command line, configuration, start-up and its failures, with the real program.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "tests/daemon/daemon.h"
#include "tests/world/bus_client.h"

using namespace world;

TEST(CommandLine, WrongUseAndWrongConfigurationAreExplained) {
    const std::string usage =
        "Usage:\n-c configuration-file-path - run with configuration from given path\n-v - prints version\n";
    std::string missing, all = "Configuration file broken or no required parameters given\n";
    const std::string broken = all, unreadable = "Error loading configuration file from path ";
    for (const char* key : {"demonize-process", "orvoservicesinfo", "serverrequests.voltaroserver",
                            "serverrequests.applicationserver", "serverrequests.pathtocabundlefile"}) {
        missing = std::string("Missing ") + key + " key in config file\n";
        all.insert(0, missing);
    }
    writeFile("/var/run/empty", "");
    writeFile("/var/run/four",
              "demonize-process=no\nserverrequests.voltaroserver=\norvoservicesinfo=\n"
              "serverrequests.applicationserver=u\n");
    writeFile("/var/run/line", "no equals sign\n");
    const std::string key = "synchronize.interval";
    const auto wrong = [&](const std::string& value) {
        writeFile("/var/run/" + value, daemonConfiguration("u", "/none", key + "=" + value + "\n"));
        return "Wrong " + key + " key in config file: " + value + " (0 or 3600 to 31536000)\n" + broken;
    };
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"-v"},                      "Version: " ORSM_VERSION "\n" },
        {{},                          usage                         },
        {{"-v", "x"},                 usage                         },
        {{"-c"},                      usage                         },
        {{"-c", "/none"},             unreadable + "/none\n"        },
        {{"-c", "/var/run/empty"},    all                           },
        {{"-c", "/var/run/four"},     missing + broken              },
        {{"-c", "/var/run/line"},     unreadable + "/var/run/line\n"},
        {{"-c", "/var/run/3599"},     wrong("3599")                 },
        {{"-c", "/var/run/31536001"}, wrong("31536001")             },
        {{"-c", "/var/run/1d"},       wrong("1d")                   },
    };
    for (auto [command, expected] : cases) {
        command.insert(command.begin(), binary("orvoservicemanager"));
        std::string output;
        EXPECT_EQ(run(command, &output), 1);
        EXPECT_EQ(output, expected);
    }
    EXPECT_FALSE(exists(KPidFile));
}

TEST(StartUp, FailsWithoutBusesNameOrPidFile) {
    std::unique_ptr<Process> daemon;
    LogReader log(KDaemonLog, &daemon);
    const std::string configuration = daemonConfiguration("https://127.0.0.1:1", "/none");
    const auto fails = [&](const char* first, const char* second) {
        daemon = startDaemon(configuration);
        EXPECT_EQ(daemon->wait(), 1);
        EXPECT_EQ(daemon->output(), "");
        log.next(first);
        log.next(second);
        log.next("ERROR Cannot enable dbus");
        EXPECT_FALSE(exists(KPidFile));
    };
    // The configuration fills the disk, where it may be made so small.
    const bool full = mount(nullptr, "/var/run", nullptr, MS_REMOUNT, "size=4k") == 0;
    fails(full ? " WARN Cannot write the pid file: No space left on device" : "",
          "ERROR Failed to connect to pcb://ipc:{/var/run/pcb_sys} (0x0001");
    mount(nullptr, "/var/run", nullptr, MS_REMOUNT, "size=50%");
    const auto bus = startPcbBus();
    fails(" WARN Failed to open connection to activating message bus: ", "ERROR Cannot create");
    const std::string policy = readFile(ORSM_SOURCE_FOLDER "/tests/world/bus.conf");
    const auto failsOnBus = [&](const std::string& instead, const std::string& of, const char* line) {
        writeFile("/var/run/bus.conf", std::string(policy).replace(policy.find(of), of.size(), instead));
        const auto dbus = startDbusDaemon("/var/run/bus.conf");
        fails(line, "ERROR Error setting listeners");
    };
    failsOnBus("", "<allow own=\"*\"/>", " WARN failed to request message bus name: com.corvane.orsm. Error:");
    // A method takes a rule, and there are more than three.
    failsOnBus("<limit name=\"max_match_rules_per_connection\">3</limit></busconfig>", "</busconfig>",
               " WARN Failed to dbus_bus_add_match: ");

    std::filesystem::create_directory(KPidFile);
    EXPECT_EQ(startDaemon(configuration)->wait(), 1);
    EXPECT_EQ(log.count("OrvoServiceManager version " ORSM_VERSION), 5U);
}

TEST(StartUp, TakesOverOrQueuesForTheBusName) {
    constexpr char KName[] = "com.corvane.orsm";
    for (const bool yields : {true, false}) {
        writeFile(KDaemonLog, "");
        Gateway gateway;
        BusClient holder, other;
        const unsigned allowed = yields ? DBUS_NAME_FLAG_ALLOW_REPLACEMENT : 0;
        ASSERT_EQ(dbus_bus_request_name(holder.connection(), KName, allowed, nullptr), 1);
        gateway.launch();
        gateway.log.next("Entered pcb data model event loop");
        if (!yields) dbus_bus_release_name(holder.connection(), KName, nullptr);
        EXPECT_EQ(holder.call("/orvoservicesinfo", "", "Get"), R"({"status":"OK"})");
        EXPECT_EQ(dbus_bus_request_name(other.connection(), KName, DBUS_NAME_FLAG_REPLACE_EXISTING, nullptr),
                  DBUS_REQUEST_NAME_REPLY_IN_QUEUE);
        EXPECT_EQ(gateway.end(), 0);
    }
}

TEST(StartUp, DetachesWhenTheConfigurationAsksForIt) {
    Gateway gateway;
    writeFile(KPidFile, std::to_string(getpid()) + std::string(100'000, '\xFF'));  // a stale one is taken over
    const std::string configuration =
        daemonConfiguration(gateway.cloud->url(), gateway.cloud->caPath(), "synchronize.interval=31536000\n");
    // What a careless parent hands on.
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, nullptr);
    umask(0);
    writeFile("/var/run/orsm.conf", configuration + "demonize-process=yes\n");  // the earlier line wins
    gateway.daemon = std::make_unique<Process>(std::vector<std::string>{
        "sh", "-c", "exec " + binary("orvoservicemanager") + " -c /var/run/orsm.conf <&- >&- 2>&-"});
    sigprocmask(SIG_UNBLOCK, &all, nullptr);
    gateway.log.next("Entered pcb data model event loop");
    EXPECT_EQ(readFile(KPidFile), std::to_string(gateway.daemon->pid()) + "\n");
    const auto expectNullStreams = [](const std::string& process) {
        for (const char* stream : {"/fd/0", "/fd/1", "/fd/2"}) {
            EXPECT_EQ(std::filesystem::read_symlink("/proc/" + process + stream), "/dev/null");
        }
    };
    expectNullStreams(std::to_string(gateway.daemon->pid()));
    EXPECT_EQ(gateway.end(SIGINT), 0);

    std::filesystem::create_symlink("/var/run/target", KPidFile);
    gateway.daemon.reset();
    const auto parent = startDaemon("demonize-process=yes\norvoservicesinfo=\xFF\n" + configuration);
    EXPECT_EQ(parent->wait(), 0);
    gateway.log.next(" WARN Services info is not UTF-8: no Get can be answered");
    gateway.log.next(" INFO Process demonized properly");
    gateway.log.next("Entered pcb data model event loop");
    const pid_t pid = std::stoi(readFile(KPidFile));
    for (const char* file : {KPidFile, KDaemonLog}) {
        EXPECT_EQ(std::filesystem::symlink_status(file).permissions(), std::filesystem::perms(0644)) << file;
    }
    EXPECT_NE(pid, parent->pid());
    EXPECT_NE(getsid(pid), getsid(0));
    EXPECT_NE(getsid(pid), pid);
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/cwd"), "/");
    expectNullStreams(std::to_string(pid));
    kill(pid, SIGTERM);
    EXPECT_TRUE(waitFor([] { return !exists(KPidFile); }));
}

TEST(StartUp, CanBeEndedWhileABusHangs) {
    Gateway gateway;
    for (Process* hung : {gateway.dbus.get(), gateway.bus.get()}) {
        hung->send(SIGSTOP);
        ASSERT_EQ(mkfifo(KPidFile, 0600), 0);
        gateway.launch();
        ASSERT_TRUE(gateway.waitFor([] { return std::filesystem::is_regular_file(KPidFile); }));
        EXPECT_EQ(gateway.end(hung == gateway.bus.get() ? SIGTERM : SIGINT), 0);
        EXPECT_EQ(gateway.log.count("WARN") + gateway.log.count("ERROR"), 0U) << "it waited for the bus";
        EXPECT_FALSE(exists(KPidFile));
        hung->send(SIGCONT);
    }
}
