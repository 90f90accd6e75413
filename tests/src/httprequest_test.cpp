#include "src/httprequest/httprequest.h"

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdarg>

#include "tests/world/cloud.h"
#include "tests/world/test_log.h"
#include "tests/world/wrap.h"

static std::string iFailing;       // the call of libcurl or of the resolver that fails
static std::vector<long> iLimits;  // of the last request, in seconds: to connect, and for the whole
static bool iHurries = false;      // a second of these limits takes 10 ms

WRAP(CURL*, curl_easy_init) { return iFailing == "init" ? nullptr : __real_curl_easy_init(); }

WRAP(int, __res_init) { return iFailing == "res_init" ? -1 : __real___res_init(); }

WRAP(CURLcode, curl_easy_setopt, CURL* handle, unsigned option, ...) {
    va_list arguments;
    va_start(arguments, option);
    void* const value = va_arg(arguments, void*);  // a long is as wide here
    va_end(arguments);
    if (iFailing == curl_easy_option_by_id(static_cast<CURLoption>(option))->name) return CURLE_OUT_OF_MEMORY;
    if (option == CURLOPT_URL) iLimits.clear();
    if (option != CURLOPT_CONNECTTIMEOUT && option != CURLOPT_TIMEOUT) {
        return __real_curl_easy_setopt(handle, option, value);
    }
    iLimits.push_back(reinterpret_cast<intptr_t>(value));
    const unsigned inMilliseconds = option == CURLOPT_TIMEOUT ? CURLOPT_TIMEOUT_MS : CURLOPT_CONNECTTIMEOUT_MS;
    return __real_curl_easy_setopt(handle, inMilliseconds, iLimits.back() * (iHurries ? 10 : 1000));
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

TEST_F(Http, ReturnsBodiesOfAnySizeAndStatus) {
    for (const unsigned size : {0U, 1U, 1023U, 1024U, 1025U, 5000U, 1U << 20}) {
        std::string body(size, '\xFF');
        for (unsigned i = 0; i < size; i += 7) {
            body[i] = static_cast<char>('%' + i % 90);
        }
        cloud_->answer("get", size % 2 ? 404 : 500, body);
        const OwnedText answer = get();
        EXPECT_TRUE(answer && body == answer.get()) << size;
    }
}

TEST_F(Http, EachFailureIsLoggedAndTheNextRequestSucceeds) {
    const std::tuple<const char*, const char*, const char*, bool> cases[] = {
        {"init",       "{}",                        "ERROR Cannot init curl",                 false},
        {"CAINFO",     "{}",                        "ERROR Cannot set CA bundle file",        false},
        {"HTTPHEADER", R"({"A":"1"})",              "ERROR Cannot set headers",               false},
        {"res_init",   "{}",                        " WARN res_init() call failed",           true },
        {"",           "no JSON",                   "ERROR Unable to parse json with header", false},
        {"",           R"({"A":"1","B":2,"C":""})", "ERROR Header is not a string: B",        false},
        {"",           R"(["A: 1"])",               "ERROR Header is not a string: ",         false},
    };
    for (const auto& [call, headers, line, served] : cases) {
        iFailing = call;
        EXPECT_EQ(post("{}", headers) != nullptr, served) << line;
        log_.next(line);
        iFailing.clear();
        EXPECT_TRUE(post("{}", "{}")) << line;
    }
    EXPECT_EQ(log_.count("res_init"), 1U);
    EXPECT_TRUE(mkfifo("/var/run/ca", 0600) == 0 && !curlGet(url_.c_str(), "/var/run/ca"));
}

// A fault of the server or of the connection ends its request with libcurl's own code and no other. What ends with 0 is
// an answer.
TEST_F(Http, EveryConnectionFaultFailsItsRequestOnly) {
    const std::pair<int, std::vector<std::string>> cases[] = {
        {60, {"connection", "expired"}                                                          },
        {60, {"connection", "wrong-host"}                                                       },
        {60, {"connection", "unknown-ca"}                                                       },
        {28, {"connection", "stall"}                                                            },
        {28, {"get", "trickle"}                                                                 },
        {28, {"get", "hold"}                                                                    },
        {28, {"get", "redirect-loop", "500"}                                                    },
        {1,  {"get", "redirect-file"}                                                           },
        {7,  {"get", "raw", "1", "HTTP/1.1 307 Moved\r\nLocation: https://127.0.0.1:1/\r\n\r\n"}},
        {18, {"get", "half"}                                                                    },
        {27, {"get", "long-header"}                                                             },
        {52, {"get", "close"}                                                                   },
        {56, {"get", "broken-chunk"}                                                            },
        {0,  {"get", "redirect", "1", "307"}                                                    },
        {0,  {"get", "redirect", "1", "308"}                                                    },
    };
    for (auto [code, fault] : cases) {
        SCOPED_TRACE(fault[1]);
        fault.insert(fault.begin(), "fault");
        cloud_->order(fault);
        iHurries = code == 28;
        EXPECT_EQ(get() != nullptr, code == 0);
        if (code) log_.next("ERROR Request error " + std::to_string(code) + ": ");
        iHurries = false;
        cloud_->order({"clear"});
        EXPECT_TRUE(get()) << log_.content();
        EXPECT_EQ(iLimits, (std::vector<long>{30, 30}));
    }
}
