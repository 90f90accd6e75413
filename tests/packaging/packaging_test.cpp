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

using namespace std::string_literals;
using namespace world;
using Words = std::set<std::string>;

static const std::string KRoot = "/var/run/root", KUnits = KRoot + "/usr/lib/systemd/system/";

// Runs a program that must succeed; what it prints.
static std::string output(const std::vector<std::string>& words) {
    std::string text;
    const int status = run(words, &text);
    EXPECT_EQ(status, 0) << (status == 127 ? "NOT INSTALLED: " : "") << words[0] << ": " << text;
    return text;
}

// The first group of each match in a text.
static Words found(const std::string& text, const char* pattern) {
    const std::regex regex(pattern);
    return {std::sregex_token_iterator(text.begin(), text.end(), regex, 1), std::sregex_token_iterator()};
}

// Installs a component of a build into an empty folder: its files, each with its mode in front.
static Words install(const std::string& component, const std::string& build = ORSM_BUILD_FOLDER) {
    std::filesystem::remove_all(KRoot);
    output({"env", "DESTDIR=" + KRoot, "cmake", "--install", build, "--component", component});
    return found(output({"find", KRoot, "!", "-type", "d", "-printf", "%m /%P\n"}), "(.+)\n");
}

TEST(Installed, EachComponentHoldsExactlyItsFiles) {
    const std::string share = "644 /usr/share/", dbus = share + "dbus-1/",
                      interface = dbus + "interfaces/com.corvane.orsm.";
    const std::string doc = share + "doc/orvoservicemanager";
    EXPECT_EQ(install("desk"), (Words{"755 /usr/bin/cloud-sim", "755 /usr/bin/pcb-bus", "755 /usr/bin/pcb-ctl",
                                      share + "man/man1/cloud-sim.1.gz", share + "man/man1/pcb-bus.1.gz",
                                      share + "man/man1/pcb-ctl.1.gz", share + "orvoservicemanager/gateway.odl",
                                      doc + "-desk/changelog.gz", doc + "-desk/copyright"}));
    EXPECT_EQ(install("procd"), (Words{"755 /etc/init.d/orvoservicemanager"}));
    const Words systemd = {"644 /usr/lib/systemd/system/orvoservicemanager.service",
                           "644 /usr/lib/sysusers.d/orvoservicemanager.conf",
                           dbus + "system-services/com.corvane.orsm.service"};
    EXPECT_EQ(install("systemd"), systemd);
    EXPECT_EQ(install("daemon"),
              (Words{"755 /usr/sbin/orvoservicemanager", "644 /etc/orvoservicemanager.conf",
                     dbus + "system.d/com.corvane.orsm.conf", interface + "dyndns.xml", interface + "voltaro.xml",
                     interface + "orvoservicesinfo.xml", share + "man/man8/orvoservicemanager.8.gz",
                     share + "man/man5/orvoservicemanager.conf.5.gz", doc + "-standin/changelog.gz",
                     doc + "-standin/copyright"}));

    // With the platform's library, and a prefix of its own.
    const std::string build = "/var/run/gateway";
    output({"cmake", "-G", "Ninja", "-S", ORSM_SOURCE_FOLDER, "-B", build, "-DORSM_PCB_LIBRARIES=pcb",
            "-DCMAKE_INSTALL_PREFIX=/opt/x", "-DBUILD_TESTING=OFF"});
    EXPECT_EQ(install("systemd", build), systemd);
    EXPECT_EQ(found(readFile(KUnits + "orvoservicemanager.service"), "\nExecStart=(.*)"),
              Words{"/usr/bin/env -i /opt/x/sbin/orvoservicemanager -c /etc/opt/x/orvoservicemanager.conf"});
    EXPECT_EQ(found(readFile(build + "/CPackConfig.cmake"), "(?:COMPONENTS_ALL|DAEMON_PACKAGE_NAME) \"(.*)\""),
              (Words{"daemon;systemd", "orvoservicemanager"}));
}

TEST(Installed, UnitIsHardenedAndStartsWithTheExampleConfiguration) {
    install("systemd");
    const std::string unit = KUnits + "orvoservicemanager.service";
    const std::string judged = output({"systemd-analyze", "security", "--offline=true", "--threshold=15", unit});
    printf("figure: the unit's exposure is %s\n", found(judged, "exposure level.*: (\\S+)").begin()->c_str());
    const std::string command = "/usr/sbin/orvoservicemanager -c /etc/orvoservicemanager.conf";
    std::string lines = "\n" + readFile(unit);
    for (const char* file : {"orvoservicemanager.conf", "dbus/com.corvane.orsm.service", "packaging/postinst",
                             "packaging/orvoservicemanager.sysusers", "packaging/conffiles"}) {
        lines += readFile(ORSM_SOURCE_FOLDER "/"s + file);
    }
    for (const std::string& line :
         {"After=dbus.service network.target media.mount"s, "Alias=dbus-com.corvane.orsm.service"s, "Type=dbus"s,
          "BusName=com.corvane.orsm"s, "Restart=always"s, "StartLimitIntervalSec=0"s,
          "ExecStart=/usr/bin/env -i " + command, "LimitDATA=100M"s, "ExecReload=/bin/kill -HUP $MAINPID"s,
          "ReadWritePaths=/run -/media -/var/log"s, "MemoryMax="s, "logger.level = WARN"s, "logger.syslog = true"s,
          "SystemdService=dbus-com.corvane.orsm.service"s, "  systemd-sysusers orvoservicemanager.conf"s,
          "g orvoservice -"s, "@SYSCONFDIR@/orvoservicemanager.conf"s}) {
        EXPECT_NE(lines.find("\n" + line), std::string::npos) << "no line " << line;
    }
    install("daemon");
    const auto dbus = startDbusDaemon();
    const auto bus = startPcbBus();
    Process daemon({"sh", "-c", "exec " + std::regex_replace(command, std::regex("/(usr|etc)"), KRoot + "$&")});
    BusClient client;
    ASSERT_TRUE(waitFor([&] { return client.call("/orvoservicesinfo", "", "Get").starts_with(R"({"status":"OK",)"); },
                        &daemon));
    EXPECT_EQ(readFile(KPidFile), std::to_string(daemon.pid()) + "\n") << "it left the foreground";
    daemon.send(SIGTERM);
    EXPECT_EQ(daemon.wait(), 0);
}

TEST(Installed, InitScriptRestartsForeverAndSendsHangups) {
    install("procd");
    const std::string script = KRoot + "/etc/init.d/orvoservicemanager";
    EXPECT_EQ(output({"shellcheck", script}), "");
    const std::string procd = R"(for name in open_instance set_param close_instance send_signal; do
        eval "procd_$name() { echo $name \"\$@\"; }"; done
        . "$0"; echo $START $STOP $USE_PROCD; start_service; reload_service)";
    EXPECT_EQ(output({"sh", "-c", procd, script}),
              "95 10 1\nopen_instance\nset_param command env -i /usr/sbin/orvoservicemanager "
              "-c /etc/orvoservicemanager.conf\nset_param limits data=104857600 104857600\n"
              "set_param respawn 3600 5 0\nclose_instance\nsend_signal orvoservicemanager * HUP\n");
}

TEST(Manuals, NameEveryKey) {
    const std::string source = ORSM_SOURCE_FOLDER "/",
                      settings = readFile(source + "common/log_settings/log_settings.cpp");
    Words keys = found(readFile(source + "src/main/startup_config.cpp"), "\\{\"([a-z.-]+)\"[};,]");
    for (const std::string& key : found(settings, "\n    \\{\"([a-z._]+)\"")) {
        keys.insert("logger." + key);
    }
    EXPECT_EQ(found(readFile(source + "man/orvoservicemanager.conf.5"), "\n\\.It Ic ([a-z._-]+)"), keys);
    const char documented[] =
        "`((?:serverrequests|logger|synchronize)\\.[a-z_.]+|orvoservicesinfo|demonize-process)(?:NAME)?`";
    EXPECT_EQ(found(readFile(source + "docs/configuration.md"), documented), keys);
}

TEST(Manuals, AreWellFormed) { EXPECT_EQ(output({"sh", "-c", "mandoc -T lint " ORSM_SOURCE_FOLDER "/man/*"}), ""); }

static constexpr int KStandardInput = STDIN_FILENO;

TEST(Policy, GuardedMethodsAreForRootAndTheGroup) {
    writeFile("/var/run/group", "root:x:0:\norvoservice:x:5001:\nothers:x:5002:\n");
    writeFile("/var/run/passwd", "root:x:0:0::/:\nmember:x:1001:5001::/:\nother:x:1002:5002::/:\n");
    if (seteuid(1002) != 0 || seteuid(0) != 0 || mount("/var/run/group", "/etc/group", "", MS_BIND, nullptr) != 0 ||
        mount("/var/run/passwd", "/etc/passwd", "", MS_BIND, nullptr) != 0) {
        GTEST_SKIP() << "a world with several users needs root and namespaces";
    }
    install("daemon");
    // As the stock system bus: calls are denied until a policy allows them.
    writeFile("/var/run/bus.conf", R"(<busconfig>
<listen>unix:path=/var/run/dbus/system_bus_socket</listen><auth>EXTERNAL</auth>
<policy context='default'><allow user='*'/><deny own='*'/><deny send_type='method_call'/><allow send_type='signal'/>
<allow send_requested_reply='true' send_type='method_return'/><allow send_requested_reply='true' send_type='error'/>
<allow receive_sender='*'/><allow send_destination='org.freedesktop.DBus'/></policy>
<include>/var/run/root/usr/share/dbus-1/system.d/com.corvane.orsm.conf</include></busconfig>)");
    Gateway gateway;
    gateway.dbus = startDbusDaemon("/var/run/bus.conf");
    gateway.start();

    const std::string denied = DBUS_ERROR_ACCESS_DENIED, name = "com.corvane.orsm";
    using User = std::pair<uid_t, gid_t>;
    constexpr gid_t KOtherGroup = 5002;
    for (const auto& [user, group] : {User(0, 0), User(1001, 5001), User(1002, KOtherGroup)}) {
        EXPECT_TRUE(setgroups(1, &group) == 0 && seteuid(user) == 0);
        BusClient client;
        EXPECT_EQ(seteuid(0), 0);
        EXPECT_EQ(dbus_bus_request_name(client.connection(), name.c_str(), 0, nullptr),
                  user ? -1 : DBUS_REQUEST_NAME_REPLY_IN_QUEUE);
        EXPECT_TRUE(client.call("/dyndns", DBUS_INTERFACE_INTROSPECTABLE, "Introspect").starts_with("<!"));
        DBusMessage* const withDescriptor = BusClient::message("/", DBUS_INTERFACE_PEER, "Ping", {});
        dbus_message_append_args(withDescriptor, DBUS_TYPE_UNIX_FD, &KStandardInput, DBUS_TYPE_INVALID);
        EXPECT_TRUE(client.callMany(
            1, 1, [=](int) { return withDescriptor; },
            [&](DBusMessage* reply) { EXPECT_EQ(BusClient::textOf(reply), denied); }));
        for (const auto& [service, method, guarded] :
             {std::tuple("dyndns", "IsEnabled", false), std::tuple("dyndns", "Configure", true),
              std::tuple("voltaro", "Get", true)}) {
            for (const std::string& interface : {name + "." + service, std::string()}) {
                const bool isDenied = guarded && group == KOtherGroup;
                EXPECT_EQ(client.call(std::string("/") + service, interface, method) == denied, isDenied) << method;
            }
        }
    }
    EXPECT_EQ(gateway.end(), 0);
}
