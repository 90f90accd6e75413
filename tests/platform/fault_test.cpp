// What goes wrong between a client and the bus: a bus that hangs, dies or lies, and clients that harm others.
#include <chrono>

#include "tests/platform/client.h"

using namespace std::string_literals;

TEST_F(Platform, AHungBusHoldsNobodyAndItsLateAnswerIsDropped) {
    Watch watch(client, KDynDns);
    watch.await(1);
    bus->send(SIGSTOP);
    // 1.5 MiB on the way: the socket takes only a part of it, so that writing hangs too.
    const std::string late(size_t{1024} * 256, '\x01');
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(client.set(KDynDns, "HostName", late), "no answer in time");
    delete new Watch(client, "DNS.Server");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(9)) << "destroying waits, too";
    const Watch sentMeanwhile(client, "OrvoService");
    bus->send(SIGCONT);
    EXPECT_TRUE(client.get(KDynDns, "HostName") == late);
    sentMeanwhile.await(1);
    EXPECT_TRUE(watch.await(2)[1] == "1 OrvoService.DynDNS HostName  " + late);
}

TEST_F(Platform, ALostBusEndsTheLoopUntilItsClientIsDestroyed) {
    auto loser = std::make_unique<Client>();
    const Watch watch(*loser, KDynDns);
    bus->send(SIGKILL);
    EXPECT_FALSE(loser->loopUntil([] { return false; }));
    connection_setTerminated(false);
    EXPECT_TRUE(connection_isTerminated());
    EXPECT_EQ(loser->get(KDynDns, "Enable"), "error: connection lost");
    loser.reset();  // before the watch, whose request stays its owner's
    EXPECT_FALSE(connection_isTerminated());
}

TEST(PlatformAlone, ALyingBusFailsTheOperation) {
    for (const char* answer :
         {"{\"id\":2}\n", "{\"id\":2,\"value\":[]}\n", "{\"id\":2,\"value\":\n", "{\"id\":2,\"error\":1e99}\n"}) {
        EXPECT_EQ(askLiar(answer), "error: answer cannot be read") << answer;
    }
    EXPECT_EQ(askLiar("{\"id\":2,\"error\":131073}\n"), "error: unknown object");
    EXPECT_EQ(askLiar(""), "error: connection lost");
}

TEST_F(Platform, BadFramesAreRefusedOrCloseTheirConnectionAndHarmNoOther) {
    const Watch watch(client, KDynDns);
    watch.await(1);
    const auto answerTo = [](const std::string& frame) {
        const RawConnection raw;
        (void)raw.send(frame + "\n");
        return raw.receiveUntil("\n");
    };
    const std::string tooLarge(16 * 1024 * 1024 + 100, ' '), nested(2000, '[');
    const std::string watchDns = R"({"id":1,"op":"subscribe","path":"DNS",)";
    const std::string set = R"({"id":1,"op":"set","path":"OrvoService.DynDNS","parameter":"HostName","value":)";
    for (const std::string& frame :
         {""s, "[]"s, R"({"op":"x"})"s, R"({"id":1})"s, R"({"id":1.5,"op":"x"})"s, R"({"id":2e15,"op":"x"})"s,
          R"({"id":1,"op":"x"} {})"s, "{\"id\":1,\"op\":\"x\"\0}"s, set + R"("a\\\u0000b"})", nested, tooLarge}) {
        EXPECT_EQ(answerTo(frame), "") << frame.substr(0, 99);
    }
    const std::string callFlag = R"({"id":1,"op":"call","path":"NeMo.Intf.data","function":"hasFlag","arguments":)";
    for (const std::string& frame : {R"({"id":1,"op":"x"})"s, set + "7}", callFlag + "[]}", callFlag + R"({"flag":7}})",
                                     watchDns + R"("depth":1.5})", watchDns + R"("flags":1e10})"}) {
        EXPECT_NE(answerTo(frame).find("malformed request"), std::string::npos) << frame;
    }
    EXPECT_EQ(answerTo(set + R"("a\\u0000b"})"), "{\"id\":1}\n");
    EXPECT_NE(bus->output().find("dropped: frame of more than 16 MiB"), std::string::npos);
    // Clients that vanish in the middle: of a frame, of an exchange, of a slow call.
    client.set("Simulation.Functions", "Delay", "20");
    for (const char* frame : {R"({"id":1,"op":"ge)", "{\"id\":1,\"op\":\"object\",\"path\":\"\"}\n",
                              "{\"id\":1,\"op\":\"call\",\"path\":\"NeMo.Intf.data\",\"function\":\"hasFlag\"}\n"}) {
        ASSERT_TRUE(RawConnection().send(frame));
    }
    EXPECT_EQ(Watch(client, call("NeMo.Intf.data", "hasFlag")).await(1), Items{"returns false"});
    client.set(KDynDns, "HostName", "alive");
    EXPECT_EQ(watch.await(3)[2], "1 OrvoService.DynDNS HostName a\\u0000b alive");
}

TEST_F(Platform, AReaderThatDoesNotReadIsDropped) {
    const RawConnection raw;
    ASSERT_TRUE(raw.send("{\"id\":1,\"op\":\"subscribe\",\"path\":\"OrvoService\",\"depth\":-1,\"flags\":1024}\n"));
    ASSERT_EQ(raw.receiveUntil("\n"), "{\"id\":1}\n");
    const std::string value(1024 * 1024 - 1, 'x');
    int sets = 0;
    for (; sets < 40 && bus->output().find("it does not read, 64 MiB wait") == std::string::npos; ++sets) {
        ASSERT_EQ(client.set(KDynDns, "HostName", value + std::to_string(sets % 10)), "done");
    }
    EXPECT_TRUE(sets >= 32 && sets < 40) << sets << ": 64 MiB must fit, and no more";
    EXPECT_EQ(client.set(KDynDns, "HostName", "alive"), "done");
}

TEST_F(Platform, TheBusRemovesAStaleSocketAndEndsCleanly) {
    bus->send(SIGKILL);
    bus->wait();
    const std::string definition = ORSM_SOURCE_FOLDER "/platform/bus/gateway.odl";
    world::Process next({world::binary("pcb-bus"), "--socket", "/var/run/pcb_sys", "--definition", definition});
    ASSERT_TRUE(world::waitFor([&] { return next.output() == "pcb-bus: listening on /var/run/pcb_sys\n"; }));
    next.send(SIGTERM);
    EXPECT_EQ(next.wait(), 0);
    EXPECT_NE(access("/var/run/pcb_sys", F_OK), 0);
}
