#include "src/httprequest.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <cstdarg>

#include "tests/world/cloud.h"
#include "tests/world/test_log.h"
#include "tests/world/wrap.h"

static std::string iFailing;  // the call of libcurl or of the resolver that fails

WRAP(CURL*, curl_easy_init) { return iFailing == "init" ? nullptr : __real_curl_easy_init(); }

WRAP(int, __res_init) { return iFailing == "res_init" ? -1 : __real___res_init(); }

WRAP(CURLcode, curl_easy_setopt, CURL* handle, unsigned option, ...) {
    va_list arguments;
    va_start(arguments, option);
    void* const value = va_arg(arguments, void*);  // a long is as wide here
    va_end(arguments);
    const bool fails = iFailing == curl_easy_option_by_id(static_cast<CURLoption>(option))->name;
    return fails ? CURLE_OUT_OF_MEMORY : __real_curl_easy_setopt(handle, option, value);
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
    const std::tuple<const char*, const char*, const char*, bool> cases[] = {
        {"init",       "{}",                        "ERROR Cannot init curl",                 false},
        {"CAINFO",     "{}",                        "ERROR Cannot set CA bundle file",        false}, // libcurl's own then
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
    cloud_->fault("connection", "wrong-host");
    EXPECT_FALSE(get()) << "another host's certificate";
}
