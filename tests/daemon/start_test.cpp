// Command line, configuration, start-up and its failures, with the real program.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "tests/daemon/daemon.h"

using namespace world;

TEST(CommandLine, AcceptsTwoFormsAndExplainsThemOtherwise) {
    const std::string usage =
        "Usage:\n-c configuration-file-path - run with configuration from given path\n-v - prints version\n";
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"-v"},           "Version: 0.4.0\n"                                  },
        {{},               usage                                               },
        {{"-v", "x"},      usage                                               },
        {{"-c"},           usage                                               },
        {{"-vx"},          usage                                               },
        {{"-cfoo"},        usage                                               },
        {{"-c", "a", "b"}, usage                                               },
        {{"-c", "/none"},  "Error loading configuration file from path /none\n"},
        {{"-c", "/var"},   "Error loading configuration file from path /var\n" },
    };
    for (const auto& [arguments, expected] : cases) {
        std::vector<std::string> command = {binary("orvoservicemanager")};
        command.insert(command.end(), arguments.begin(), arguments.end());
        std::string output;
        EXPECT_EQ(run(command, &output), 1);
        EXPECT_EQ(output, expected);
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
    const std::string oneIsMissing =
        "demonize-process=false\nserverrequests.voltaroserver=\norvoservicesinfo=\n"
        "serverrequests.applicationserver=u\n";
    const std::pair<std::string, std::string> cases[] = {
        {"",                     all + broken                                                             },
        {"Orvoservicesinfo=x\n", all + broken                                                             },
        {oneIsMissing,           "Missing serverrequests.pathtocabundlefile key in config file\n" + broken},
        {"no equals sign\n",     "Error loading configuration file from path /var/run/orsm.conf\n"        },
    };
    for (const auto& [text, output] : cases) {
        auto daemon = startDaemon(text);
        EXPECT_EQ(daemon->wait(), 1);
        EXPECT_EQ(daemon->output(), output);
    }
    EXPECT_FALSE(exists(KPidFile));
}

TEST(StartUp, WithoutItsBusesItsNameOrItsPidFileItEndsWithOne) {
    LogReader log(KDaemonLog);
    const std::string configuration = daemonConfiguration("https://127.0.0.1:1", "/none");
    const auto fails = [&](std::initializer_list<const char*> lines) {
        EXPECT_EQ(startDaemon(configuration)->wait(), 1);
        for (const char* line : lines) {
            log.next(line);
        }
        log.next("ERROR Cannot enable dbus");
        EXPECT_FALSE(exists(KPidFile));
    };
    fails({"ERROR Failed to connect to pcb://ipc:{/var/run/pcb_sys} (0x0001"});
    const auto bus = startPcbBus();
    fails({" WARN Failed to open connection to activating message bus: ", "ERROR Cannot create"});
    std::string policy = readFile(ORSM_SOURCE_FOLDER "/tests/world/bus.conf");
    policy.replace(policy.find("<allow own=\"*\"/>"), 16, "<deny own=\"com.corvane.orsm\"/>");
    writeFile("/var/run/deny.conf", policy);
    const auto dbus = startDbusDaemon("/var/run/deny.conf");
    fails({" WARN failed to request message bus name: com.corvane.orsm. Error:", "ERROR Error setting listeners"});

    std::filesystem::create_directory(KPidFile);
    EXPECT_EQ(startDaemon(configuration)->wait(), 1);
    EXPECT_EQ(log.count("OrvoServiceManager version 0.4.0"), 4U);
    EXPECT_EQ(log.count("ERROR Cannot enable dbus"), 3U);
}

TEST(StartUp, DetachesWhenTheConfigurationAsksForIt) {
    Gateway gateway;
    writeFile(KPidFile, std::to_string(getpid()) + std::string(100'000, '\xFF'));  // a stale one is taken over
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

TEST(StartUp, IsHeldUpByABusThatHangsButItsEndIsNot) {
    Gateway gateway;
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
