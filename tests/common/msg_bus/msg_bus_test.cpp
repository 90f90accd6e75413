#include "tests/common/msg_bus/bus_fixture.h"

TEST_F(MessageBus, HandsFirstArgumentsToTheHandlerAndRepliesToTheClient) {
    logToFile(LEVEL_DEBUG);
    bus = newObject(KName, "/test", {"Echo", "Two"});
    const std::string rule = "\nDEBUG Adding listener for type='signal',interface='com.corvane.test',member=";
    EXPECT_EQ(newLog(), rule + "'Echo'" + rule + "'Two'");
    struct Case {
        const char *interface, *member, *arguments;
        std::string seen, reply, log;
    };
    for (const Case& c : {
             Case{KName,   "Echo", "t",  "Echo true",     "true",  ""                                             },
             Case{KName,   "Echo", "f",  "Echo false",    "false", ""                                             },
             Case{KName,   "Echo", "si", "Echo " + KText, KText,   ""                                             },
             Case{KName,   "Echo", "i",  "Echo -",        "",      "\n WARN unsupported type in dbus message: 105"},
             Case{nullptr, "Two",  "",   "Two -",         "true",  "\nDEBUG cannot get dbus message contents"     },
    }) {
        SCOPED_TRACE(c.seen);
        EXPECT_EQ(call(newCall("/test", c.interface, c.member, c.arguments)), c.reply);
        EXPECT_EQ(iSeen.back(), c.seen);
        EXPECT_EQ(iReplyResult, 1);
        EXPECT_EQ(newLog(), c.log);
    }
}

TEST_F(MessageBus, GettersSayWhatIsWrongWithAnArgument) {
    const std::string noSecond = "\n WARN No argument 2", noFlag = "\n WARN Wrong argument 1 type, required: boolean",
                      noFirst = "\n WARN Wrong argument 1 type, required: string",
                      wrongSecond = "\n WARN Wrong argument 2 type, required: string";
    struct Case {
        const char* arguments;
        std::string values, log;
    };
    for (const Case& c : {
             Case{"",   "7 - -",             "\n WARN No arguments\n WARN No arguments\n WARN No arguments"},
             Case{"t",  "1 - -",             noFirst + noSecond                                            },
             Case{"fs", "0 - " + KText,      noFirst                                                       },
             Case{"s",  "7 " + KText + " -", noFlag + noSecond                                             },
             Case{"si", "7 " + KText + " -", noFlag + wrongSecond                                          },
    }) {
        SCOPED_TRACE(c.arguments);
        const OwnedMessage message = newCall("/", KName, "M", c.arguments);
        int flag = 7;
        const int read = get_first_argument_bool_value(message.get(), &flag);
        const char* first = get_first_argument_string_value(message.get());
        const char* second = get_second_argument_string_value(message.get());
        EXPECT_EQ(read, flag != 7);
        EXPECT_EQ(std::to_string(flag) + " " + (first ? first : "-") + " " + (second ? second : "-"), c.values);
        EXPECT_EQ(newLog(), c.log);
    }
}

TEST_F(MessageBus, LeavesCallsThatNobodyListensForToTheLibrary) {
    bus = newObject(KName, "/test", {"Echo"});
    message_bus* other = newObject("com.corvane.other", "/other", {"Echo"});
    EXPECT_EQ(bus->watches, nullptr);  // the newer object serves the connection for both
    EXPECT_NE(other->watches, nullptr);
    EXPECT_EQ(call(newCall("/test", KName, "Echo")), "");
    EXPECT_EQ(call(newCall("/other", "com.corvane.other", "Echo")), "");
    message_bus_set_method_callback(bus, nullptr);
    EXPECT_EQ(call(newCall("/other", KName, "Echo")), "error " DBUS_ERROR_UNKNOWN_METHOD);
    EXPECT_EQ(call(newCall("/test", KName, "Unknown")), "error " DBUS_ERROR_UNKNOWN_METHOD);
    EXPECT_EQ(call(newCall("/test", KName, "Echo")), "error " DBUS_ERROR_UNKNOWN_METHOD);  // nobody to hand it to
    EXPECT_EQ(iSeen.size(), 2U);
    message_bus_free(&other);
}

TEST_F(MessageBus, SaysWhyANameCannotBeHad) {
    bus = newObject(KName, nullptr);
    EXPECT_EQ(message_bus_request_name(bus, KName), 1);  // it is ours already
    for (const std::string name : {"org.freedesktop.DBus", "no name", "\xff"}) {
        EXPECT_EQ(message_bus_request_name(bus, name.c_str()), 0);
        EXPECT_NE(world::readFile("/var/log/bus.log").find("request message bus name: " + name + ". Error:\n "),
                  std::string::npos);
    }
}

TEST_F(MessageBus, ReportsTheEndOfOutgoingCalls) {
    bus = newObject(dbus_bus_get_unique_name(client), nullptr);
    for (const std::string method : {"Text", "Flag", "Empty", "Fails"}) {
        EXPECT_EQ(message_bus_call_method(bus, "/peer", KName, method.c_str()), 1);
        EXPECT_TRUE(pumpUntil([&] { return !iSeen.empty(); }));
        EXPECT_EQ(iSeen, Texts{method == "Text" ? "Text " + KText : method + " -"});
        iSeen.clear();
    }
    EXPECT_EQ(message_bus_call_method(bus, "/peer", "malformed", "M"), 0);
    EXPECT_EQ(newLog(), "\n WARN failed to create");
    EXPECT_EQ(message_bus_call_method(bus, "/peer", KName, "Never"), 1);
    message_bus_free(&bus);  // the reply, an error once the client is gone, finds nobody
    bus = newObject("com.corvane.nobody", nullptr);
    EXPECT_EQ(message_bus_call_method(bus, "/peer", KName, "Last"), 1);
    dbus_connection_close(client);
    EXPECT_TRUE(pumpUntil([&] { return !iSeen.empty(); }));
    EXPECT_EQ(iSeen, Texts{"Last -"});
}

TEST_F(MessageBus, HearsSignalsAndRefusesMalformedOnes) {
    bus = newObject(KName, "/test");
    message_bus_set_signal_callback(bus, note);
    EXPECT_EQ(message_bus_add_signal_listener(bus, "Changed"), 1);
    EXPECT_EQ(message_bus_send_signal(bus, "/test", KName, "Other", "unheard"), 1);
    EXPECT_EQ(message_bus_send_signal(bus, "/test", KName, "Changed", KText.c_str()), 1);
    EXPECT_TRUE(pumpUntil([&] { return !iSeen.empty(); }));
    EXPECT_EQ(iSeen, Texts{"Changed " + KText});
    EXPECT_EQ(message_bus_send_signal(bus, "x", KName, "M", ""), 0);
    EXPECT_EQ(message_bus_send_signal(bus, "/", "x", "M", ""), 0);
    EXPECT_EQ(message_bus_send_signal(bus, "/", KName, "-", ""), 0);
    const std::string malformed = "\n WARN failed to create message signal";
    EXPECT_EQ(newLog(), malformed + malformed + malformed);
    EXPECT_EQ(message_bus_send_signal(bus, "/", KName, "M", "\xff"), 0);
    EXPECT_EQ(newLog(), "\n WARN Cannot append arg to signal - Out Of Memory!");
}
