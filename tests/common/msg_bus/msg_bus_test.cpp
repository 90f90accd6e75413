#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "common/gate/gate.h"
#include "common/log/log.h"
#include "common/msg_bus/message_bus_internal.h"
#include "tests/world/world.h"

using Texts = std::vector<std::string>;

static const char KName[] = "com.corvane.test";
static const std::string KText = "n\xc3\xa4me \"1\"";
static const std::string KMebibyte(1024UL * 1024, 'x');

static Texts iSeen;  // what the objects' callbacks saw: the name, and the text or "-" for none
static int iReplyResult = -1;

static void note(message_bus*, const char* name, const char* text) {
    iSeen.push_back(std::string(name) + " " + (text ? text : "-"));
}

// Replies as the method's name says; otherwise with the first argument.
static void answer(message_bus* bus, const char* name, const char* first, DBusMessage* call) {
    static const std::map<std::string, std::string> KReplies = {
        {"Garbled", "not \xff UTF-8"},
        {"Longest", KMebibyte       },
        {"TooLong", KMebibyte + "x" }
    };
    note(bus, name, first);
    const auto found = KReplies.find(name);
    const std::string text = found == KReplies.end() ? textOrEmpty(first) : found->second;
    if (strcmp(name, "Silent") == 0) return message_bus_send_no_reply(bus, call);
    iReplyResult = strcmp(name, "Two") == 0 ? message_bus_send_bool_reply(bus, call, 2)
                                            : message_bus_send_string_reply(bus, call, text.c_str());
}

// The log's messages with their level since the last call, each behind a newline.
static std::string newLog() {
    static size_t position = 0;
    const std::string all = world::readFile("/var/log/bus.log");
    std::string lines;
    for (size_t end; (end = all.find('\n', position)) != std::string::npos; position = end + 1) {
        if (end > position) lines += "\n" + all.substr(position + 24, end - position - 24);
    }
    return lines;
}

static void logToFile(int level) {
    const LogLock lock;
    iLogSettings.level = level;
    iLogSettings.file = true;
    strcpy(iLogSettings.filename, "/var/log/bus.log");
}

template <class Value>
static void append(DBusMessage* message, int type, Value value) {
    dbus_message_append_args(message, type, &value, DBUS_TYPE_INVALID);
}

// A method call with one argument for each letter: s a string, t true, f false, i a number.
static OwnedMessage newCall(const char* path, const char* interface, const char* member, const char* arguments = "",
                            const char* destination = KName) {
    OwnedMessage call(dbus_message_new_method_call(destination, path, interface, member));
    for (const char* c = arguments; *c; ++c) {
        if (*c == 's') append(call.get(), DBUS_TYPE_STRING, KText.c_str());
        if (*c == 'i') append(call.get(), DBUS_TYPE_INT32, 7);
        if (*c == 't' || *c == 'f') append<dbus_bool_t>(call.get(), DBUS_TYPE_BOOLEAN, *c == 't');
    }
    return call;
}

// "TEXT" for a string, "true" or "false", "nothing", or "error NAME".
static std::string describe(DBusMessage* message) {
    if (const char* error = dbus_message_get_error_name(message)) return std::string("error ") + error;
    DBusMessageIter arguments;
    if (!dbus_message_iter_init(message, &arguments)) return "nothing";
    DBusBasicValue value;
    dbus_message_iter_get_basic(&arguments, &value);
    if (dbus_message_iter_get_arg_type(&arguments) == DBUS_TYPE_STRING) return value.str;
    return value.bool_val == 1 ? "true" : "false";
}

// A real bus, the event base that serves the objects under test, and a client with a connection of its own.
struct MessageBus : testing::Test {
    std::unique_ptr<world::Process> daemon = world::startDbusDaemon();
    event_base* base = event_base_new();
    DBusConnection* client = nullptr;
    message_bus* bus = nullptr;
    Texts atClient;  // descriptions of all that came to the client

    MessageBus() {
        logToFile(LEVEL_WARN);
        EXPECT_EQ(message_bus_set_dbus_socket("unix:path=/var/run/dbus/system_bus_socket"), 0);
        client = dbus_bus_get_private(DBUS_BUS_SESSION, nullptr);
        dbus_connection_set_exit_on_disconnect(client, FALSE);
        dbus_connection_add_filter(client, receiveAtClient, this, nullptr);
    }

    ~MessageBus() override {
        message_bus_free(&bus);
        EXPECT_EQ(bus, nullptr);
        message_bus_free(&bus);
        event_base_free(base);
        dbus_connection_close(client);
        dbus_connection_unref(client);
    }

    // The client as the peer of outgoing calls; those of a method "Never" are not answered.
    static DBusHandlerResult receiveAtClient(DBusConnection* connection, DBusMessage* message, void* data) {
        static_cast<MessageBus*>(data)->atClient.push_back(describe(message));
        if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL) return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
        const std::string member = dbus_message_get_member(message);
        OwnedMessage reply(dbus_message_new_method_return(message));
        if (member == "Text") append(reply.get(), DBUS_TYPE_STRING, KText.c_str());
        if (member == "Flag") append<dbus_bool_t>(reply.get(), DBUS_TYPE_BOOLEAN, TRUE);
        if (member == "Fails") reply.reset(dbus_message_new_error(message, DBUS_ERROR_FAILED, "no"));
        if (member != "Never") dbus_connection_send(connection, reply.get(), nullptr);
        return DBUS_HANDLER_RESULT_HANDLED;
    }

    message_bus* newObject(const char* name, const char* path, const Texts& methods = {}) {
        message_bus* made = message_bus_new(base, name, path);
        message_bus_set_method_callback(made, answer);
        message_bus_set_method_call_callback(made, note);
        EXPECT_EQ(message_bus_request_name(made, KName), 1);
        for (const std::string& method : methods) {
            EXPECT_EQ(message_bus_add_method_listener(made, method.c_str()), 1);
        }
        return made;
    }

    [[nodiscard]] bool pumpUntil(const std::function<bool()>& condition) {
        return world::waitFor([&] {
            event_base_loop(base, EVLOOP_NONBLOCK);
            dbus_connection_read_write(client, 0);
            while (dbus_connection_dispatch(client) == DBUS_DISPATCH_DATA_REMAINS) {
            }
            return condition();
        });
    }

    static DBusPendingCall* send(DBusConnection* connection, const OwnedMessage& message, int timeout = 60000) {
        DBusPendingCall* pending = nullptr;
        dbus_connection_send_with_reply(connection, message.get(), &pending, timeout);
        return pending;
    }

    std::string replyTo(DBusPendingCall* pending) {
        EXPECT_TRUE(pumpUntil([&] { return dbus_pending_call_get_completed(pending); }));
        const OwnedMessage reply(dbus_pending_call_steal_reply(pending));
        dbus_pending_call_unref(pending);
        return reply ? describe(reply.get()) : "no reply";
    }

    std::string call(const OwnedMessage& message) { return replyTo(send(client, message)); }

    // Calls the bus itself: when it answers, it has handed over all that the client sent before.
    void callBus(const char* method) const {
        const OwnedMessage message = newCall("/", DBUS_INTERFACE_DBUS, method, "", DBUS_SERVICE_DBUS);
        const OwnedMessage reply(dbus_connection_send_with_reply_and_block(client, message.get(), 60000, nullptr));
        EXPECT_TRUE(reply);
    }

    // The bus stands still for a moment.
    void putBusToSleep() const {
        static pid_t sleeper;
        sleeper = daemon->pid();
        daemon->send(SIGSTOP);
        siginfo_t stopped;
        waitid(P_PID, static_cast<id_t>(sleeper), &stopped, WSTOPPED);
        signal(SIGALRM, [](int) { kill(sleeper, SIGCONT); });
        ualarm(50000, 0);
    }
};

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
    enum Getter { FLAG, FIRST, SECOND };
    struct Case {
        Getter getter;
        const char* arguments;
        std::string value, log;
    };
    for (const Case& c : {
             Case{FLAG,   "",   "7",   "\n WARN No arguments"                            },
             Case{FLAG,   "st", "7",   "\n WARN Wrong argument 1 type, required: boolean"},
             Case{FLAG,   "t",  "1",   ""                                                },
             Case{FLAG,   "f",  "0",   ""                                                },
             Case{FIRST,  "",   "-",   "\n WARN No arguments"                            },
             Case{FIRST,  "ts", "-",   "\n WARN Wrong argument 1 type, required: string" },
             Case{FIRST,  "s",  KText, ""                                                },
             Case{SECOND, "",   "-",   "\n WARN No arguments"                            },
             Case{SECOND, "s",  "-",   "\n WARN No argument 2"                           },
             Case{SECOND, "st", "-",   "\n WARN Wrong argument 2 type, required: string" },
             Case{SECOND, "is", KText, ""                                                },
    }) {
        SCOPED_TRACE(std::to_string(c.getter) + c.arguments);
        const OwnedMessage message = newCall("/", KName, "M", c.arguments);
        if (c.getter == FLAG) {
            int flag = 7;
            const int read = get_first_argument_bool_value(message.get(), &flag);
            EXPECT_EQ(read, flag != 7);
            EXPECT_EQ(std::to_string(flag), c.value);
        } else {
            const char* text = c.getter == FIRST ? get_first_argument_string_value(message.get())
                                                 : get_second_argument_string_value(message.get());
            EXPECT_EQ(text ? text : "-", c.value);
        }
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
    for (const auto& [path, member] : {
             std::pair("/other", "Echo"), {"/test", "Unknown"},
               {"/test", "Echo"   }
    }) {
        EXPECT_EQ(call(newCall(path, KName, member)), "error " DBUS_ERROR_UNKNOWN_METHOD);
    }
    EXPECT_EQ(iSeen.size(), 2U);
    message_bus_free(&other);
}

TEST_F(MessageBus, AnswersEveryCallOfABurstAlsoWhenTheBusIsSlowToRead) {
    bus = newObject(KName, "/test");
    int socket = -1;
    dbus_connection_get_socket(bus->connection.get(), &socket);
    const int fewReplies = 1;
    setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &fewReplies, sizeof fewReplies);
    for (int burst = 0; burst < 6; ++burst) {
        std::vector<DBusPendingCall*> calls(100);
        for (DBusPendingCall*& pending : calls) {
            pending = send(client, newCall("/test", KName, "Unknown"));
        }
        callBus("GetId");
        putBusToSleep();
        for (DBusPendingCall* pending : calls) {
            ASSERT_EQ(replyTo(pending), "error " DBUS_ERROR_UNKNOWN_METHOD);
        }
    }
}

TEST_F(MessageBus, AReplyThatCannotBeSentIsAnErrorForTheClient) {
    bus = newObject(KName, "/test", {"Garbled", "TooLong", "Longest", "Silent", "Echo"});
    for (const char* method : {"Garbled", "TooLong"}) {
        EXPECT_EQ(call(newCall("/test", KName, method)), "error " DBUS_ERROR_FAILED);
        EXPECT_EQ(iReplyResult, 0);
        EXPECT_EQ(newLog(), "\n WARN failed to send DBus method response");
    }
    EXPECT_EQ(call(newCall("/test", KName, "Longest")).size(), KMebibyte.size());

    // Neither of the first two gets anything: the answer to the call behind them would come later.
    atClient.clear();
    iReplyResult = -1;
    const OwnedMessage noReply = newCall("/test", KName, "Echo");
    dbus_message_set_no_reply(noReply.get(), TRUE);
    dbus_connection_send(client, noReply.get(), nullptr);
    dbus_connection_send(client, newCall("/test", KName, "Silent").get(), nullptr);
    EXPECT_TRUE(pumpUntil([&] { return iSeen.back() == "Silent -"; }));
    EXPECT_EQ(iReplyResult, 1);
    EXPECT_EQ(call(newCall("/test", KName, "Echo", "t")), "true");
    EXPECT_EQ(atClient, Texts{});
    EXPECT_EQ(daemon->output().find("Rejected send message"), std::string::npos);  // a reply that nobody asked for
}

TEST_F(MessageBus, AFailedOrFreedObjectLeavesNothingBehind) {
    bus = newObject(KName, "/test");
    for (const std::string path : {"/test", "no path", "", "/\xff"}) {
        EXPECT_EQ(message_bus_new(base, "com.other", path.c_str()), nullptr) << path;
        EXPECT_EQ(newLog(), "\n WARN failed to register dbus object path: " + path + " (service com.other)");
    }
    for (int i = 0; i < 3; ++i) {
        DBusPendingCall* meanwhile = send(client, newCall("/test", KName, "Two"));
        callBus("GetId");
        EXPECT_EQ(message_bus_request_name(bus, KName), 1);  // reads the call, which nobody handles yet
        message_bus_free(&bus);
        bus = newObject(KName, "/test", {"Two"});
        EXPECT_EQ(replyTo(meanwhile), "true");
    }
    for (const char* name : {"no'name", "\xff"}) {
        EXPECT_EQ(message_bus_add_signal_listener(bus, name), 0);
        EXPECT_EQ(newLog().find("\n WARN Failed to dbus_bus_add_match: Member name was not valid"), 0U);
    }
    EXPECT_EQ(bus->signalListeners, nullptr);
}

TEST_F(MessageBus, SaysWhyANameCannotBeHad) {
    bus = newObject(KName, nullptr);
    EXPECT_EQ(message_bus_request_name(bus, KName), 1);  // it is ours already
    std::string configuration = world::readFile("/var/run/dbus/bus.conf");
    configuration.insert(configuration.find("</policy>"), R"(<deny own="com.corvane.refused"/>)");
    world::writeFile("/var/run/dbus/bus.conf", configuration);
    callBus("ReloadConfig");
    for (const std::string name : {"com.corvane.refused", "no name", "\xff"}) {
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
    for (const auto& [path, interface, name] : {
             std::tuple("x", KName, "M"), {"/", "x",   "M"},
                {"/", KName, "-"}
    }) {
        EXPECT_EQ(message_bus_send_signal(bus, path, interface, name, ""), 0);
        EXPECT_EQ(newLog(), "\n WARN failed to create message signal");
    }
    EXPECT_EQ(message_bus_send_signal(bus, "/", KName, "M", "\xff"), 0);
    EXPECT_EQ(newLog(), "\n WARN Cannot append arg to signal - Out Of Memory!");
}

TEST_F(MessageBus, ATimeoutRunsOutOnce) {
    logToFile(LEVEL_DEBUG);
    const char* peer = dbus_bus_get_unique_name(client);
    bus = newObject(peer, nullptr);
    const OwnedMessage never = newCall("/", KName, "Never", "", peer);
    EXPECT_EQ(replyTo(send(bus->connection.get(), never, 50)), "error " DBUS_ERROR_NO_REPLY);
    EXPECT_EQ(newLog(), "\nDEBUG Timeout");
    EXPECT_EQ(bus->timeouts, nullptr);
}

TEST_F(MessageBus, ALostBusEndsTheProcess) {
    const auto loseBus = [&] {
        bus = newObject(KName, "/test");
        daemon->send(SIGKILL);
        event_base_dispatch(base);
    };
    EXPECT_EXIT(loseBus(), testing::ExitedWithCode(1), "");
    EXPECT_EQ(newLog(), "\n WARN got signal Disconnected, freeing message_bus");
}

TEST_F(MessageBus, AReplyThatWaitsForTheBusDoesNotHoldUpTheEnd) {
    const auto replyAndEnd = [&] {
        alarm(60);
        bus = newObject(KName, "/test");
        OwnedMessage call = newCall("/test", KName, "Longest");
        dbus_message_set_serial(call.get(), 1);
        daemon->send(SIGSTOP);
        const InsideGate inside;
        std::thread([] {
            closeGateForever();
            _exit(3);
        }).detach();
        answer(bus, "Longest", nullptr, call.release());
    };
    EXPECT_EXIT(replyAndEnd(), testing::ExitedWithCode(3), "");
}

struct WithoutStarter {
    WithoutStarter() { setenv("DBUS_STARTER_ADDRESS", "unix:path=/nowhere", 1); }
};
struct MessageBusWithoutStarter : WithoutStarter, MessageBus {};

TEST_F(MessageBusWithoutStarter, ReportsNoReply) {
    bus = newObject(dbus_bus_get_unique_name(client), nullptr);
    EXPECT_EQ(message_bus_call_method(bus, "/peer", KName, "Text"), 1);
    EXPECT_TRUE(pumpUntil([&] { return !iSeen.empty(); }));
    EXPECT_EQ(iSeen, Texts{"Text -"});
    EXPECT_EQ(newLog().find("\n WARN Failed to open connection to activating message bus: Failed to connect"), 0U);
}

TEST(MessageBusAlone, CannotBeMadeBeforeItsBusRuns) {
    logToFile(LEVEL_WARN);
    EXPECT_EQ(message_bus_set_dbus_socket("unix:path=/var/run/dbus/system_bus_socket"), 0);
    event_base* base = event_base_new();
    EXPECT_EQ(message_bus_new(base, KName, "/test"), nullptr);
    EXPECT_EQ(newLog().find("\n WARN Failed to open connection to activating message bus: Failed to connect"), 0U);
    const auto daemon = world::startDbusDaemon();
    message_bus* bus = message_bus_new(base, KName, "/test");
    EXPECT_NE(bus, nullptr);
    message_bus_free(&bus);
    event_base_free(base);
}
