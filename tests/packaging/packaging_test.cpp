// What a gateway gets: the installed files, how an init system starts them, whom the bus lets in, and the manuals.
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <set>

#include "tests/daemon/daemon.h"
#include "tests/world/bus_client.h"

using namespace world;
using Words = std::set<std::string>;

static const std::string KRoot = "/var/run/root";

// Runs a program that must succeed; what it prints.
static std::string output(const std::vector<std::string>& words) {
    std::string text;
    EXPECT_EQ(run(words, &text), 0) << words[0] << ": " << text;
    return text;
}

// Installs a component into an empty folder: its files, each behind its mode.
static Words install(const std::string& component) {
    std::filesystem::remove_all(KRoot);
    output({"env", "DESTDIR=" + KRoot, "cmake", "--install", ORSM_BUILD_FOLDER, "--component", component});
    Words files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(KRoot)) {
        if (entry.is_directory()) continue;
        char mode[8];
        snprintf(mode, sizeof mode, "%o ", static_cast<unsigned>(entry.symlink_status().permissions()));
        files.insert(mode + entry.path().string().substr(KRoot.size()));
    }
    return files;
}

// The first group of each match in a text.
static Words found(const std::string& text, const char* pattern) {
    const std::regex regex(pattern);
    Words words;
    for (std::sregex_iterator match(text.begin(), text.end(), regex), end; match != end; ++match) {
        words.insert((*match)[1]);
    }
    return words;
}

TEST(Installed, EachComponentHoldsExactlyItsFiles) {
    EXPECT_EQ(install("desk"), (Words{"755 /usr/bin/cloud-sim", "755 /usr/bin/pcb-bus", "755 /usr/bin/pcb-ctl"}));
    const std::string share = "644 /usr/share/", interface = share + "dbus-1/interfaces/com.corvane.orsm.";
    const Words expected = {"755 /usr/sbin/orvoservicemanager",
                            "644 /etc/orvoservicemanager.conf",
                            "755 /etc/init.d/orvoservicemanager",
                            "644 /usr/lib/systemd/system/orvoservicemanager.service",
                            share + "dbus-1/system.d/com.corvane.orsm.conf",
                            interface + "dyndns.xml",
                            interface + "voltaro.xml",
                            interface + "orvoservicesinfo.xml",
                            share + "man/man8/orvoservicemanager.8",
                            share + "man/man5/orvoservicemanager.conf.5",
                            share + "man/man1/pcb-ctl.1"};
    EXPECT_EQ(install("daemon"), expected);
}

TEST(Installed, TheUnitIsHardenedAndStartsTheProgramWithTheExampleConfiguration) {
    install("daemon");
    const std::string unit = KRoot + "/usr/lib/systemd/system/orvoservicemanager.service";
    const std::string judged = output({"systemd-analyze", "security", "--offline=true", "--threshold=15", unit});
    printf("figure: the unit's exposure is %s\n", found(judged, "exposure level.*: (\\S+)").begin()->c_str());
    const std::string text = readFile(unit);
    for (const char* line : {"Type=dbus", "BusName=com.corvane.orsm", "Restart=always", "StartLimitIntervalSec=0"}) {
        EXPECT_NE(text.find(std::string("\n") + line + "\n"), std::string::npos) << line;
    }
    const std::string command = *found(text, "ExecStart=(.*)").begin();
    EXPECT_EQ(command, "/usr/sbin/orvoservicemanager -c /etc/orvoservicemanager.conf");
    // What the unit names is looked for in the tree; what a system brings itself stands in there for its own.
    std::filesystem::create_directory(KRoot + "/bin");
    std::filesystem::copy("/bin/true", KRoot + "/bin/kill");
    using File = std::pair<const char*, const char*>;
    for (const auto& [name, content] : {
             File{"sysinit.target",  "[Unit]\n"                                            },
             File{"shutdown.target", "[Unit]\n"                                            },
             File{"dbus.service",    "[Service]\nExecStart=/bin/kill\n"                    },
             File{"dbus.socket",     "[Socket]\nListenStream=/run/dbus/system_bus_socket\n"}
    }) {
        writeFile(KRoot + "/usr/lib/systemd/system/" + name, content);
    }
    EXPECT_EQ(output({"systemd-analyze", "verify", "--man=no", "--root=" + KRoot, unit}), "");

    const auto dbus = startDbusDaemon();
    const auto bus = startPcbBus();
    Process daemon({"sh", "-c", "exec " + std::regex_replace(command, std::regex("/(usr|etc)"), KRoot + "$&")});
    BusClient client;
    EXPECT_TRUE(waitFor([&] { return client.call("/orvoservicesinfo", "", "Get").starts_with(R"({"status":"OK",)"); }));
    EXPECT_EQ(readFile(KPidFile), std::to_string(daemon.pid()) + "\n") << "it left the foreground";
    daemon.send(SIGTERM);
    EXPECT_EQ(daemon.wait(), 0);
}

TEST(Installed, TheInitScriptTellsProcdToTryForEverAndToSendHangups) {
    install("daemon");
    const std::string script = KRoot + "/etc/init.d/orvoservicemanager";
    output({"sh", "-n", script});
    EXPECT_EQ(output({"shellcheck", script}), "");
    EXPECT_EQ(output({"sh", "-c",
                      "for name in open_instance set_param close_instance send_signal; do"
                      "  eval \"procd_$name() { echo $name \\\"\\$@\\\"; }\"; "
                      "done; . " +
                          script + "; echo $START $STOP $USE_PROCD; start_service; reload_service"}),
              "95 10 1\nopen_instance\n"
              "set_param command /usr/sbin/orvoservicemanager -c /etc/orvoservicemanager.conf\n"
              "set_param respawn 3600 5 0\nclose_instance\nsend_signal orvoservicemanager * HUP\n");
}

TEST(Installed, ManualsNameTheProgramsOptionsKeysAndCommandsAndNoOthers) {
    install("daemon");
    const auto page = [](const char* name) { return KRoot + "/usr/share/man/" + name; };
    const std::string daemon = page("man8/orvoservicemanager.8"), ctl = page("man1/pcb-ctl.1");
    const std::string configuration = page("man5/orvoservicemanager.conf.5");
    EXPECT_EQ(output({"mandoc", "-T", "lint", daemon, configuration, ctl}), "");

    std::string usage;
    EXPECT_EQ(run({binary("orvoservicemanager")}, &usage), 1);
    EXPECT_EQ(found(readFile(daemon), "\\.It Fl (\\S+)"), found(usage, "\n-(\\S+) "));

    Words keys = found(readFile(ORSM_SOURCE_FOLDER "/src/main/startup_config.cpp"), "RequiredKey \\w+\\{\"(.*?)\"");
    for (const std::string& key :
         found(readFile(ORSM_SOURCE_FOLDER "/common/log/log_settings.cpp"), "\n    \\{\"(.*?)\", +\\w+")) {
        keys.insert("logger." + key);
    }
    EXPECT_EQ(found(readFile(configuration), "\\.It Ic ([a-z._-]+)"), keys);

    EXPECT_EQ(run({binary("pcb-ctl")}, &usage), 1);
    EXPECT_EQ(found(readFile(ctl), "\\.It Cm (\\S+)"), found(usage, "(?:\\]|\\|) ([a-z]+)"));
    EXPECT_EQ(found(readFile(ctl), "\\.It Fl (\\S+)"), found(usage, "\\[-(\\S+) "));
}

static std::unique_ptr<BusClient> clientOf(uid_t user, gid_t group) {
    EXPECT_TRUE(setgroups(1, &group) == 0 && seteuid(user) == 0);
    auto client = std::make_unique<BusClient>();
    EXPECT_EQ(seteuid(0), 0);
    return client;
}

TEST(Policy, OnlyRootAndTheGroupChangeSomethingAndOnlyRootOwnsTheName) {
    constexpr gid_t KGroup = 5001, KOtherGroup = 5002;
    writeFile("/var/run/group", "root:x:0:\norvoservice:x:5001:\nothers:x:5002:\n");
    writeFile("/var/run/passwd", "root:x:0:0::/:\nmember:x:1001:5001::/:\nother:x:1002:5002::/:\n");
    if (seteuid(1002) != 0 || seteuid(0) != 0 || mount("/var/run/group", "/etc/group", "", MS_BIND, nullptr) != 0 ||
        mount("/var/run/passwd", "/etc/passwd", "", MS_BIND, nullptr) != 0) {
        GTEST_SKIP() << "a world with several users needs root and namespaces";
    }
    install("daemon");
    // As the stock system bus: calls are denied until a policy allows them.
    writeFile("/var/run/bus.conf",
              "<busconfig><listen>unix:path=/var/run/dbus/system_bus_socket</listen><auth>EXTERNAL</auth>"
              "<policy context='default'><allow user='*'/><deny own='*'/><deny send_type='method_call'/>"
              "<allow send_type='signal'/><allow send_requested_reply='true' send_type='method_return'/>"
              "<allow send_requested_reply='true' send_type='error'/><allow receive_sender='*'/>"
              "<allow send_destination='org.freedesktop.DBus'/></policy><include>" +
                  KRoot + "/usr/share/dbus-1/system.d/com.corvane.orsm.conf</include></busconfig>");
    Gateway gateway;
    gateway.dbus = startDbusDaemon("/var/run/bus.conf");
    gateway.start();

    const std::string denied = "org.freedesktop.DBus.Error.AccessDenied";
    const std::string unknown = "org.freedesktop.DBus.Error.UnknownMethod";
    const std::string KName = "com.corvane.orsm", KProperties = "org.freedesktop.DBus.Properties";
    const Words changing = {"Configure", "EnableBackend", "Set", "SetEnabled"};
    const Words methods = found(gateway.log.content(), "interface='com\\.corvane\\.orsm\\.(\\w+',member='\\w+)'");
    EXPECT_EQ(methods.size(), 9U);
    const auto root = clientOf(0, 0);
    root->destination = "org.freedesktop.DBus";
    const std::string daemonsOwnName = root->call("/", "org.freedesktop.DBus", "GetNameOwner", {KName});
    size_t calls = 0, refused = 0;
    using User = std::pair<uid_t, gid_t>;
    for (const auto& [user, group] : {
             User{0,    0          },
             User{1001, KGroup     },
             User{1002, KOtherGroup}
    }) {
        const auto client = clientOf(user, group);
        const int owned = dbus_bus_request_name(client->connection(), KName.c_str(), 0, nullptr);
        EXPECT_EQ(owned, user == 0 ? DBUS_REQUEST_NAME_REPLY_IN_QUEUE : -1);
        EXPECT_EQ(client->call("/", "org.freedesktop.DBus.Peer", "Ping"), "");
        EXPECT_TRUE(client->call("/dyndns", "org.freedesktop.DBus.Introspectable", "Introspect").starts_with("<!"));
        for (const std::string& method : methods) {
            const std::string service = method.substr(0, method.find('\'')),
                              name = method.substr(method.rfind('\'') + 1);
            const bool allowed = group != KOtherGroup || !changing.contains(name);
            for (const std::string& interface : {KName + "." + service, std::string(), KName, KProperties}) {
                const bool served = interface != KName && interface != KProperties;
                for (const std::string& destination : {KName, daemonsOwnName}) {
                    SCOPED_TRACE(std::to_string(user) + " " + destination + " " + interface + "." + name);
                    const size_t before = gateway.log.count("Method call: ");
                    client->destination = destination;
                    const std::string reply = client->call("/" + service, interface, name);
                    EXPECT_EQ(reply.starts_with("org.") ? reply : "", !allowed ? denied : served ? "" : unknown);
                    EXPECT_EQ(gateway.log.count("Method call: "), before + (allowed && served));
                    ++calls;
                    refused += !allowed;
                }
            }
        }
    }
    printf("figure: policy: %zu calls of 3 users, %zu refused\n", calls, refused);
    EXPECT_EQ(gateway.end(), 0);
}
