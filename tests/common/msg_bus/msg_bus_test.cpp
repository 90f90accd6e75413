#include "tests/common/msg_bus/bus_fixture.h"

TEST_F(MessageBus, HandsFirstArgumentsToTheHandlerAndRepliesToTheClient) {
    bus = newObject(KName, "/test", {"Echo", "Two"});
    iLogSettings.level = LEVEL_DEBUG;
    struct Case {
        const char *interface, *method;
        world::BusArguments arguments;
        std::string seen, reply, log;
    };
    for (const Case& c : {
             Case{KName, "Echo", {true},     "Echo true",     "true",  ""                                             },
             Case{KName, "Echo", {false},    "Echo false",    "false", ""                                             },
             Case{KName, "Echo", {KText, 7}, "Echo " + KText, KText,   ""                                             },
             Case{KName, "Echo", {7},        "Echo -",        "Echo",  " WARN unsupported type in dbus message: 105\n"},
             Case{"",    "Two",  {},         "Two -",         "true",  "DEBUG cannot get dbus message contents\n"     },
    }) {
        EXPECT_EQ(call(newCall("/test", c.method, c.arguments, c.interface)), c.reply);
        EXPECT_EQ(iSeen.back(), c.seen);
        EXPECT_EQ(iReplyResult, 1);
        EXPECT_EQ(world::takeLog(), c.log);
    }
}

TEST_F(MessageBus, LeavesCallsThatNobodyListensForToTheLibrary) {
    bus = newObject(KName, "/test", {"Echo"});
    message_bus* other = newObject("com.corvane.other", "/other", {"Echo"});
    EXPECT_EQ(call(newCall("/test", "Echo")), "Echo");
    EXPECT_EQ(call(newCall("/other", "Echo", {}, "com.corvane.other")), "Echo");
    message_bus_set_method_callback(bus, nullptr);
    EXPECT_EQ(call(newCall("/other", "Echo")), DBUS_ERROR_UNKNOWN_METHOD);
    EXPECT_EQ(call(newCall("/test", "Unknown")), DBUS_ERROR_UNKNOWN_METHOD);
    EXPECT_EQ(call(newCall("/test", "Echo")), DBUS_ERROR_UNKNOWN_METHOD);  // nobody to hand it to
    EXPECT_EQ(iSeen.size(), 2U);
    message_bus_free(&other);
}

TEST_F(MessageBus, ReportsTheEndOfOutgoingCalls) {
    const auto expectNotes = [&](const char* method, const Texts& notes) {
        iSeen.clear();
        EXPECT_EQ(message_bus_call_method(bus, "/test", KName, method), 1);
        EXPECT_TRUE(pumpUntil([&] { return iSeen.size() == notes.size(); }));
        EXPECT_EQ(iSeen, notes);
    };
    bus = newObject(KName, "/test", {"Echo", "Two"});  // calls itself over the bus
    expectNotes("Echo", {"Echo -", "Echo Echo"});
    expectNotes("Two", {"Two -", "Two -"});  // no string
    expectNotes("Unknown", {"Unknown -"});
    EXPECT_EQ(message_bus_call_method(bus, "/test", KName, "Echo"), 1);
    message_bus_free(&bus);  // the reply finds nobody
    bus = newObject("com.corvane.nobody", nullptr);
    expectNotes("Last", {"Last -"});
}

TEST_F(MessageBus, HearsTheSignalsOfItsNameOnly) {
    bus = newObject(KName, "/test");
    message_bus_set_signal_callback(bus, note);
    EXPECT_EQ(message_bus_add_signal_listener(bus, "Changed"), 1);
    EXPECT_EQ(message_bus_send_signal(bus, "/test", KName, "Other", "unheard"), 1);
    EXPECT_EQ(message_bus_send_signal(bus, "/test", KName, "Changed", KText.c_str()), 1);
    EXPECT_TRUE(pumpUntil([&] { return !iSeen.empty(); }));
    EXPECT_EQ(iSeen, Texts{"Changed " + KText});
}

// Each would make libdbus end the process.
TEST_F(MessageBus, RefusesWhatIsMalformed) {
    bus = newObject(KName, "/test");
    for (const char* name : {"no'name", "\xff"}) {
        EXPECT_EQ(message_bus_add_signal_listener(bus, name), 0);
        EXPECT_EQ(world::takeLog().find(" WARN Failed to dbus_bus_add_match: Member name was not valid"), 0U);
        EXPECT_EQ(message_bus_call_method(bus, "/test", KName, name), 0);
        EXPECT_EQ(world::takeLog(), " WARN failed to create\n");
        EXPECT_EQ(message_bus_send_signal(bus, "/test", KName, name, ""), 0);
        EXPECT_EQ(world::takeLog(), " WARN failed to create message signal\n");
    }
    for (const std::string path : {"/test", "no path", "", "/\xff"}) {
        EXPECT_EQ(message_bus_new(base, "com.other", path.c_str()), nullptr);
        EXPECT_EQ(world::takeLog(), " WARN failed to register dbus object path: " + path + " (service com.other)\n");
    }
    const world::LogReader log(KLog);
    EXPECT_EQ(message_bus_send_signal(bus, "/test", KName, "M", "\xff"), 0);
    EXPECT_EQ(log.count(" WARN Cannot append arg to signal - Out Of Memory!"), 1U);
    for (const std::string name : {"org.freedesktop.DBus", "no name", "\xff"}) {
        EXPECT_EQ(message_bus_request_name(bus, name.c_str()), 0);
        EXPECT_EQ(log.count(" WARN failed to request message bus name: " + name + ". Error:"), 1U);
    }
}
