// What goes wrong between a client and the bus: a bus that hangs, dies or lies, and clients that harm others.
#include <sys/un.h>

#include <chrono>
#include <thread>

#include "tests/platform/client.h"

static constexpr char KDynDns[] = "OrvoService.DynDNS";

static uint32_t code(int error) { return static_cast<uint32_t>(error); }

TEST(PlatformFault, AHungBusHoldsNobodyAndItsLateAnswerIsDropped) {
    const auto bus = world::startPcbBus();
    const Client client;
    Watch watch(client, KDynDns);
    ASSERT_TRUE(client.loopUntil([&] { return watch.items.size() == 1; }));
    bus->send(SIGSTOP);
    // 6 MiB on the way: the socket takes only a part of it, so that writing hangs too.
    const std::string late(size_t{1024} * 1024, '\x01');
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(client.set(KDynDns, "HostName", late), code(PCB_ERROR_TIMEOUT));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(4900));
    EXPECT_FALSE(connection_isTerminated());
    Watch sentMeanwhile(client, "OrvoService");
    const auto beforeDestroying = std::chrono::steady_clock::now();
    delete new Watch(client, "DNS.Server");
    EXPECT_LT(std::chrono::steady_clock::now() - beforeDestroying, std::chrono::seconds(4)) << "destroying waits";
    bus->send(SIGCONT);
    EXPECT_TRUE(client.get(KDynDns, "HostName") == late);
    ASSERT_TRUE(client.loopUntil([&] { return sentMeanwhile.items.size() == 1 && watch.items.size() == 2; }));
    EXPECT_TRUE(watch.items[1] == "1 OrvoService.DynDNS HostName  " + late);
}

TEST(PlatformFault, ALostBusEndsTheLoopUntilItsClientIsDestroyed) {
    const auto bus = world::startPcbBus();
    auto client = std::make_unique<Client>();
    Watch watch(*client, KDynDns);
    bus->send(SIGKILL);
    EXPECT_FALSE(client->loopUntil([] { return false; }));
    connection_setTerminated(false);
    EXPECT_TRUE(connection_isTerminated());
    EXPECT_EQ(client->get(KDynDns, "Enable"), "error: connection lost");
    EXPECT_EQ(pcb_client_get_object(client->peer, KDynDns, 0), nullptr);
    request_t* request = request_create_getObject(KDynDns, -1, REQUEST_WATCH);
    EXPECT_FALSE(pcb_sendRequest(client->pcb, client->peer, request));
    EXPECT_EQ(pcb_error, code(PCB_ERROR_CONNECTION_LOST));
    request_destroy(request);
    client.reset();  // before the watch, whose request stays its owner's
    EXPECT_FALSE(connection_isTerminated());
}

TEST(PlatformFault, ALyingBusFailsTheOperation) {
    struct Case {
        const char* answer;
        uint32_t error;  // of a get; 0: it never comes back from this
    };
    for (const Case& c : {
             Case{"{\"id\":2}\n",                  code(PCB_ERROR_UNREADABLE_FRAME)},
             Case{"{\"id\":2,\"value\":[]}\n",     code(PCB_ERROR_UNREADABLE_FRAME)},
             Case{"{\"id\":2,\"value\":\n",        code(PCB_ERROR_UNREADABLE_FRAME)},
             Case{"\n",                            code(PCB_ERROR_UNREADABLE_FRAME)},
             Case{"{\"id\":2,\"error\":1e99}\n",   code(PCB_ERROR_UNREADABLE_FRAME)},
             Case{"{\"id\":2,\"error\":131073}\n", code(PCB_ERROR_UNKNOWN_OBJECT)  },
             Case{"",                              code(PCB_ERROR_CONNECTION_LOST) },
    }) {
        SCOPED_TRACE(c.answer);
        sockaddr_un address{AF_UNIX, "/var/run/liar"};
        const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        unlink(address.sun_path);
        ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        ASSERT_EQ(listen(listener, 1), 0);
        std::thread liar([&] {
            const int connection = accept(listener, nullptr, nullptr);
            char bytes[1000];
            (void)!recv(connection, bytes, sizeof bytes, 0);
            static constexpr std::string_view KHello = "{\"id\":77,\"value\":\"x\"}\n{\"id\":1}\n";
            (void)!send(connection, KHello.data(), KHello.size(), MSG_NOSIGNAL);
            (void)!recv(connection, bytes, sizeof bytes, 0);
            (void)!send(connection, c.answer, strlen(c.answer), MSG_NOSIGNAL);
            close(connection);
        });
        {
            const Client client(address.sun_path);
            ASSERT_TRUE(client.peer);
            EXPECT_EQ(pcb_client_get(client.peer, "A", "B"), nullptr);
            EXPECT_EQ(pcb_client_error(client.pcb), c.error);
        }
        liar.join();
        close(listener);
    }
}

TEST(PlatformFault, BadFramesCloseTheirConnectionAndHarmNoOther) {
    const auto bus = world::startPcbBus();
    const Client client;
    Watch watch(client, KDynDns);
    ASSERT_TRUE(client.loopUntil([&] { return watch.items.size() == 1; }));
    const std::string tooLarge(16 * 1024 * 1024 + 100, ' ');
    for (const std::string& frame : {
             std::string("\n"),
             std::string("not JSON\n"),
             std::string("[]\n"),
             std::string("{\"op\":\"get\"}\n"),
             std::string("{\"id\":1,\"op\":\"get\"} {}\n"),
             std::string("{\"id\":1,\"op\":\"get\"\0}\n", 21),
             std::string(2000, '[') + "\n",
             tooLarge,
         }) {
        SCOPED_TRACE(frame.substr(0, 30));
        const RawConnection raw;
        (void)raw.send(frame);
        EXPECT_EQ(raw.receiveUntil("never"), "") << "the connection must be closed, without an answer";
    }
    const std::string messages = bus->output();
    EXPECT_NE(messages.find("dropped: malformed frame"), std::string::npos);
    EXPECT_NE(messages.find("dropped: frame of more than 16 MiB"), std::string::npos);
    for (const char* frame :
         {R"({"id":1,"op":"fly"})", R"({"id":1,"op":"get"})", R"({"id":1,"op":"get","path":"DNS.Server"})",
          R"({"id":1,"op":"set","path":"OrvoService.DynDNS","parameter":"HostName","value":7})",
          R"({"id":1,"op":"call","path":"DNS.Server"})", R"({"id":1,"op":"subscribe"})"}) {
        const RawConnection raw;
        ASSERT_TRUE(raw.send(std::string(frame) + "\n"));
        EXPECT_NE(raw.receiveUntil("\n").find("malformed request"), std::string::npos) << frame;
    }
    // Clients that vanish in the middle: of a frame, of an exchange, of a slow call.
    client.set("Simulation.Functions", "Delay", "20");
    for (const char* frame : {R"({"id":1,"op":"ge)", "{\"id\":1,\"op\":\"object\",\"path\":\"\"}\n",
                              "{\"id\":1,\"op\":\"call\",\"path\":\"NeMo.Intf.data\",\"function\":\"hasFlag\"}\n"}) {
        ASSERT_TRUE(RawConnection().send(frame));
    }
    request_t* call = request_create_executeFunction("NeMo.Intf.data", "hasFlag", REQUEST_FUNCTION_ASYNCHRONOUS);
    Watch answered(client, call);
    ASSERT_TRUE(client.loopUntil([&] { return !answered.items.empty(); }));
    EXPECT_EQ(client.set(KDynDns, "HostName", "alive"), 0U);
    ASSERT_TRUE(client.loopUntil([&] { return watch.items.size() == 2; }));
}

TEST(PlatformFault, AReaderThatDoesNotReadIsDropped) {
    const auto bus = world::startPcbBus();
    const Client client;
    const RawConnection raw;
    ASSERT_TRUE(raw.send("{\"id\":1,\"op\":\"subscribe\",\"path\":\"OrvoService\",\"depth\":-1,\"flags\":1024}\n"));
    ASSERT_EQ(raw.receiveUntil("\n"), "{\"id\":1}\n");
    const std::string value(1024 * 1024 - 1, 'x');
    const auto dropped = [&] { return bus->output().find("it does not read, 64 MiB wait") != std::string::npos; };
    int sets = 0;
    for (; sets < 100 && !dropped(); ++sets) {
        ASSERT_EQ(client.set(KDynDns, "HostName", value + std::to_string(sets % 10)), 0U);
    }
    EXPECT_GE(sets, 32) << "64 MiB must fit";
    EXPECT_LT(sets, 40);
    EXPECT_EQ(client.set(KDynDns, "HostName", "alive"), 0U);
}

TEST(PlatformFault, TheBusRemovesAStaleSocketAndEndsCleanly) {
    {
        const auto bus = world::startPcbBus();
        bus->send(SIGKILL);
        bus->wait();
    }
    const std::string definition = "/var/run/small.odl";
    world::writeFile(definition,
                     "object OrvoService { object GatewayClient { string ConnectionMode = \"ondemand\"; } }");
    const std::vector<std::string> command = {world::binary("pcb-bus"), "--socket", "/var/run/pcb_sys", "--definition",
                                              definition};
    world::Process bus(command);
    ASSERT_TRUE(world::waitFor([&] { return bus.output() == "pcb-bus: listening on /var/run/pcb_sys\n"; }));
    std::string output;
    EXPECT_EQ(world::run(command, &output), 1);
    EXPECT_EQ(output, "pcb-bus: another bus listens here: /var/run/pcb_sys\n");
    {
        // It serves what is there, and does without the rest.
        const Client client;
        EXPECT_EQ(client.set("OrvoService.GatewayClient", "ConnectionMode", "on"), 0U);
        Watch call(client,
                   request_create_executeFunction("NeMo.Intf.data", "openQuery", REQUEST_FUNCTION_ASYNCHRONOUS));
        ASSERT_TRUE(client.loopUntil([&] { return !call.items.empty(); }));
        EXPECT_EQ(call.items[0], "error unknown object: unknown object: NeMo.Intf.data.openQuery");
    }
    bus.send(SIGTERM);
    EXPECT_EQ(bus.wait(), 0);
    EXPECT_NE(access("/var/run/pcb_sys", F_OK), 0);
}
