// The stand-in for the platform where it promises more than a platform does, and pcb-ctl.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>

#include "tests/platform/client.h"
#include "tests/world/wrap.h"

using namespace std::string_literals;

static int iRefusedSends = 0;
WRAP(ssize_t, send, int socket, const void* bytes, size_t size, int flags) {
    if (iRefusedSends == 0) return __real_send(socket, bytes, size, flags);
    --iRefusedSends;
    errno = ENOMEM;
    return -1;
}

using Items = std::vector<std::string>;

static bool iReceiveFails = false;
WRAP(ssize_t, recv, int socket, void* bytes, size_t size, int flags) {
    if (!iReceiveFails) return __real_recv(socket, bytes, size, flags);
    iReceiveFails = false;
    errno = ECONNRESET;
    return -1;
}

// A request for an object that writes down what arrives for it, one text an item.
struct Watch {
    const Client& client;
    request_t* request;
    Items items;

    Watch(const Client& sender, const char* path, uint32_t flags = REQUEST_WATCH)
        : client(sender), request(request_create_getObject(path, -1, flags)) {
        byRequest[request] = this;
        request_setReplyItemHandler(request, takeItem);
        EXPECT_TRUE(pcb_sendRequest(client.pcb, client.peer, request));
    }
    ~Watch() { request_destroy(request); }
    // Runs the client's event loop until so many items are there.
    const Items& await(size_t count) const {
        EXPECT_TRUE(client.loopUntil([&] { return items.size() >= count; }));
        return items;
    }

  private:
    static inline auto& byRequest = *new std::map<request_t*, Watch*>;

    static int takeItem(request_t* request, reply_item_t* item) {
        std::string text = std::string("error ") + reply_item_errorDescription(item);
        if (object_t* object = reply_item_object(item)) {
            text = "object " + take(object_pathChar(object, 0));
            for (parameter_t* each = object_firstParameter(object); each; each = object_nextParameter(each)) {
                text += " "s + parameter_name(each) + "=" + take(variant_char(parameter_getValue(each)));
            }
        } else if (notification_t* notification = reply_item_notification(item)) {
            text = std::to_string(notification_type(notification)) + " " + notification_objectPath(notification);
            notification_parameter_t* each = notification_firstParameter(notification);
            for (; each; each = notification_nextParameter(each)) {
                text += " "s + notification_parameter_value(each);
            }
        }
        byRequest.at(request)->items.push_back(text);
        return 1;
    }
};

TEST_F(Platform, KeepsEveryValueByteForByteAndRefusesWhatDoesNotFit) {
    const Client platform("/var/run/pcb_sys", true);
    const std::string longest(size_t{1024} * 1024, '\x01');  // six bytes each on the way
    for (const std::string& value : {""s, everyByte(), longest}) {
        ASSERT_EQ(client.set(KDynDns, "HostName", value), "done");
        ASSERT_TRUE(client.get(KDynDns, "HostName") == value) << value.size();
    }
    EXPECT_EQ(client.set(KDynDns, "HostName", longest + "x"), "the value is longer than 1 MiB");
    EXPECT_TRUE(client.get(KDynDns, "HostName") == longest);
    EXPECT_EQ(client.set(KDynDns, "Enable", "yes"), "the value does not fit the type");
    EXPECT_EQ(platform.set("DNS.Server", "Status", "0"), "done");
    EXPECT_EQ(client.set("DNS.Server", "Status", "1"), "the parameter is read-only");
    EXPECT_EQ(client.get(KDynDns, "Enable") + client.get("DNS.Server", "Status"), "false0");
}

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

TEST_F(Platform, ALostBusEndsEveryLoopUntilItsClientIsDestroyed) {
    auto loser = std::make_unique<Client>();
    const Watch watch(*loser, KDynDns);
    iReceiveFails = true;
    EXPECT_EQ(loser->get(KDynDns, "Enable"), "error: connection lost");
    pcb_error = 0;
    EXPECT_FALSE(client.loopUntil([] { return false; }));
    EXPECT_STREQ(error_string(pcb_error), "connection lost") << "it ended without a word";
    EXPECT_FALSE(Client().loopUntil([] { return false; }));
    connection_setTerminated(false);
    EXPECT_TRUE(connection_isTerminated());
    loser.reset();  // before the watch, whose request stays its owner's
    EXPECT_FALSE(connection_isTerminated());
}

TEST_F(Platform, BadFramesAreRefusedOrCloseTheirConnectionAndHarmNoOther) {
    const Watch watch(client, KDynDns);
    watch.await(1);
    const std::string set = R"({"id":1,"op":"set","path":"OrvoService.DynDNS","parameter":"HostName","value":)";
    const std::string call = R"({"id":1,"op":"call","path":"NeMo.Intf.data","function":"hasFlag","arguments":)";
    const std::string subscribe = R"({"id":1,"op":"subscribe","path":"OrvoService",)";
    const std::string refused = "malformed request", closed;
    // clang-format off
    const std::pair<std::string, std::string> cases[] = {
        {"", closed}, {"[]", closed}, {R"({"op":"x"})", closed}, {R"({"id":1})", closed},
        {R"({"id":1.5,"op":"x"})", closed}, {R"({"id":1,"op":"x"} {})", closed}, {std::string(2000, '['), closed},
        {"{\"id\":1,\"op\":\"x\"\0}"s, closed}, {set + R"("a\\\u0000b"})", closed},
        {std::string(16 * 1024 * 1024 + 100, ' '), closed}, {R"({"id":1,"op":"x"})", refused}, {set + "7}", refused},
        {call + R"({"flag":7}})", refused}, {subscribe + R"("depth":1.5})", refused},
        {subscribe + R"("flags":1e10})", refused}, {subscribe + R"("flags":1024})", R"({"id":1})"},
        {set + R"("a\\u0000b"})", R"({"id":1})"},
    };
    // clang-format on
    for (const auto& [frame, expected] : cases) {
        const int raw = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_un address{AF_UNIX, "/var/run/pcb_sys"};
        ASSERT_EQ(connect(raw, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        const size_t lineEnd =
            frame.size() < size_t{1024} * 1024;  // a frame that is too long is refused before its end
        (void)!send(raw, (frame + "\n").data(), frame.size() + lineEnd, MSG_NOSIGNAL);
        std::string answer;
        for (char byte = 0; recv(raw, &byte, 1, 0) == 1 && byte != '\n';) {
            answer += byte;
        }
        close(raw);
        EXPECT_TRUE(expected == closed ? answer.empty() : answer.find(expected) != std::string::npos) << answer;
    }
    client.set(KDynDns, "HostName", "alive");
    EXPECT_EQ(watch.await(3)[2], "1 OrvoService.DynDNS HostName a\\u0000b alive");
}

TEST_F(Platform, ASendThatTheSystemRefusesIsAFailureOfItsRequestAlone) {
    Watch before(client, KDynDns);
    request_t* const refused = request_create_getObject("DNS.Server", -1, REQUEST_WATCH);
    iRefusedSends = 1;
    EXPECT_FALSE(pcb_sendRequest(client.pcb, client.peer, refused));
    EXPECT_STREQ(error_string(pcb_error), "a system call failed");
    iRefusedSends = 1;
    EXPECT_EQ(client.set(KDynDns, "HostName", "lost"), "a system call failed");
    EXPECT_EQ(client.set(KDynDns, "HostName", "set"), "done");
    EXPECT_EQ(before.await(2)[1], "1 OrvoService.DynDNS HostName  set");
    request_destroy(refused);
}

TEST_F(Platform, CtlPrintsValuesOrOneClearLine) {
    const std::tuple<const char*, int, const char*> cases[] = {
        {"set NeMo.Intf.data Flags up,a=b",      0, ""                                             },
        {"--socket /var/run/pcb_sys ls DNS",     0, "DNS.Server.Status=true\n"                     },
        {"call NeMo.Intf.data hasFlag flag=a=b", 0, "{\"returns\":\"true\"}\n"                     },
        {"get DNS.Server name",                  1, "pcb-ctl: DNS.Server.name: unknown parameter\n"},
        {"--socket /var/run/nobody ls",          1, "pcb-ctl: /var/run/nobody: cannot connect\n"   },
    };
    for (const auto& [words, status, expected] : cases) {
        std::string output;
        EXPECT_EQ(world::run({"sh", "-c", "exec " + world::binary("pcb-ctl") + " " + words}, &output), status) << words;
        EXPECT_EQ(output, expected);
    }
}
