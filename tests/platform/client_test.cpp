// The data-model client library on a running bus: values, watches, functions.
#include "tests/platform/client.h"

static constexpr char KDynDns[] = "OrvoService.DynDNS";

TEST(PlatformClient, SetsAndGetsEveryValueByteForByte) {
    const auto bus = world::startPcbBus();
    const Client client;
    std::string everyByte;
    for (int byte = 1; byte < 256; ++byte) {
        everyByte += static_cast<char>(byte);
    }
    const std::string longest(size_t{1024} * 1024, '\x01');  // six bytes each on the way
    for (const std::string& value : {std::string(), everyByte, std::string("\xC3\xA4\n\"\\"), longest}) {
        ASSERT_EQ(client.set(KDynDns, "HostName", value), 0U);
        ASSERT_TRUE(client.get(KDynDns, "HostName") == value) << value.size();
    }
    EXPECT_EQ(client.set(KDynDns, "HostName", longest + "x"), static_cast<uint32_t>(PCB_ERROR_VALUE_TOO_LONG));
    EXPECT_TRUE(client.get(KDynDns, "HostName") == longest);
}

TEST(PlatformClient, SaysWhyAValueCannotBeReadOrSet) {
    const auto bus = world::startPcbBus();
    const Client client;
    const Client platform("/var/run/pcb_sys", true);
    struct Case {
        const Client& client;
        const char *path, *parameter, *value;
        uint32_t error;
    };
    for (const Case& c : {
             Case{client,   KDynDns,           "Enable", "1",     0                          },
             Case{client,   KDynDns,           "Enable", "yes",   PCB_ERROR_WRONG_TYPE       },
             Case{client,   KDynDns,           "Enable", "",      PCB_ERROR_WRONG_TYPE       },
             Case{client,   KDynDns,           "enable", "true",  PCB_ERROR_UNKNOWN_PARAMETER},
             Case{client,   "OrvoService.Dyn", "Enable", "true",  PCB_ERROR_UNKNOWN_OBJECT   },
             Case{client,   "OrvoService..",   "Enable", "true",  PCB_ERROR_UNKNOWN_OBJECT   },
             Case{client,   nullptr,           "Enable", "true",  PCB_ERROR_INVALID_ARGUMENT },
             Case{client,   "DNS.Server",      "Status", "false", PCB_ERROR_READ_ONLY        },
             Case{platform, "DNS.Server",      "Status", "false", 0                          },
    }) {
        SCOPED_TRACE(testing::Message() << (c.path ? c.path : "none") << " " << c.parameter << " " << c.value);
        EXPECT_EQ(c.client.set(c.path, c.parameter, c.value), c.error);
        if (c.error) continue;
        EXPECT_EQ(c.client.get(c.path, c.parameter), c.value);
    }
    EXPECT_EQ(client.get("DNS.Server", "Nothing"), "error: unknown parameter");
    EXPECT_EQ(pcb_client_get_object(client.peer, "DNS.Nothing", 0), nullptr);
    EXPECT_EQ(pcb_client_error(client.pcb), static_cast<uint32_t>(PCB_ERROR_UNKNOWN_OBJECT));
}

TEST(PlatformClient, ConnectsOnlyToWhoListens) {
    for (const char* path : {"/var/run/nobody", "/var/run", ""}) {
        EXPECT_EQ(Client(path).peer, nullptr) << path;
    }
    pcb_t* pcb = pcb_create("test", 0, nullptr);
    EXPECT_EQ(pcb_client_connect(pcb, "http://localhost"), nullptr);
    EXPECT_EQ(pcb_error, static_cast<uint32_t>(PCB_ERROR_INVALID_ARGUMENT));
    pcb_destroy(pcb);
    EXPECT_FALSE(connection_isTerminated());
}

TEST(PlatformClient, DeliversTheObjectOnceThenEachChangeInOrder) {
    const auto bus = world::startPcbBus();
    const Client client;
    const Client other;
    Watch first(client, KDynDns);
    Watch tree(client, "OrvoService");
    Watch onlyChanges(client, "OrvoService", REQUEST_NOTIFICATIONS);
    Watch missing(client, "OrvoService.Nothing");
    ASSERT_TRUE(client.loopUntil([&] { return missing.items.size() == 1; }));
    EXPECT_EQ(missing.items[0], "error unknown object: unknown object: OrvoService.Nothing");
    other.set(KDynDns, "Enable", "true");
    other.set(KDynDns, "Enable", "true");  // changes nothing
    other.set(KDynDns, "Enable", "1");
    client.set("OrvoService.Voltaro", "Enable", "true");  // the client's own change, kept while its answer is awaited
    EXPECT_TRUE(tree.items.size() == 1) << "nothing is delivered outside the event loop";
    ASSERT_TRUE(client.loopUntil([&] { return onlyChanges.items.size() == 3; }));
    const std::vector<std::string> changes = {"1 OrvoService.DynDNS Enable false true",
                                              "1 OrvoService.DynDNS Enable true 1",
                                              "1 OrvoService.Voltaro Enable false true"};
    EXPECT_EQ(onlyChanges.items, changes);
    EXPECT_EQ(tree.items, (std::vector<std::string>{"object OrvoService", changes[0], changes[1], changes[2]}));
    EXPECT_EQ(first.items,
              (std::vector<std::string>{"object OrvoService.DynDNS Enable=false HostName= SyncNotFinished=false",
                                        changes[0], changes[1]}));
    first.end();
    other.set(KDynDns, "Enable", "false");
    ASSERT_TRUE(client.loopUntil([&] { return onlyChanges.items.size() == 4; }));
    EXPECT_EQ(first.items.size(), 3U);
}

TEST(PlatformClient, DeliversEveryChangeOfABurstToEveryWatch) {
    const auto bus = world::startPcbBus();
    const Client client;
    Watch one(client, KDynDns);
    Watch two(client, KDynDns);
    std::string burst;
    for (int i = 1; i <= 5000; ++i) {
        burst += R"({"id":)" + std::to_string(i) +
                 R"(,"op":"set","path":"OrvoService.DynDNS","parameter":"HostName",)" + R"("value":")" +
                 std::to_string(i) + "\"}\n";
    }
    ASSERT_TRUE(client.loopUntil([&] { return two.items.size() == 1; }));
    const RawConnection raw;
    ASSERT_TRUE(raw.send(burst));
    ASSERT_TRUE(client.loopUntil([&] { return two.items.size() == 5001; }));
    EXPECT_EQ(one.items, two.items);
    for (size_t i = 2; i <= 5000; ++i) {
        ASSERT_EQ(one.items[i], "1 OrvoService.DynDNS HostName " + std::to_string(i - 1) + " " + std::to_string(i));
    }
    const std::string answers = raw.receiveUntil("{\"id\":5000}\n");
    for (size_t i = 1, at = 0; i <= 5000; ++i) {
        at = answers.find("{\"id\":" + std::to_string(i) + "}\n", at);
        ASSERT_NE(at, std::string::npos) << "answer " << i << " is missing, or not in its place";
    }
}

TEST(PlatformClient, AHandlerMayDoEverything) {
    const auto bus = world::startPcbBus();
    const Client client;
    Watch watch(client, KDynDns);
    std::unique_ptr<Watch> later;
    watch.onItem = [&] {
        later = std::make_unique<Watch>(client, "DNS.Server");
        EXPECT_EQ(client.set(KDynDns, "HostName", "from inside"), 0U);
        watch.end();
    };
    ASSERT_TRUE(client.loopUntil([&] { return later && !later->items.empty(); }));
    EXPECT_EQ(later->items[0], "object DNS.Server Status=true");
    EXPECT_EQ(watch.items.size(), 1U);
}

static request_t* prepare(const char* path, const char* function, const char* name = nullptr, const char* text = "") {
    request_t* request = request_create_executeFunction(path, function, REQUEST_FUNCTION_ASYNCHRONOUS);
    variant_t value;
    variant_initialize(&value);
    variant_setChar(&value, text);
    EXPECT_TRUE(!name || request_addParameter(request, name, &value));
    variant_cleanup(&value);
    return request;
}

TEST(PlatformClient, CallsTheGatewaysFunctions) {
    static constexpr char KData[] = "NeMo.Intf.data";
    const auto bus = world::startPcbBus();
    const Client client;
    client.set(KData, "Flags", "up, cgnat");
    client.set("Simulation.Functions", "Failing", "broken closeQuery");
    struct Case {
        request_t* request;
        const char* result;
    };
    for (const Case& c : {
             Case{prepare(KData,   "hasFlag",        "flag",                                                  "cgnat"), "returns true"},
             Case{prepare(KData, "hasFlag",                 "flag",                                                            "cg"), "returns false"},
             Case{prepare(KData,         "hasFlag"),    "returns false"},
             Case{prepare(KData,   "openQuery"), "returns 1"                                     },
             Case{prepare(KData,   "closeQuery"),
                  "error the function failed: the function failed: NeMo.Intf.data.closeQuery"                                                },
             Case{prepare(KData,   "fly"),    "error unknown function: unknown function: NeMo.Intf.data.fly"               },
             Case{prepare("NeMo",   "fly"),           "error unknown function: unknown function: NeMo.fly"},
             Case{prepare("Nobody",  "fly"),          "error unknown object: unknown object: Nobody.fly"  },
    }) {
        Watch call(client, c.request);
        ASSERT_TRUE(client.loopUntil([&] { return !call.items.empty(); }));
        EXPECT_EQ(call.items[0], c.result);
    }
    for (int i = 2; i <= 10; ++i) {
        const Watch call(client, prepare(KData, "openQuery", "class", "other"));
        ASSERT_TRUE(client.loopUntil([&] { return !call.items.empty(); }));
        EXPECT_EQ(call.items[0], "returns " + std::to_string(i));
    }
    Watch query(client, "NeMo.Intf.data.Query.1");  // and not Query.10
    Watch custom(client, KDynDns, REQUEST_CUSTOM);
    client.set(KData, "Addresses", "192.0.2.1 2001:db8::1");
    const Watch call(client, prepare("Simulation.Functions", "notify", "object", KDynDns));
    ASSERT_TRUE(client.loopUntil([&] { return !custom.items.empty(); }));
    ASSERT_EQ(query.items.size(), 2U);
    EXPECT_EQ(query.items[1], "1 NeMo.Intf.data.Query.1 ResultString  192.0.2.1 2001:db8::1");
    EXPECT_EQ(custom.items, std::vector<std::string>{"100 OrvoService.DynDNS "});

    client.set("Simulation.Functions", "Failing", "");
    Watch closing(client, prepare(KData, "closeQuery"));
    ASSERT_TRUE(client.loopUntil([&] { return !closing.items.empty(); }));
    EXPECT_EQ(closing.items[0], "returns (none)");
    EXPECT_EQ(client.get("NeMo.Intf.data.Query.1", "ResultString"), "error: unknown object");

    client.set("Simulation.Functions", "Delay", "50");
    const Watch slow(client, prepare(KData, "hasFlag"));
    client.set("Simulation.Functions", "Delay", "0");
    const Watch quick(client, prepare(KData, "hasFlag"));
    ASSERT_TRUE(client.loopUntil([&] { return !quick.items.empty(); }));
    EXPECT_FALSE(slow.items.empty()) << "no call overtakes another";
}

TEST(PlatformClient, TheGatewayClientConnectsWhileItIsToldTo) {
    const auto bus = world::startPcbBus();
    const Client client;
    client.set("Simulation.GatewayClient", "ConnectDelay", "1");
    Watch watch(client, "OrvoService.GatewayClient");
    client.set("OrvoService.GatewayClient", "ConnectionMode", "on");
    ASSERT_TRUE(client.loopUntil([&] { return watch.items.size() == 3; }));
    EXPECT_EQ(watch.items[2], "1 OrvoService.GatewayClient ConnectionStatus false true");
    client.set("OrvoService.GatewayClient", "ConnectionMode", "ondemand");
    EXPECT_EQ(client.get("OrvoService.GatewayClient", "ConnectionStatus"), "false");
    client.set("Simulation.GatewayClient", "Connects", "false");
    client.set("OrvoService.GatewayClient", "ConnectionMode", "on");
    EXPECT_EQ(client.get("OrvoService.GatewayClient", "ConnectionStatus"), "false");
    EXPECT_NE(bus->output().find("pcb-bus: ConnectionStatus true\npcb-bus: ConnectionStatus false\n"),
              std::string::npos);
}
