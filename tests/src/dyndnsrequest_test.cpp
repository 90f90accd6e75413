#include "src/dyndnsrequest.h"

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include "tests/src/failing_calls.h"
#include "tests/world/cloud.h"
#include "tests/world/test_log.h"

static constexpr DynDnsConfiguration KBox = {"HA 1", "b\"x", 7};

class DynDnsRequest : public testing::Test {
  protected:
    ~DynDnsRequest() override { cleanRequestsEngine(); }
    void start() {
        cloud_ = world::startCloud();
        ASSERT_EQ(initRequestsEngine(cloud_->caPath().c_str(), cloud_->url().c_str(), "voltaro"), 1);
    }

    world::LogReader log_ = world::startLog();
    std::unique_ptr<world::Cloud> cloud_;
};

TEST_F(DynDnsRequest, EachResourceIsAskedForWithTheseBytes) {
    start();
    EXPECT_STREQ(verifyDynDnsName("n%20").get(), R"({"status":"SUCCESS","available":true})");
    EXPECT_STREQ(getDynDnsConfiguration("H").get(), R"({"status":"SUCCESS"})");
    EXPECT_STREQ(setDynDnsConfiguration({"H", "b\"x", 7}).get(), R"({"status":"SUCCESS"})");
    EXPECT_STREQ(setDynDnsConfiguration({"H", "", 0}).get(), R"({"status":"SUCCESS"})");
    EXPECT_STREQ(getParamsForHaId("H").get(), R"({"status":"SUCCESS","params":""})");
    EXPECT_STREQ(getParamsForHaId("").get(), R"({"status":"SUCCESS","params":""})");
    // The base stays as it is, a slash at its end included.
    ASSERT_EQ(setApplicationServerUrl((cloud_->url() + "/").c_str()), 1);
    EXPECT_STREQ(getDynDnsConfiguration("").get(), R"({"status":"NOT_FOUND"})");
    std::vector<std::string> sent;
    for (const world::CloudRequest& request : cloud_->journal()) {
        sent.push_back(request.method + " " + request.target + " " + request.body);
    }
    EXPECT_EQ(sent, (std::vector<std::string>{"GET /hm/dyndns/verify?name=n%20 ", "GET /hm/dyndns?haId=H ",
                                              R"(POST /hm/dyndns/set {"name":"b\"x","haId":"H","enabled":true})",
                                              R"(POST /hm/dyndns/set {"name":"","haId":"H","enabled":false})",
                                              "GET /hm/stardevice/H/params ", "GET /hm/stardevice//params ",
                                              "GET //hm/dyndns?haId= "}));
    EXPECT_EQ(cloud_->journal()[2].headers[2], "Content-Type: application/json");
}

TEST_F(DynDnsRequest, WhatIsMissingIsNamedInThisOrder) {
    const auto expectMissing = [&](const char* forName, const char* forHaId, const char* forSet,
                                   const char* forParams) {
        EXPECT_FALSE(verifyDynDnsName(nullptr));
        log_.next(std::string("ERROR ") + forName);
        EXPECT_FALSE(getDynDnsConfiguration(nullptr));
        log_.next(std::string("ERROR ") + forHaId);
        EXPECT_FALSE(setDynDnsConfiguration({nullptr, nullptr, 1}));
        log_.next(std::string("ERROR ") + forSet);
        EXPECT_FALSE(getParamsForHaId(nullptr));
        log_.next(std::string("ERROR ") + forParams);
    };
    expectMissing("Missing Dyn DNS server url", "Missing Dyn DNS server url", "Missing Dyn DNS server url",
                  "Missing app server url");
    ASSERT_EQ(setApplicationServerUrl("https://127.0.0.1:1"), 1);
    expectMissing("Missing name", "Missing HA-ID", "Missing name", "Missing HA-ID");
    EXPECT_FALSE(setDynDnsConfiguration({nullptr, "n", 1}));
    log_.next("ERROR Missing HA-ID");
    EXPECT_EQ(log_.count(""), 9U);
    // Without init there is no CA bundle, which is no obstacle here.
    EXPECT_FALSE(getDynDnsConfiguration("H"));
    log_.next("WARN CA bundle file not set");
}

TEST_F(DynDnsRequest, SettingsThatCannotBeCopiedLeaveTheOldOnes) {
    start();
    for (int nth = 1; nth <= 3; ++nth) {
        letFail(Call::Copy, nth);
        EXPECT_EQ(initRequestsEngine("a", "b", "c"), 0);
    }
    letFail(Call::Copy);
    EXPECT_EQ(setApplicationServerUrl("b"), 0);
    EXPECT_EQ(initRequestsEngine("a", "b", nullptr), 0);
    EXPECT_EQ(setApplicationServerUrl(nullptr), 0);
    EXPECT_EQ(getPathToServerCABundleFile(), cloud_->caPath());
    EXPECT_STREQ(getVoltaroServerUrl(), "voltaro");
    EXPECT_TRUE(getDynDnsConfiguration("H"));
    EXPECT_EQ(initRequestsEngine("a", "b", "c"), 1);
    EXPECT_STREQ(getPathToServerCABundleFile(), "a");
    EXPECT_STREQ(getVoltaroServerUrl(), "c");
    cleanRequestsEngine();
    EXPECT_EQ(getPathToServerCABundleFile(), nullptr);
    EXPECT_EQ(getVoltaroServerUrl(), nullptr);
}

static int iJsonAllocationsLeft;
static void* allocateForJson(size_t size) { return iJsonAllocationsLeft-- > 0 ? malloc(size) : nullptr; }

TEST_F(DynDnsRequest, ShortMemoryIsLoggedByThoseThatSaySo) {
    start();
    const auto expectAfterFailedUrl = [&](OwnedText (*request)(), const char* lines) {
        world::writeFile("/var/log/test.log", "");
        letFail(Call::Format);
        EXPECT_FALSE(request());
        const std::string log = log_.content();
        EXPECT_EQ(log.empty() ? "" : log.substr(24), lines);
    };
    expectAfterFailedUrl([] { return verifyDynDnsName("n"); }, "ERROR Out of memory\n");
    expectAfterFailedUrl([] { return getDynDnsConfiguration("H"); }, "");
    expectAfterFailedUrl([] { return setDynDnsConfiguration(KBox); }, "ERROR Out of memory\n");
    expectAfterFailedUrl([] { return getParamsForHaId("H"); }, "");

    cJSON_Hooks hooks = {allocateForJson, free};
    cJSON_InitHooks(&hooks);
    std::string lines;
    for (int left = 0; left < 11; ++left) {
        world::writeFile("/var/log/test.log", "");
        iJsonAllocationsLeft = left;
        EXPECT_FALSE(setDynDnsConfiguration(KBox));
        lines += log_.content().substr(24 + strlen("ERROR Cannot create json "), 1);
    }
    EXPECT_EQ(lines,
              "ooooooooo"
              "ss");
    cJSON_InitHooks(nullptr);
    EXPECT_TRUE(setDynDnsConfiguration(KBox));
    EXPECT_EQ(cloud_->journal().size(), 1U);
}
