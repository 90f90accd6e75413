#include "src/dyndnsrequest.h"

#include <gtest/gtest.h>

#include "tests/world/cloud.h"
#include "tests/world/test_log.h"

static constexpr DynDnsConfiguration KBox = {"H", "b\"x", 7};

struct DynDnsRequest : testing::Test {
    DynDnsRequest() {
        (void)initRequestsEngine(cloud_->caPath().c_str(), cloud_->url().c_str(), "voltaro");
        (void)world::startLog();
    }
    ~DynDnsRequest() override { cleanRequestsEngine(); }

    std::unique_ptr<world::Cloud> cloud_ = world::startCloud();
};

TEST_F(DynDnsRequest, EachResourceIsAskedForWithTheseBytes) {
    EXPECT_STREQ(verifyDynDnsName("n%20").get(), R"({"status":"SUCCESS","available":true})");
    EXPECT_STREQ(getDynDnsConfiguration("H").get(), R"({"status":"SUCCESS"})");
    EXPECT_STREQ(setDynDnsConfiguration(KBox).get(), R"({"status":"SUCCESS"})");
    EXPECT_STREQ(getParamsForHaId("H").get(), R"({"status":"SUCCESS","params":""})");
    // The base stays as it is, a slash at its end included.
    ASSERT_EQ(setApplicationServerUrl((cloud_->url() + "/").c_str()), 1);
    EXPECT_STREQ(getDynDnsConfiguration("").get(), R"({"status":"NOT_FOUND"})");
    std::string sent;
    for (const world::CloudRequest& request : cloud_->journal()) {
        sent += request.method + " " + request.target + "|" + request.body + "\n";
    }
    EXPECT_EQ(sent, R"(GET /hm/dyndns/verify?name=n%20|
GET /hm/dyndns?haId=H|
POST /hm/dyndns/set|{"name":"b\"x","haId":"H","enabled":true}
GET /hm/stardevice/H/params|
GET //hm/dyndns?haId=|
)");
    EXPECT_EQ(cloud_->journal()[2].headers[2], "Content-Type: application/json");
}

TEST_F(DynDnsRequest, WhatIsMissingIsNamedInThisOrder) {
    cleanRequestsEngine();
    for (const char* const url : {"https://127.0.0.1:1", "https://127.0.0.1:2"}) {
        EXPECT_FALSE(verifyDynDnsName(nullptr));
        EXPECT_FALSE(getDynDnsConfiguration(nullptr));
        EXPECT_FALSE(setDynDnsConfiguration({nullptr, nullptr, 1}));
        EXPECT_FALSE(getParamsForHaId(nullptr));
        ASSERT_EQ(setApplicationServerUrl(url), 1);
    }
    EXPECT_FALSE(setDynDnsConfiguration({nullptr, "n", 1}));
    const std::string server = "ERROR Missing Dyn DNS server url\n";
    const std::string name = "ERROR Missing name\n";
    const std::string haId = "ERROR Missing HA-ID\n";
    const std::string params = "ERROR Missing app server url\n";
    EXPECT_EQ(world::takeLog(), server + server + server + params + name + haId + name + haId + haId);
}
