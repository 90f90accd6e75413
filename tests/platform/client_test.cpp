// The data-model client library on a running bus: values, watches, functions.
#include "tests/platform/client.h"

TEST_F(Platform, SetsAndGetsEveryValueByteForByte) {
    const std::string longest(size_t{1024} * 1024, '\x01');  // six bytes each on the way
    for (const std::string& value : {std::string(), everyByte(), longest}) {
        ASSERT_EQ(client.set(KDynDns, "HostName", value), "done");
        ASSERT_TRUE(client.get(KDynDns, "HostName") == value) << value.size();
    }
    EXPECT_EQ(client.set(KDynDns, "HostName", longest + "x"), "the value is longer than 1 MiB");
    EXPECT_TRUE(client.get(KDynDns, "HostName") == longest);
}

TEST_F(Platform, SaysWhyAValueCannotBeSetAndKeepsTheOldOne) {
    const Client platform("/var/run/pcb_sys", true);
    EXPECT_EQ(client.set(KDynDns, "Enable", "1"), "done");
    EXPECT_EQ(client.set(KDynDns, "Enable", "yes"), "the value does not fit the type");
    EXPECT_EQ(client.set(nullptr, "Enable", "true"), "invalid argument");
    EXPECT_EQ(platform.set("DNS.Server", "Status", "0"), "done");
    EXPECT_EQ(client.set("DNS.Server", "Status", "1"), "the parameter is read-only");
    EXPECT_EQ(client.get(KDynDns, "Enable") + client.get("DNS.Server", "Status"), "10");
}

TEST_F(Platform, DeliversTheObjectOnceThenEachChangeInOrder) {
    const Client other;
    Watch first(client, KDynDns), tree(client, "OrvoService"), missing(client, "OrvoService.Nothing");
    Watch onlyChanges(client, "OrvoService", REQUEST_NOTIFICATIONS);
    EXPECT_EQ(missing.await(1), Items{"error unknown object: OrvoService.Nothing"});
    for (const char* value : {"true", "true", "1"}) {
        other.set(KDynDns, "Enable", value);
    }
    client.set("OrvoService.Voltaro", "Enable", "true");  // the client's own change, kept while its answer is awaited
    EXPECT_EQ(tree.items.size(), 1U) << "nothing is delivered outside the event loop";
    Items changes = {"1 OrvoService.DynDNS Enable false true", "1 OrvoService.DynDNS Enable true 1",
                     "1 OrvoService.Voltaro Enable false true"};
    EXPECT_EQ(onlyChanges.await(3), changes);
    EXPECT_EQ(first.items, (Items{"object OrvoService.DynDNS Enable=false HostName= SyncNotFinished=false", changes[0],
                                  changes[1]}));
    first.end();
    changes.insert(changes.begin(), "object OrvoService");
    EXPECT_EQ(tree.items, changes);
    other.set(KDynDns, "Enable", "false");
    EXPECT_EQ(tree.await(5)[4], "1 OrvoService.DynDNS Enable 1 false");
    EXPECT_EQ(first.items.size(), 3U) << "nothing arrives for an ended request";
}

TEST_F(Platform, AHandlerMayDoEverything) {
    Watch watch(client, KDynDns);
    std::unique_ptr<Watch> later;
    watch.onItem = [&] {
        later = std::make_unique<Watch>(client, "DNS.Server");
        EXPECT_EQ(client.set(KDynDns, "HostName", "from inside"), "done");
        watch.end();
    };
    ASSERT_TRUE(client.loopUntil([&] { return later && !later->items.empty(); }));
    EXPECT_EQ(later->items[0], "object DNS.Server Status=true");
    EXPECT_EQ(watch.items.size(), 1U);
}

TEST_F(Platform, FunctionsAnswerInOrderAndChangeTheModel) {
    static constexpr char KData[] = "NeMo.Intf.data", KQuery[] = "NeMo.Intf.data.Query.1";
    client.set("Simulation.Functions", "Delay", "50");
    const Watch slow(client, call(KData, "openQuery"));
    client.set("Simulation.Functions", "Delay", "0");
    for (int number = 2; number <= 10; ++number) {
        EXPECT_EQ(Watch(client, call(KData, "openQuery")).await(1), Items{"returns " + std::to_string(number)});
    }
    EXPECT_EQ(slow.items, Items{"returns 1"}) << "no call overtakes another";
    const Watch query(client, KQuery);
    client.set(KData, "Addresses", "192.0.2.1 2001:db8::1");
    client.set(KData, "Addresses", "none");
    EXPECT_EQ(query.await(3)[1], "1 NeMo.Intf.data.Query.1 ResultString  192.0.2.1 2001:db8::1");
    EXPECT_EQ(query.items[2], "1 NeMo.Intf.data.Query.1 ResultString 192.0.2.1 2001:db8::1 none") << "not Query.10";
    EXPECT_EQ(Watch(client, call(KData, "closeQuery")).await(1), Items{"returns (none)"});
    EXPECT_EQ(client.get(KQuery, "ResultString"), "error: unknown object");
}
