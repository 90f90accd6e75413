#include "src/httprequest.h"

#include <gtest/gtest.h>

#include <sstream>
#include <thread>
#include <utility>

#include "common/gate/gate.h"
#include "tests/src/failing_calls.h"
#include "tests/world/cloud.h"
#include "tests/world/test_log.h"

using Texts = std::vector<std::string>;

// Each request on one line: its first line, its headers and its body, each behind a bar.
static Texts wire(const std::vector<world::CloudRequest>& journal) {
    Texts lines;
    for (const world::CloudRequest& request : journal) {
        lines.push_back(request.method + " " + request.target + "|");
        for (const std::string& header : request.headers) {
            lines.back() += header + "|";
        }
        lines.back() += request.body;
    }
    return lines;
}

class Http : public testing::Test {
  protected:
    // The lines logged so far, as level and message.
    Texts logged() const {
        Texts lines;
        std::istringstream all(log_.content());
        for (std::string line; std::getline(all, line);) {
            lines.push_back(line.substr(line.find_first_not_of(' ', 24)));
        }
        return lines;
    }
    OwnedText get(const char* target = "/hm/dyndns?haId=H") const {
        return curlGet((url_ + target).c_str(), ca_.c_str());
    }
    OwnedText post(const char* body, const char* headers) const {
        return curlPostV2((url_ + "/hm/dyndns/set").c_str(), body, ca_.c_str(), headers);
    }

    world::LogReader log_ = world::startLog();
    std::unique_ptr<world::Cloud> cloud_ = world::startCloud();
    std::string url_ = cloud_->url();
    std::string ca_ = cloud_->caPath();
};

static constexpr char KNothing[] = R"({"status":"SUCCESS"})";  // what the server has about an unknown HA-ID

TEST_F(Http, SetsTheseOptionsInThisOrderAndLogsEachStep) {
    EXPECT_STREQ(get().get(), KNothing);
    const std::string uri = url_ + "/hm/dyndns?haId=H";
    EXPECT_EQ(std::exchange(iOptions, {}),
              (Texts{"URL=" + uri, "CUSTOMREQUEST=GET", "FOLLOWLOCATION=1", "CAINFO=" + ca_, "NOSIGNAL=1",
                     "CONNECTTIMEOUT=30", "TIMEOUT=30", "WRITEFUNCTION", "WRITEDATA"}));
    EXPECT_EQ(logged(), (Texts{"INFO Curl HTTP GET begin", "INFO URI: " + uri, "INFO Request OK",
                               std::string("DEBUG Response body: ") + KNothing, "INFO Curl HTTP GET success"}));
    world::writeFile("/var/log/test.log", "");

    const std::string target = url_ + "/hm/dyndns/set";
    const OwnedJson headers = parseJson(R"({"A":"1","B":"two words"})");
    EXPECT_TRUE(curlPostV1(target.c_str(), "body", nullptr, headers.get()) == nullptr);
    EXPECT_EQ(std::exchange(iOptions, {}),
              (Texts{"URL=" + target, "CUSTOMREQUEST=POST", "FOLLOWLOCATION=1", "NOSIGNAL=1", "CONNECTTIMEOUT=30",
                     "TIMEOUT=30", "POSTFIELDS=body", "HTTPHEADER|A: 1|B: two words", "WRITEFUNCTION", "WRITEDATA"}));
    // The certificates that libcurl brings along do not know this server.
    EXPECT_EQ(logged(),
              (Texts{"INFO Curl HTTP POST begin", "INFO URI: " + target, "DEBUG Post data: body",
                     "WARN CA bundle file not set", "DEBUG Adding header: A: 1", "DEBUG Adding header: B: two words",
                     "ERROR Request error 60: SSL peer certificate or SSH remote key was not OK"}));
}

TEST_F(Http, SendsTheseBytes) {
    const OwnedJson two = parseJson(R"({"Content-Type":"text/plain","Auth-Token":"t"})");
    const OwnedJson none = parseJson("{}");
    const std::string uri = url_ + "/a/%20?b=+&c";
    const char* const ca = ca_.c_str();
    EXPECT_TRUE(get());
    EXPECT_TRUE(curlRequest(uri.c_str(), "DELETE", ca));
    EXPECT_TRUE(curlPostV1(uri.c_str(), "x=\"\xC3\xA4\"", ca, two.get()));
    EXPECT_TRUE(curlPostV1(uri.c_str(), "x", ca, none.get()));
    EXPECT_TRUE(curlPostV1(uri.c_str(), nullptr, ca, nullptr));
    EXPECT_EQ(std::count(iOptions.begin(), iOptions.end(), "HTTPHEADER"), 0);
    EXPECT_TRUE(curlPostV2(uri.c_str(), "", ca, R"({"Content-Type":"application/json"})"));
    const std::string common = "Host: " + url_.substr(strlen("https://")) + "|Accept: */*|";
    const std::string form = "|Content-Type: application/x-www-form-urlencoded|";  // libcurl's own
    EXPECT_EQ(wire(cloud_->journal()),
              (Texts{"GET /hm/dyndns?haId=H|" + common, "DELETE /a/%20?b=+&c|" + common,
                     "POST /a/%20?b=+&c|" + common +
                         "Content-Type: text/plain|Auth-Token: t|Content-Length: 6|x=\"\xC3\xA4\"",
                     "POST /a/%20?b=+&c|" + common + "Content-Length: 1" + form + "x",
                     "POST /a/%20?b=+&c|" + common + "Content-Length: 0" + form,
                     "POST /a/%20?b=+&c|" + common + "Content-Type: application/json|Content-Length: 0|"}));
}

TEST_F(Http, GivesBodiesOfAnySizeAndStatusWhole) {
    for (const unsigned size : {0U, 1U, 1023U, 1024U, 1025U, 5000U, 8U << 20}) {
        std::string body(size, '\xFF');
        for (unsigned i = 0; i < size; i += 7) {
            body[i] = static_cast<char>('%' + i % 90);
        }
        cloud_->answer("get", size % 2 ? 404 : 500, body);
        const OwnedText answer = get();
        ASSERT_TRUE(answer) << size;
        EXPECT_TRUE(body == answer.get()) << size;
    }
    cloud_->answer("get", 200, std::string("seen\0unseen", 11));
    EXPECT_STREQ(get().get(), "seen");
    cloud_->fault("get", "http204");
    EXPECT_STREQ(get().get(), "");
}

TEST_F(Http, FollowsRedirectsWithMethodAndHeaders) {
    for (const char* const status : {"301", "302", "303", "307", "308"}) {
        SCOPED_TRACE(status);
        cloud_->fault("get", "redirect", 1, status);
        EXPECT_STREQ(get().get(), KNothing);
        cloud_->fault("set", "redirect", 1, status);
        EXPECT_TRUE(post(R"({"name":"n","haId":"H2","enabled":true})", R"({"X-Own":"1"})"));
        const world::CloudRequest last = cloud_->journal().back();
        EXPECT_EQ(last.method, "POST");
        EXPECT_EQ(last.target, "/moved/hm/dyndns/set");
        EXPECT_EQ(std::count(last.headers.begin(), last.headers.end(), "X-Own: 1"), 1);
    }
}

TEST_F(Http, WhatServersDoWrongGivesNoneAndTheNextRequestIsServed) {
    const struct {
        const char *resource, *fault;
        int code;
    } cases[] = {
        {"connection", "unknown-ca",    60},
        {"connection", "expired",       60},
        {"connection", "not-yet-valid", 60},
        {"connection", "wrong-host",    60},
        {"get",        "redirect-file", 1 },
        {"get",        "close",         52},
        {"get",        "half",          18},
        {"get",        "short",         18},
        {"get",        "broken-chunk",  56},
    };
    for (const auto& c : cases) {
        cloud_->fault(c.resource, c.fault);
        EXPECT_FALSE(get()) << c.fault;
        log_.next("ERROR Request error " + std::to_string(c.code) + ": ");
        EXPECT_STREQ(get().get(), KNothing) << c.fault;
    }
}

TEST_F(Http, WrongArgumentsFailBeforeAnythingIsSent) {
    const struct {
        const char *uri, *ca, *headers, *line;
    } cases[] = {
        {nullptr,      ca_.c_str(), "{}",                         "ERROR Empty URI passed"                 },
        {"",           ca_.c_str(), "{}",                         "ERROR Empty URI passed"                 },
        {url_.c_str(), ca_.c_str(), "no JSON",                    "ERROR Unable to parse json with headers"},
        {url_.c_str(), ca_.c_str(), nullptr,                      "ERROR Unable to parse json with headers"},
        {url_.c_str(), ca_.c_str(), R"({"A":"1","B":2,"C":"3"})", "ERROR Header is not a string: B"        },
        {url_.c_str(), ca_.c_str(), R"(["A: 1"])",                "ERROR Header is not a string: "         },
        {url_.c_str(), "",          "{}",                         "ERROR Request error 77: "               },
        {url_.c_str(), "/nowhere",  "{}",                         "ERROR Request error 77: "               },
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        EXPECT_FALSE(curlPostV2(c.uri, "x", c.ca, c.headers));
        EXPECT_EQ(logged().back().find(c.line), 0U) << logged().back();
    }
    EXPECT_FALSE(curlGet(nullptr, nullptr));
    EXPECT_EQ(logged().back(), "ERROR Empty URI passed");
    EXPECT_TRUE(cloud_->journal().empty());
}

TEST_F(Http, WhatTheSystemRefusesIsLoggedAndReleased) {
    const struct {
        Call call;
        int nth;
        const char* line;
        bool answered;
    } cases[] = {
        {Call::Init,       1, "ERROR Cannot init curl",                  false},
        {Call::CaInfo,     1, "ERROR Cannot set CA bundle file",         false}, // libcurl's own then
        {Call::Format,     2, "ERROR Out of memory",                     false},
        {Call::Append,     2, "ERROR Cannot allocate memory for header", false},
        {Call::HttpHeader, 1, "ERROR Cannot set headers",                false},
        {Call::Grow,       1, "ERROR Cannot allocate memory",            false},
        {Call::Grow,       2, "ERROR Request error 23: ",                false},
        {Call::Grow,       3, "ERROR Request error 23: ",                false},
        {Call::Resolver,   1, "WARN res_init() call failed",             true },
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        cloud_->order({"clear"});
        cloud_->fault("set", "large", 1, "200000");
        letFail(c.call, c.nth);
        const OwnedText answer = post("{}", R"({"A":"1","B":"2"})");
        EXPECT_EQ(answer != nullptr, c.answered);
        log_.next(c.line);
        letFail(Call::None);
    }
}

// While the end of the process holds the gate, it releases what a request was called with.
TEST_F(Http, GivesTheGateUpAndNeedsNoTextsDuringTheTransfer) {
    cloud_->fault("set", "hold");
    OwnedText uri = copyText((url_ + "/hm/dyndns/set").c_str());
    OwnedText ca = copyText(ca_.c_str());
    OwnedJson headers = parseJson(R"({"A":"1"})");
    OwnedText answer;
    std::thread busThread([&, uriText = uri.get(), caText = ca.get(), tree = headers.get()] {
        const InsideGate inside;
        answer = curlPostV1(uriText, "{}", caText, tree);
    });
    EXPECT_TRUE(world::waitFor([&] { return cloud_->journal().size() == 1; }));
    {
        const InsideGate inside;
        uri.reset();
        ca.reset();
        headers.reset();
        cloud_->order({"release"});
    }
    busThread.join();
    EXPECT_STREQ(answer.get(), R"({"status":"BAD_REQUEST"})");
}
