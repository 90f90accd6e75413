// The stand-in for the platform where it promises more than a platform does, and pcb-ctl.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "tests/platform/client.h"

using namespace std::string_literals;

// A connection to the bus that sends and gets frames as they are.
struct Raw {
    int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);

    explicit Raw(const std::string& frames) {
        const sockaddr_un address{AF_UNIX, "/var/run/pcb_sys"};
        EXPECT_EQ(connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        (void)!::send(socket, frames.data(), frames.size(), MSG_NOSIGNAL);
    }
    ~Raw() { close(socket); }
    // The next frame; empty when the bus has closed the connection.
    std::string answer() const {
        std::string line;
        for (char byte = 0; recv(socket, &byte, 1, 0) == 1 && byte != '\n';) {
            line += byte;
        }
        return line;
    }
};

TEST_F(Platform, BadFramesAreRefusedOrCloseTheConnection) {
    const Raw watch(R"({"id":1,"op":"subscribe","path":"OrvoService.DynDNS","flags":1024})"
                    "\n");
    EXPECT_EQ(watch.answer(), R"({"id":1})");
    const std::string set = R"({"id":1,"op":"set","path":"OrvoService.DynDNS","parameter":"HostName","value":)";
    const std::string call = R"({"id":1,"op":"call","path":"NeMo.Intf.data","function":"hasFlag","arguments":)";
    const std::string subscribe = R"({"id":1,"op":"subscribe","path":"OrvoService",)";
    for (const std::string& closing :
         {""s, "[]"s, R"({"op":"x"})"s, R"({"id":1})"s, R"({"id":1.5,"op":"x"})"s, R"({"id":1,"op":"x"} {})"s,
          std::string(2000, '['), "{\"id\":1,\"op\":\"x\"\0}"s, set + R"("a\\\u0000b"})"}) {
        EXPECT_EQ(Raw(closing + "\n").answer(), "") << closing;
    }
    EXPECT_EQ(Raw(std::string(size_t{16} * 1024 * 1024 + 100, ' ')).answer(), "") << "a line of any length";
    for (const std::string& refused : {R"({"id":1,"op":"x"})"s, set + "7}", call + R"({"flag":7}})",
                                       subscribe + R"("depth":1.5})", subscribe + R"("flags":1e10})"}) {
        EXPECT_NE(Raw(refused + "\n").answer().find("malformed request"), std::string::npos) << refused;
    }
    EXPECT_EQ(Raw(set + "\"a\\\\u0000b\"}\n").answer(), R"({"id":1})");
    client.set(KDynDns, "HostName", "alive");
    EXPECT_NE(watch.answer().find("u0000b\"]"), std::string::npos);
    EXPECT_NE(watch.answer().find("\"alive\"]"), std::string::npos);
}

TEST_F(Platform, WatcherGetsOnlyItsObjectAndIsDroppedWhenItDoesNotRead) {
    world::writeFile("/var/run/two.odl", "object Q { object 1 { string X = \"\"; } object 10 { string X = \"\"; } }\n");
    bus.reset();
    bus = world::startPcbBus("/var/run/two.odl");
    const Client setter;
    const std::string subscribe = R"({"id":1,"op":"subscribe","path":"Q.1","flags":1024})"
                                  "\n";
    const Raw watcher(subscribe), deaf(subscribe);
    EXPECT_EQ(watcher.answer() + deaf.answer(), R"({"id":1}{"id":1})");
    for (const char* object : {"Q.10", "Q.1"}) {
        EXPECT_EQ(setter.set(object, "X", "a"), "done");
    }
    EXPECT_NE(watcher.answer().find(R"("path":"Q.1",)"), std::string::npos);
    const std::string cancel = "{\"id\":2,\"op\":\"cancel\",\"request\":1}\n{\"id\":3,\"op\":\"x\"}\n";
    EXPECT_EQ(send(watcher.socket, cancel.data(), cancel.size(), 0), static_cast<ssize_t>(cancel.size()));
    EXPECT_NE(watcher.answer().find("malformed request"), std::string::npos);
    const std::string large(1'000'000, 'x');
    for (unsigned change = 0; change < 70; ++change) {
        EXPECT_EQ(setter.set("Q.1", "X", large.substr(change % 2)), "done");
    }
    EXPECT_NE(bus->output().find("dropped: it does not read, 64 MiB wait"), std::string::npos);
    char byte;
    EXPECT_EQ(recv(watcher.socket, &byte, 1, MSG_DONTWAIT), -1) << "it hears of what it does not watch any more";
}

TEST_F(Platform, CtlPrintsValuesOrOneErrorLine) {
    const std::tuple<const char*, int, const char*> cases[] = {
        {"set NeMo.Intf.data Flags up,a=b",      0, ""                                                             },
        {"--socket /var/run/pcb_sys ls DNS",     0, "DNS.Server.Status=true\n"                                     },
        {"call NeMo.Intf.data hasFlag flag=a=b", 0, "{\"returns\":\"true\"}\n"                                     },
        {"get DNS.Server name",                  1, "pcb-ctl: DNS.Server.name: unknown parameter\n"                },
        {"set DNS.Server Status 7",              1, "pcb-ctl: DNS.Server.Status: the value does not fit the type\n"},
        {"--socket /var/run/nobody ls",          1, "pcb-ctl: /var/run/nobody: cannot connect\n"                   },
    };
    for (const auto& [words, status, expected] : cases) {
        std::string output;
        EXPECT_EQ(world::run({"sh", "-c", "exec " + world::binary("pcb-ctl") + " " + words}, &output), status) << words;
        EXPECT_EQ(output, expected);
    }
}
