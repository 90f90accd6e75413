#include "src/httprequest.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <cstdarg>
#include <thread>

#include "common/gate/gate.h"
#include "tests/world/cloud.h"
#include "tests/world/test_log.h"
#include "tests/world/wrap.h"

static std::string iFailing;                      // the call of libcurl or of the resolver that fails
static std::string& iOptions = *new std::string;  // that were set, as "NAME" or "NAME=number", a blank behind each

WRAP(CURL*, curl_easy_init) { return iFailing == "init" ? nullptr : __real_curl_easy_init(); }

WRAP(int, __res_init) { return iFailing == "res_init" ? -1 : __real___res_init(); }

WRAP(CURLcode, curl_easy_setopt, CURL* handle, unsigned number, ...) {
    va_list arguments;
    va_start(arguments, number);
    void* const value = va_arg(arguments, void*);  // a long is as wide here
    va_end(arguments);
    const curl_easyoption* const option = curl_easy_option_by_id(static_cast<CURLoption>(number));
    iOptions += option->name;
    if (option->type == CURLOT_LONG) iOptions += "=" + std::to_string(reinterpret_cast<intptr_t>(value));
    iOptions += " ";
    return iFailing == option->name ? CURLE_OUT_OF_MEMORY : __real_curl_easy_setopt(handle, number, value);
}

struct Http : testing::Test {
    OwnedText get() const { return curlGet((url_ + "/hm/dyndns?haId=H").c_str(), ca_.c_str()); }
    OwnedText post(const char* body, const char* headers) const {
        return curlPostV2((url_ + "/hm/dyndns/set").c_str(), body, ca_.c_str(), headers);
    }

    world::LogReader log_ = world::startLog();
    std::unique_ptr<world::Cloud> cloud_ = world::startCloud();
    std::string url_ = cloud_->url();
    std::string ca_ = cloud_->caPath();
};

TEST_F(Http, SetsTheseOptionsInThisOrderAndLogsEachStep) {
    EXPECT_STREQ(get().get(), R"({"status":"SUCCESS"})");
    const std::string uri = url_ + "/hm/dyndns?haId=H";
    EXPECT_EQ(iOptions,
              "URL CUSTOMREQUEST FOLLOWLOCATION=1 CAINFO NOSIGNAL=1 CONNECTTIMEOUT=30 TIMEOUT=30 "
              "WRITEFUNCTION WRITEDATA ");
    EXPECT_EQ(world::takeLog(), " INFO Curl HTTP GET begin\n INFO URI: " + uri + R"(
 INFO Request OK
DEBUG Response body: {"status":"SUCCESS"}
 INFO Curl HTTP GET success
)");

    EXPECT_FALSE(curlPostV1(uri.c_str(), "body", nullptr, parseJson(R"({"A":"1","B":"two words"})").get()));
    // The certificates that libcurl brings along do not know this server.
    EXPECT_EQ(world::takeLog(), " INFO Curl HTTP POST begin\n INFO URI: " + uri + R"(
DEBUG Post data: body
 WARN CA bundle file not set
DEBUG Adding header: A: 1
DEBUG Adding header: B: two words
ERROR Request error 60: SSL peer certificate or SSH remote key was not OK
)");
}

TEST_F(Http, SendsTheseBytesAndSoAfterARedirect) {
    const OwnedJson two = parseJson(R"({"Content-Type":"text/plain","Auth-Token":"t"})");
    EXPECT_TRUE(get());
    EXPECT_TRUE(curlPostV1((url_ + "/a/%20?b=+&c").c_str(), "x=\"\xC3\xA4\"", ca_.c_str(), two.get()));
    cloud_->fault("set", "redirect", 1, "303");
    EXPECT_TRUE(post(nullptr, R"({"X-Own":"1"})"));
    log_.next("INFO Curl HTTP POST success");
    std::string wire;
    for (const world::CloudRequest& request : cloud_->journal()) {
        wire += request.method + " " + request.target + "|";
        for (size_t i = 1; i < request.headers.size(); ++i) {  // behind the host
            wire += request.headers[i] + "|";
        }
        wire += request.body + "\n";
    }
    // The form's content type is libcurl's own.
    EXPECT_EQ(wire, R"(GET /hm/dyndns?haId=H|Accept: */*|
POST /a/%20?b=+&c|Accept: */*|Content-Type: text/plain|Auth-Token: t|Content-Length: 6|x="ä"
POST /hm/dyndns/set|Accept: */*|X-Own: 1|Content-Length: 0|Content-Type: application/x-www-form-urlencoded|
POST /moved/hm/dyndns/set|Accept: */*|X-Own: 1|
)");
}

TEST_F(Http, GivesBodiesOfAnySizeAndStatusWhole) {
    for (const unsigned size : {0U, 1U, 1023U, 1024U, 1025U, 5000U, 8U << 20}) {
        std::string body(size, '\xFF');
        for (unsigned i = 0; i < size; i += 7) {
            body[i] = static_cast<char>('%' + i % 90);
        }
        cloud_->answer("get", size % 2 ? 404 : 500, body);
        const OwnedText answer = get();
        EXPECT_TRUE(answer && body == answer.get()) << size;
    }
}

TEST_F(Http, EachFailureIsLoggedAndTheNextRequestServed) {
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"init",       "ERROR Cannot init curl",          false},
        {"CAINFO",     "ERROR Cannot set CA bundle file", false}, // libcurl's own then
        {"HTTPHEADER", "ERROR Cannot set headers",        false},
        {"res_init",   " WARN res_init() call failed",    true },
    };
    for (const auto& [call, line, served] : cases) {
        iFailing = call;
        EXPECT_EQ(post("{}", R"({"A":"1"})") != nullptr, served) << line;
        log_.next(line);
        iFailing.clear();
        EXPECT_TRUE(post("{}", "{}")) << line;
    }
}

TEST_F(Http, WrongArgumentsFailBeforeAnythingIsSent) {
    const std::array<const char*, 4> cases[] = {
        {nullptr,      ca_.c_str(), "{}",                         "ERROR Empty URI passed\n"                 },
        {"",           ca_.c_str(), "{}",                         "ERROR Empty URI passed\n"                 },
        {url_.c_str(), ca_.c_str(), "no JSON",                    "ERROR Unable to parse json with headers\n"},
        {url_.c_str(), ca_.c_str(), R"({"A":"1","B":2,"C":"3"})", "ERROR Header is not a string: B\n"        },
        {url_.c_str(), ca_.c_str(), R"(["A: 1"])",                "ERROR Header is not a string: \n"         },
        {url_.c_str(), "",          "{}",                         "ERROR Request error 77: "                 },
    };
    for (const auto& [uri, ca, headers, line] : cases) {
        EXPECT_FALSE(curlPostV2(uri, "x", ca, headers));
        const std::string log = world::takeLog();
        EXPECT_EQ(log.substr(log.find("ERROR")).rfind(line, 0), 0U) << log;
    }
    EXPECT_TRUE(cloud_->journal().empty());
}

// While the end of the process holds the gate, it releases what a request was called with.
TEST_F(Http, GivesTheGateUpAndNeedsNoTextsDuringTheTransfer) {
    cloud_->fault("set", "hold");
    OwnedText uri = copyText((url_ + "/hm/dyndns/set").c_str());
    OwnedJson headers = parseJson(R"({"A":"1"})");
    OwnedText answer;
    std::thread busThread([&, uriText = uri.get(), tree = headers.get()] {
        const InsideGate inside;
        answer = curlPostV1(uriText, "{}", ca_.c_str(), tree);
    });
    EXPECT_TRUE(world::waitFor([&] { return cloud_->journal().size() == 1; }));
    {
        const InsideGate inside;
        uri.reset();
        headers.reset();
        cloud_->order({"release"});
    }
    busThread.join();
    EXPECT_STREQ(answer.get(), R"({"status":"BAD_REQUEST"})");
}
