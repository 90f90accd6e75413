// Command line, configuration, start-up and its failures, with the real program.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "tests/daemon/daemon.h"

using namespace world;

static bool exists(const char* path) { return access(path, F_OK) == 0; }

TEST(CommandLine, AcceptsTwoFormsAndExplainsThemOtherwise) {
    const std::string usage =
        "Usage:\n-c configuration-file-path - run with configuration from given path\n-v - prints version\n";
    struct Case {
        std::vector<std::string> arguments;
        std::string output;
    };
    for (const Case& c : {
             Case{{"-v"},           "Version: 0.4.0\n"                                  },
             Case{{},               usage                                               },
             Case{{"-v", "x"},      usage                                               },
             Case{{"-c"},           usage                                               },
             Case{{"-vx"},          usage                                               },
             Case{{"-cfoo"},        usage                                               },
             Case{{"-c", "a", "b"}, usage                                               },
             Case{{"-c", "/none"},  "Error loading configuration file from path /none\n"},
             Case{{"-c", "/var"},   "Error loading configuration file from path /var\n" },
    }) {
        std::vector<std::string> command = {binary("orvoservicemanager")};
        command.insert(command.end(), c.arguments.begin(), c.arguments.end());
        std::string output;
        EXPECT_EQ(run(command, &output), 1);
        EXPECT_EQ(output, c.output);
    }
    EXPECT_FALSE(exists(KPidFile));
}

TEST(Configuration, EveryMissingKeyIsNamedInOrder) {
    const std::string broken = "Configuration file broken or no required parameters given\n";
    std::string all;
    for (const char* key : {"serverrequests.pathtocabundlefile", "serverrequests.applicationserver",
                            "serverrequests.voltaroserver", "orvoservicesinfo", "demonize-process"}) {
        all += std::string("Missing ") + key + " key in config file\n";
    }
    struct Case {
        const char* text;
        std::string output;
    };
    for (const Case& c : {
             Case{"",                                                       all + broken                                                             },
             Case{"Orvoservicesinfo=x\n",                                   all + broken                                                             },
             Case{"demonize-process=false\nserverrequests.voltaroserver=\norvoservicesinfo=\n"
                  "serverrequests.applicationserver=u\n", "Missing serverrequests.pathtocabundlefile key in config file\n" + broken},
             Case{"no equals sign\n",                                       "Error loading configuration file from path /var/run/orsm.conf\n"        },
    }) {
        auto daemon = startDaemon(c.text);
        EXPECT_EQ(daemon->wait(), 1);
        EXPECT_EQ(daemon->output(), c.output);
    }
    EXPECT_FALSE(exists(KPidFile));
}

TEST(StartUp, AFailureEndsWithOneAndLeavesNoPidFile) {
    struct Case {
        const char *failingCall, *line;
        bool daemonize = false;
    };
    LogReader log(KDaemonLog);
    const auto bus = startPcbBus();
    const auto dbus = startDbusDaemon();
    const std::string configuration = daemonConfiguration("https://127.0.0.1:1", "/none");
    for (const Case& c : {
             Case{"fork",                                                     "ERROR Cannot demonize process!", true},
             Case{"setsid",                                                          "ERROR Cannot demonize process!",                                                                                   true},
             Case{"event_base_new",                                                      "ERROR Cannot start event loop"   },
             Case{"pipe2","ERROR Failed to create event pipe: Too many open files"  },
             Case{"pipe2",                             "ERROR Cannot create pipe for listening pcb changes"                                                          },
             Case{"event_new","ERROR Failed to create event pipewatcher: "},
             Case{"pthread_create",                                     "ERROR Could not create thread for dbus handling"                                                                                                                     },
             Case{"pcb_client_connect","ERROR Failed to connect to pcb://ipc:{/var/run/pcb_sys}"},
             Case{"request_create_getObject",                             "ERROR Failed to create request (0x"                                                                                                                                                                             },
    }) {
        SCOPED_TRACE(c.failingCall);
        std::string text = configuration;
        if (c.daemonize) text.replace(text.find("process=false"), 13, "process=true");
        auto daemon = startDaemon(text,
                                  {
                                      {"FAILING_CALL", c.failingCall}
        },
                                  "orvoservicemanager-failing");
        const bool childFails = strcmp(c.failingCall, "setsid") == 0;
        EXPECT_EQ(daemon->wait(), childFails ? 0 : 1);
        log.next(c.line);
        EXPECT_TRUE(waitFor([] { return !exists(KPidFile); }));
        EXPECT_EQ(daemon->output(), "");
    }
}

TEST(StartUp, WithoutMemoryForItsSettingsItSaysSo) {
    auto daemon = startDaemon(daemonConfiguration("https://127.0.0.1:1", "/none"),
                              {
                                  {"FAILING_CALL", "strdup"}
    },
                              "orvoservicemanager-failing");
    EXPECT_EQ(daemon->wait(), 1);
    EXPECT_EQ(daemon->output(),
              "Cannot init requests engine\nCannot init OrvoServicesInfo\n"
              "Configuration file broken or no required parameters given\n");
}

TEST(StartUp, WithoutItsBusesItEndsWithOne) {
    LogReader log(KDaemonLog);
    const std::string configuration = daemonConfiguration("https://127.0.0.1:1", "/none");
    auto daemon = startDaemon(configuration);
    EXPECT_EQ(daemon->wait(), 1);
    log.next("ERROR Failed to connect to pcb://ipc:{/var/run/pcb_sys} (0x0001");
    log.next("ERROR Cannot enable dbus");
    EXPECT_FALSE(exists(KPidFile));

    const auto bus = startPcbBus();
    daemon = startDaemon(configuration);
    EXPECT_EQ(daemon->wait(), 1);
    log.next(" WARN Failed to open connection to activating message bus: ");
    log.next("ERROR Cannot create");
    log.next("ERROR Cannot enable dbus");
    EXPECT_FALSE(exists(KPidFile));

    std::filesystem::create_directory(KPidFile);
    daemon = startDaemon(configuration);
    EXPECT_EQ(daemon->wait(), 1);
    EXPECT_EQ(log.count("OrvoServiceManager version 0.4.0"), 3U);
    EXPECT_EQ(log.count("ERROR Cannot enable dbus"), 2U);
}

TEST(StartUp, DetachesWhenTheConfigurationAsksForIt) {
    Gateway gateway;
    auto daemon = startDaemon(daemonConfiguration(gateway.cloud->url(), gateway.cloud->caPath(), "") +
                              "demonize-process=false\n" /* the earlier line wins */);
    gateway.log.next("Entered pcb data model event loop");
    EXPECT_EQ(readFile(KPidFile), std::to_string(daemon->pid()) + "\n");
    daemon->send(SIGINT);
    EXPECT_EQ(daemon->wait(), 0);

    std::string text = daemonConfiguration(gateway.cloud->url(), gateway.cloud->caPath());
    text.replace(text.find("process=false"), 13, "process=yes");
    daemon = startDaemon(text);
    EXPECT_EQ(daemon->wait(), 0);
    gateway.log.next("Process demonized properly");
    gateway.log.next("Entered pcb data model event loop");
    const pid_t pid = static_cast<pid_t>(std::stol(readFile(KPidFile)));
    EXPECT_NE(pid, daemon->pid());
    EXPECT_NE(getsid(pid), getsid(0));
    EXPECT_NE(getsid(pid), pid);
    const std::string proc = "/proc/" + std::to_string(pid);
    EXPECT_EQ(std::filesystem::read_symlink(proc + "/cwd"), "/");
    for (const char* stream : {"/fd/0", "/fd/1", "/fd/2"}) {
        EXPECT_EQ(std::filesystem::read_symlink(proc + stream), "/dev/null");
    }
    kill(pid, SIGTERM);
    EXPECT_TRUE(waitFor([] { return !exists(KPidFile); }));
    gateway.log.next("Leaving pcb data model event loop");
}

TEST(StartUp, TakesAStalePidFileOver) {
    Gateway gateway;
    pid_t dead = fork();
    if (dead == 0) _exit(0);
    waitpid(dead, nullptr, 0);
    for (const std::string& left : {std::to_string(dead) + "\n", std::to_string(getpid()) + "\n", std::string("-1"),
                                    std::string("\0\xFF rubbish", 10), std::string(100'000, '1'), std::string()}) {
        SCOPED_TRACE(left.substr(0, 20));
        writeFile(KDaemonLog, "");
        writeFile(KPidFile, left);
        gateway.log = LogReader(KDaemonLog);
        gateway.start();
        EXPECT_EQ(readFile(KPidFile), std::to_string(gateway.daemon->pid()) + "\n");
        EXPECT_EQ(gateway.end(), 0);
        EXPECT_FALSE(exists(KPidFile));
    }
}

TEST(StartUp, ASignalAtAnyMomentEndsItInOrder) {
    Gateway gateway;
    for (const char* moment : {"Enabling orvoServicesInfo dbus", "Adding listener for", "services bus created",
                               "OrvoServicesInfo message bus created", "Cannot load OrvoService object",
                               "Setting signal handlers", "Entered pcb data model event loop", "HA-ID init value"}) {
        SCOPED_TRACE(moment);
        writeFile(KDaemonLog, "");
        auto daemon = startDaemon(daemonConfiguration(gateway.cloud->url(), gateway.cloud->caPath()));
        (void)waitFor([&] { return gateway.log.count(moment) > 0 || gateway.log.count("HA-ID init value") > 0; });
        daemon->send(SIGTERM);
        EXPECT_EQ(daemon->wait(), 0);
        EXPECT_FALSE(exists(KPidFile));
        EXPECT_EQ(daemon->output(), "");
    }

    // A bus that hangs holds start-up up, but not its end.
    for (Process* hung : {gateway.dbus.get(), gateway.bus.get()}) {
        writeFile(KDaemonLog, "");
        hung->send(SIGSTOP);
        auto daemon = startDaemon(daemonConfiguration(gateway.cloud->url(), gateway.cloud->caPath()));
        ASSERT_TRUE(waitFor([] { return exists(KPidFile); }));
        daemon->send(SIGINT);
        EXPECT_EQ(daemon->wait(), 0);
        EXPECT_EQ(gateway.log.count("WARN") + gateway.log.count("ERROR"), 0U) << "it waited for the bus";
        EXPECT_FALSE(exists(KPidFile));
        hung->send(SIGCONT);
    }
}
