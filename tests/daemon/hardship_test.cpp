// The daemon among bad servers: every fault in every request.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/daemon/steered.h"

using namespace world;

// clang-format off
#define DYNDNS(status) R"({"status":")" status R"(","result":null})"
#define VOLTARO(status) R"({"status":")" status R"("})"
static constexpr char KTrue[] = R"({"status":"OK","result":true})";
static constexpr char KBox[] = R"({"status":"OK","result":"box"})";
static constexpr char KPlug[] = R"({"status":"OK","switch":{"state":"on","power":12.5}})";
static constexpr char KOff[] = R"({"status":"OK","state":"off"})";
static constexpr char KNotText[] = "org.freedesktop.DBus.Error.Failed";  // D-Bus cannot carry it
static constexpr char KNoAnswer[] = VOLTARO("SERVER_CONNECTION_ERROR");

namespace {

// A request of the daemon, the call that leads to it, and what becomes of the call.
struct Resource {
    const char* name;
    int earlier;  // requests of the same call before it
    const char *service, *method;  // no method: the synchronization, whose reply is the name that is stored then
    BusArguments arguments;
    const char *good, *noAnswer, *unusable;                 // the replies
    const char *noAnswerLine, *unusableLine, *refusedLine;  // behind the last: the status
    const char* unfed;                                      // the status of a POST that lost its body in a redirect
};

enum Outcome { NoAnswer, Endless, Unusable, Refused, LosesBody, Good };

struct Faults {
    Outcome outcome;
    std::string detail;                           // of the log line: the code, or the status
    const char* where;                            // empty for the resource
    std::vector<std::vector<std::string>> kinds;  // with count and values
};

// An answer of one resource only.
struct Answer {
    const char *resource, *body, *reply, *line;
};

}  // namespace

static const Resource KResources[] = {
    {"verify", 0, "dyndns",  "IsNameTaken", {"free"},      R"({"status":"OK","result":false})", DYNDNS("SERVER_CONNECTION_ERROR"), DYNDNS("SERVER_INTERNAL_ERROR"), "Dyn DNS IsNameTaken error", "Request OK", "Dyn DNS status error: ", nullptr},
    {"get",    0, "dyndns",  nullptr,       {},            KBox,   KBox,      KBox,      "Get dyn dns configuration error", "Server error or error during parsing server response", "Dyn DNS status error: ", nullptr},
    {"set",    0, "dyndns",  "Configure",   {true, "box"}, KTrue,  DYNDNS("SERVER_CONNECTION_ERROR"), DYNDNS("SERVER_INTERNAL_ERROR"), "Dyn DNS Configure error", "Request OK", "Failed to configure DynDNS: ", "BAD_REQUEST"},
    {"params", 0, "voltaro", "Get",         {"p-1"},       KPlug,  KNoAnswer, VOLTARO("SERVER_INTERNAL_ERROR"),    "getParamsForHaId error", "Request OK", "Failed to get params: ", nullptr},
    {"auth",   1, "voltaro", "Get",         {"p-1"},       KPlug,  VOLTARO("CANNOT_LOGIN_TO_VOLTARO"),  VOLTARO("CANNOT_LOGIN_TO_VOLTARO"),  "Cannot login to Voltaro", "Cannot login to Voltaro", "Auth request returned error ", "auth.failed"},
    {"device", 2, "voltaro", "Get",         {"p-1"},       KPlug,  KNoAnswer, KNoAnswer, "Error while executing request ", "Request returned OK", "Request returned error ", "error"},
    {"switch", 2, "voltaro", "Set",         {"p-1", "on"}, R"({"status":"OK","state":"on"})", KNoAnswer, KNoAnswer, "Error while executing request ", "Request returned OK", "Request returned error ", "error"},
};

static const Faults KFaults[] = {
    {NoAnswer, "",     "connection", {{"reset"}}},
    {NoAnswer, "60: ", "connection", {{"expired"}, {"not-yet-valid"}, {"wrong-host"}, {"unknown-ca"}}},
    {Endless,  "28: ", "connection", {{"stall"}}},
    {Endless,  "28: ", "", {{"trickle"}, {"hold"}, {"redirect-loop", "500"}}},
    {NoAnswer, "1: ",  "", {{"redirect-file"}}},
    {NoAnswer, "7: ",  "", {{"raw", "1", "HTTP/1.1 307 Moved\r\nLocation: https://127.0.0.1:1/\r\n\r\n"}}},  // nobody listens there
    {NoAnswer, "18: ", "", {{"half"}, {"short"}}},
    {NoAnswer, "27: ", "", {{"long-header"}}},
    {NoAnswer, "52: ", "", {{"close"}}},
    {NoAnswer, "56: ", "", {{"broken-chunk"}}},
    {LosesBody, "",    "", {{"redirect", "1", "301"}, {"redirect", "1", "302"}, {"redirect", "1", "303"}}},
    {Refused, "NOT_FOUND",      "", {{"http404"}}},
    {Refused, "INTERNAL_ERROR", "", {{"http500"}}},
    {Refused, "DUPLICATE",      "", {{"duplicate"}}},
    {Refused, "sUCCESS",        "", {{"status", "1", "sUCCESS"}}},
    {Refused, "\xFF",           "", {{"status", "1", "\xFF"}}},
    {Unusable, "", "", {{"http204"}, {"http500-text"}, {"empty"}, {"not-json"}, {"zero-byte"}, {"nested", "1", "1001"}, {"body", "1", "404", "<h1>"},
                        {"body", "1", "200", R"({"status":1})"}, {"body", "1", "200", "null"}, {"body", "1", "200", R"(["status","SUCCESS"])"}}},
    {Good, "", "", {{"redirect", "1", "307"}, {"redirect", "1", "308"}, {"byte-order-mark"}, {"nested", "1", "999"}, {"upper-case"}, {"large"}}},
};

static const Answer KAnswers[] = {
    {"verify", R"({"Status":"SUCCESS","AVAILABLE":"true"})", KTrue, "Dyn DNS IsNameTaken: true"},
    {"verify", R"({"status":"SUCCESS"})", DYNDNS("SERVER_INTERNAL_ERROR"), "Dyn DNS IsNameTaken OK: "},
    {"get",    R"({"status":"SUCCESS","dynDNS":{"name":7,"enabled":1}})", DYNDNS("OK"), "DynDNS enable=false saved in PCB"},
    {"get",    R"({"STATUS":"SUCCESS","dyndns":{"Name":"box","ENABLED":"true"}} trailing)", KBox, "DynDNS enable=false saved in PCB"},
    {"get",    R"({"status":"SUCCESS","dynDNS":"box"})", DYNDNS("OK"), "DynDNS empty hostname saved in PCB"},
    {"get",    "{\"status\":\"SUCCESS\",\"dynDNS\":{\"name\":\"\xC3\x28\",\"enabled\":true}}", KNotText, "failed to send DBus method response"},
    {"params", R"({"status":"SUCCESS"})", VOLTARO("NO_PAIRED_VOLTARO_ACCOUNT"), "Curl HTTP GET success"},
    {"params", R"({"status":"SUCCESS","params":{"email":"canary","password":"canary"}})", VOLTARO("NO_PAIRED_VOLTARO_ACCOUNT"), "Curl HTTP GET success"},
    {"params", R"({"status":"SUCCESS","params":"{\"email\":\"canary\",\"password\":\"\"}"})", VOLTARO("NO_PAIRED_VOLTARO_ACCOUNT"), "Cannot find Voltaro email or password"},
    {"params", R"({"status":"SUCCESS","params":"{\"email\":\"canary"})", VOLTARO("SERVER_INTERNAL_ERROR"), "Curl HTTP GET success"},
    {"params", "{\"status\":\"SUCCESS\",\"params\":\"{\\\"email\\\":\\\"\xFF\\\",\\\"password\\\":\\\"canary\\\"}\"}", VOLTARO("CANNOT_LOGIN_TO_VOLTARO"), "Auth request returned error auth.failed"},
    {"auth",   R"({"status":"ok"})", VOLTARO("CANNOT_LOGIN_TO_VOLTARO"), "Cannot find authToken in response json"},
    {"auth",   R"({"status":"ok","authToken":7})", VOLTARO("CANNOT_LOGIN_TO_VOLTARO"), "Cannot find authToken in response json"},
    {"auth",   R"({"status":"OK","authToken":"token-1"})", VOLTARO("CANNOT_LOGIN_TO_VOLTARO"), "Auth request returned error OK"},
    {"auth",   "{\"status\":\"ok\",\"authToken\":\"\xFF\"}", KNoAnswer, "Request returned error error"},
    {"device", R"({"status":"ok"})", VOLTARO("SERVER_INTERNAL_ERROR"), "No device data in getSwitchDetails"},
    {"device", R"({"status":"ok","device":{"state":"on"}})", VOLTARO("SERVER_INTERNAL_ERROR"), "Get switch details OK"},
    {"device", R"({"status":"ok","device":{"state":1,"power":1}})", VOLTARO("SERVER_INTERNAL_ERROR"), "Get switch details OK"},
    {"device", R"({"status":"ok","device":{"state":"on","power":1e999}})", R"({"status":"OK","switch":{"state":"on","power":null}})", "Voltaro Get finished"},
    {"device", "{\"status\":\"ok\",\"device\":{\"state\":\"\xFF\",\"power\":1}}", KNotText, "failed to send DBus method response"},
    {"switch", R"({"status":"ok"})", KNoAnswer, "Cannot find state in response json"},
    {"switch", R"({"status":"ok","state":"dimmed"})", KOff, "Current switch state: dimmed"},
    {"switch", "{\"status\":\"ok\",\"state\":\"\xFF\"}", KOff, "Current switch state: \xFF"},
    {"switch", R"({"status":"error","error":"device.not.connected"})", VOLTARO("SWITCH_IS_OFFLINE"), "Request returned error error"},
    {"switch", R"({"status":"error","error":"switch.not.allowed"})", VOLTARO("SWITCH_ALREADY_HAS_SUCH_STATE"), "Request returned error error"},
    {"switch", R"({"status":"error","error":7})", KNoAnswer, "Request returned error error"},
};
// clang-format on

namespace {

struct Hardship : testing::Test, SteeredGateway {
    Hardship() : SteeredGateway(10'000) {
        setenv("TZ", "UTC", 1);
        // At INFO, whatever stands further below: the first line wins.
        launch(KSteered, "logger.level=INFO\nlogger.category.message_bus=INFO\nlogger.stdout=true\n");
        log.next("CG-NAT status: false");
        set("OrvoService.GatewayClient", "ConnectionStatus", "true");
        set("NMC.HomeAutomation", "HA-ID", "HA-1");
        awaitSynchronization();
    }

    void awaitSynchronization() {
        for (const char* line : {"Sync dyndns timer started", "hostname ", "saved to OrvoService"}) {
            synchronization.next(line);
        }
    }

    std::string ask(const Resource& resource) {
        const std::string path = std::string("/") + resource.service;
        if (resource.method) return client.call(path, "", resource.method, resource.arguments);
        steering().armed = 0;
        touch();
        awaitSynchronization();
        return client.call(path, "", "GetName");
    }
    void expectAllGood() {
        for (const Resource& resource : KResources) {
            EXPECT_EQ(ask(resource), resource.good);
        }
    }
    // What needs no server needs no descriptor either.
    void expectAllGoodAlone() {
        EXPECT_EQ(client.call("/voltaro", "", "EnableBackend", {true}), "true");
        EXPECT_EQ(client.call("/dyndns", "", "SetEnabled", {true}), "true");
        EXPECT_EQ(client.call("/dyndns", "", "IsEnabled"), KTrue);
        EXPECT_EQ(client.call("/dyndns", "", "GetName"), KBox);
        EXPECT_EQ(client.call("/orvoservicesinfo", "", "Get"), R"({"status":"OK"})");
    }

    // Makes the call with what has been ordered for its request, and once more. Armed: a synchronization starts after
    // 1 s, and is tried again after 5 s.
    void meets(const Resource& resource, const char* reply, int64_t armed, const std::vector<std::string>& lines) {
        EXPECT_EQ(ask(resource), reply);
        EXPECT_TRUE(resource.method || steering().armed == armed) << steering().armed;
        for (const std::string& line : lines) {
            log.next(line);
        }
        cloud->order({"clear"});
        EXPECT_EQ(ask(resource), resource.good);
        EXPECT_EQ(steering().limits, 3030);
    }

    void meets(const Resource& resource, const Faults& fault, std::vector<std::string> order) {
        if (*fault.where && resource.earlier) {
            cloud->order({"fault", fault.where, "good", std::to_string(resource.earlier)});
        }
        order.insert(order.begin(), {"fault", *fault.where ? fault.where : resource.name});
        cloud->order(order);
        if (fault.outcome == Endless) steering().hurriedRequest = resource.earlier + 1;
        const bool unfed = fault.outcome == LosesBody && resource.unfed;
        if (fault.outcome == NoAnswer || fault.outcome == Endless) {
            meets(resource, resource.noAnswer, 105, {"ERROR Request error " + fault.detail, resource.noAnswerLine});
        } else if (fault.outcome == Unusable) {
            meets(resource, resource.unusable, 105, {"Request OK", resource.unusableLine});
        } else if (fault.outcome == Refused || unfed) {
            meets(resource, resource.unusable, 105, {resource.refusedLine + (unfed ? resource.unfed : fault.detail)});
        } else {
            meets(resource, resource.good, 1, {"Request OK"});
        }
    }

    LogReader synchronization{KDaemonLog};
};

struct ServerFault : Hardship, testing::WithParamInterface<Resource> {};

}  // namespace

TEST_P(ServerFault, IsLoggedAnsweredAndOverWithItsRequest) {
    const Resource& resource = GetParam();
    Sweep sweep(5);
    const auto run = [&](const char* what, const std::function<void()>& oneCase) {
        if (!sweep.next()) return;
        SCOPED_TRACE(sweep.again() + ": " + what);
        oneCase();
    };
    for (const Faults& fault : KFaults) {
        for (const std::vector<std::string>& kind : fault.kinds) {
            run(kind[0].c_str(), [&] { meets(resource, fault, kind); });
        }
    }
    for (const Answer& answer : KAnswers) {
        if (strcmp(answer.resource, resource.name) != 0) continue;
        SCOPED_TRACE(answer.body);
        cloud->answer(resource.name, 200, answer.body);
        meets(resource, answer.reply, 1, {answer.line});
    }
    printf("figure: server faults: %s of %s, each with line and reply, and a good request behind it\n",
           sweep.count().c_str(), resource.name);

    // Account and token were on their way, and are on no output.
    expectAllGood();
    expectAllGoodAlone();
    EXPECT_EQ(client.call("/voltaro", "", "Set", {"p-1", "toggle"}), KOff);
    EXPECT_EQ(end(), 0);
    const std::string output = daemon->output();
    EXPECT_EQ(output, log.content());
    for (const char* secret : {"canary", "token-"}) {
        EXPECT_NE(readFile("/var/run/cloud/journal").find(secret), std::string::npos);
        EXPECT_EQ((output + readFile(KStore)).find(secret), std::string::npos) << secret;
    }
}

INSTANTIATE_TEST_SUITE_P(Of, ServerFault, testing::ValuesIn(KResources),
                         [](const auto& one) { return one.param.name; });
