// The store under faults: each system call of each save strikes, and the folder is full, read-only or gone.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include "tests/daemon/faults.h"
#include "tests/world/bus_client.h"

using namespace world;

static constexpr int KFaults[] = {ENOSPC, EIO, EROFS, EACCES, EMFILE, EINTR, KShortWrite, KKill};
static constexpr char KDone[] = R"({"status":"OK","result":true})";

class StoreFault : public testing::Test {
  protected:
    void trace() { tracer_ = std::make_unique<Tracer>(gateway_.daemon->pid(), false); }
    std::string configure(const std::string& name) {
        return client_.call("/dyndns", "com.corvane.orsm.dyndns", "Configure", {true, name});
    }
    size_t failedSaves() const { return gateway_.log.count("ERROR Cannot save OrvoService object"); }
    size_t allSaves() const { return failedSaves() + gateway_.log.count("orvoservice.odl saved to OrvoService"); }
    // CASE=NUMBER runs one case of a sweep, and the first ones of each call, which tell whether there is such a call.
    static bool isChosen(int number) {
        const char* chosen = getenv("CASE");
        return !chosen || std::stoi(chosen) == number;
    }
    static std::string describe(int number, int fault, int call) {
        return "CASE=" + std::to_string(number) + ": fault " + std::to_string(fault) + " at call " +
               std::to_string(call);
    }
    void end() {
        tracer_.reset();
        EXPECT_EQ(gateway_.end(), 0);
        EXPECT_EQ(gateway_.daemon->output(), "");
    }

    StoredGateway gateway_;
    BusClient client_;
    std::unique_ptr<Tracer> tracer_;
};

TEST_F(StoreFault, AnyCallOfAnySaveOfConfigureMayFailOrBeTheLast) {
    gateway_.start();
    trace();
    configure("box");
    const std::vector<long> list = tracer_->calls();
    const auto named = std::find(list.begin(), list.end(), SYS_rename);
    EXPECT_EQ(std::count(list.begin(), named, SYS_fsync), 1) << "a power cut could leave an empty file";
    EXPECT_EQ(std::count(named, list.end(), SYS_fsync), 1) << "a power cut could bring the old file back";
    int cases = 0, calls = 0, saves = 1, struck = 0;
    for (int save = 0; save < saves; ++save) {
        bool isThere = true;
        for (int call = 1; isThere; calls += isThere, ++call) {
            for (const int fault : KFaults) {
                if (!isChosen(++cases) && fault != KFaults[0]) continue;
                const std::string name = "box-" + std::to_string(cases);
                SCOPED_TRACE(describe(cases, fault, call) + " of save " + std::to_string(save + 1));
                gateway_.emptyLog();
                tracer_->arm(1U << save, call, fault);
                const std::string reply = configure(name);
                ASSERT_TRUE(gateway_.isStoreWhole());
                if (fault == KFaults[0]) isThere = tracer_->struck();
                struck += tracer_->struck();
                if (fault == KKill && tracer_->struck()) {
                    EXPECT_EQ(gateway_.daemon->wait(), 128 + SIGKILL);
                    gateway_.start();
                    trace();
                    ASSERT_EQ(configure(name), KDone);
                } else {
                    EXPECT_EQ(reply, KDone);
                    EXPECT_EQ(failedSaves(), tracer_->reported());
                    EXPECT_FALSE(std::filesystem::exists(std::string(KStore) + ".new"));
                    saves = tracer_->saves();

                    EXPECT_TRUE(save + 1 == saves || gateway_.disagreement().empty()) << "the next save did not heal";
                }
                tracer_->arm(0, 0, 0);
                gateway_.heal(name);
                ASSERT_EQ(gateway_.stored("HostName"), name);
            }
        }
    }
    end();
    printf("store: %d faults at %d system calls of the %d saves of one Configure\n", struck, calls, saves);
}

TEST_F(StoreFault, AnyCallOfTheSavesOfASynchronizationMayFail) {
    gateway_.startHasty();
    gateway_.heal("first");
    trace();
    int cases = 0, calls = 0, struck = 0;
    bool isThere = true;
    for (int call = 1; isThere; calls += isThere, ++call) {
        for (const int fault : KFaults) {
            if (fault == KKill || (!isChosen(++cases) && fault != KFaults[0])) continue;
            const std::string name = "box-" + std::to_string(cases);
            SCOPED_TRACE(describe(cases, fault, call));
            gateway_.cloud->order({"register", "HA-1", name, "true"});
            gateway_.emptyLog();
            tracer_->arm(0xF, call, fault);
            gateway_.platform.set("NMC.HomeAutomation", "Enable", cases % 2 ? "1" : "true");
            ASSERT_TRUE(waitFor([&] { return allSaves() == 4; }));
            ASSERT_TRUE(gateway_.isStoreWhole());
            if (fault == KFaults[0]) isThere = tracer_->struck();
            struck += tracer_->struck();
            EXPECT_EQ(failedSaves(), tracer_->reported());
            tracer_->arm(0, 0, 0);
            gateway_.heal(name);
            ASSERT_EQ(gateway_.stored("HostName"), name);
        }
    }
    end();
    printf("store: %d faults at the %d system calls of each of the 4 saves of a synchronization\n", struck, calls);
}

TEST_F(StoreFault, AFullReadOnlyOrMissingFolderIsLoggedAndHealed) {
    gateway_.start();
    configure("box");
    const std::string good = readFile(KStore);
    ASSERT_EQ(mkdir("/var/run/medium", 0755), 0);
    struct Case {
        const char *name, *source, *type;
        unsigned long flags;
        const char* options;
    };
    for (const Case& c : {
             Case{"full",      "none",            "tmpfs", MS_REMOUNT,             "size=4k"},
             Case{"read-only", "none",            "tmpfs", MS_REMOUNT | MS_RDONLY, nullptr  },
             Case{"missing",   "/var/run/medium", nullptr, MS_BIND,                nullptr  },
    }) {
        SCOPED_TRACE(c.name);
        gateway_.emptyLog();
        ASSERT_EQ(mount(c.source, "/media", c.type, c.flags, c.options), 0) << strerror(errno);
        ASSERT_TRUE(c.flags != MS_BIND || rmdir(c.source) == 0);  // what is left can hold no file
        EXPECT_EQ(configure(c.name), KDone);
        gateway_.log.next(" WARN Failed to store datamodel for object OrvoService in file orvoservice.odl");
        gateway_.log.next("ERROR Cannot save OrvoService object");
        EXPECT_EQ(readFile(KStore), c.flags == MS_BIND ? "" : good);
        if (c.flags == MS_BIND) {
            ASSERT_EQ(umount2("/media", MNT_DETACH), 0);
        } else {
            ASSERT_EQ(mount("none", "/media", "tmpfs", MS_REMOUNT, "size=1m"), 0);
        }
        gateway_.heal(c.name);
        writeFile(KStore, good);
    }
    end();
}
