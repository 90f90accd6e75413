// The main job in a world whose user is not root, has no capability and can write nowhere but in the three folders.
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/daemon/daemon.h"

using namespace world;

// The other side of the test below.
static void lookAtTheDaemon() {
    Gateway gateway;
    gateway.start();
    EXPECT_EQ(access("/tmp", W_OK), -1);
    const std::string status = readFile("/proc/" + std::to_string(gateway.daemon->pid()) + "/status");
    EXPECT_NE(status.find("\nUid:\t1\t1\t1\t1\n"), std::string::npos) << status;
    for (const char* set : {"Prm", "Eff", "Bnd", "Amb"}) {
        EXPECT_NE(status.find(std::string("\nCap") + set + ":\t0000000000000000\n"), std::string::npos) << status;
    }
    EXPECT_EQ(gateway.end(), 0);
    EXPECT_EQ(gateway.daemon->output(), "");
}

TEST(Privilege, TheMainJobNeedsNone) {
    if (geteuid() != 0) return lookAtTheDaemon();
    for (const auto& [program, test] : {
             std::pair{"privilege_test", "Privilege.TheMainJobNeedsNone"                              },
             std::pair{"main_job_test",  "MainJob.KeepsTheRegistrationInAgreementAndNeverEchoesItBack"}
    }) {
        std::string output;
        const int status = run({ORSM_SOURCE_FOLDER "/tests/world/enter", "--unprivileged", binary(program),
                                std::string("--gtest_filter=") + test},
                               &output);
        if (status == 125) GTEST_SKIP() << output;
        EXPECT_EQ(status, 0) << output;
        EXPECT_NE(output.find("1 test from"), std::string::npos) << output;
    }
}
