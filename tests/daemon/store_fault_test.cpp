// The store under faults: each call of the saves strikes.
#include <gtest/gtest.h>

#include "tests/daemon/faults.h"
#include "tests/world/bus_client.h"

using namespace world;

static constexpr char KDone[] = R"({"status":"OK","result":true})";

// CASE=NUMBER runs one case, and the first of each call, which tells whether there is such a call.
TEST(StoreFault, AnyCallOfTheSavesOfConfigureMayFailOrBeTheLast) {
    StoredGateway gateway;
    BusClient client;
    const auto configure = [&](const std::string& name) {
        return client.call("/dyndns", "com.corvane.orsm.dyndns", "Configure", {true, name});
    };
    const char* const chosen = getenv("CASE");
    gateway.startSteered();
    strike(99, KKill);
    configure("box");
    // In another order, a power cut could leave an empty file, or bring the old one back.
    EXPECT_STREQ(steering().calls + 1, "owscroscowscroscowscrosc");
    int cases = 0, struck = 0;
    bool isThere = true;
    for (int call = 1; isThere; ++call) {
        for (const int fault : {ENOSPC, EIO, EROFS, EACCES, EMFILE, EINTR, KShortWrite, KKill}) {
            ++cases;
            if (chosen && std::stoi(chosen) != cases && fault != ENOSPC) continue;
            const std::string name = "box-" + std::to_string(cases);
            SCOPED_TRACE("CASE=" + std::to_string(cases) + ": fault " + std::to_string(fault) + " at call " +
                         std::to_string(call));
            gateway.emptyLog();
            strike(call, fault);
            const std::string reply = configure(name);
            ASSERT_TRUE(gateway.isStoreWhole());
            if (fault == ENOSPC) isThere = steering().struck;
            struck += steering().struck;
            if (fault == KKill && isThere) {
                EXPECT_EQ(gateway.daemon->wait(), 128 + SIGKILL);
                ++struck;
                strike(0, 0);
                gateway.startSteered();
                ASSERT_EQ(configure(name), KDone);
            } else {
                EXPECT_EQ(reply, KDone);
                const std::string failed =
                    " WARN Failed to store datamodel for object OrvoService in file orvoservice.odl";
                EXPECT_EQ(gateway.log.count(failed), steering().reported);
                EXPECT_EQ(gateway.log.count("ERROR Cannot save OrvoService object"), steering().reported);
                EXPECT_FALSE(std::filesystem::exists(std::string(KStore) + ".new"));
            }
            strike(0, 0);
            gateway.heal(name);
            ASSERT_EQ(gateway.stored("HostName"), name);
        }
    }
    EXPECT_EQ(gateway.end(), 0);
    EXPECT_EQ(gateway.daemon->output(), "");
    printf("store: %d faults at the calls of one Configure\n", struck);
}
