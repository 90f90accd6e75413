// The synchronization, driven step by step against a real data model and a real server.
#include "src/dbusinterface/dyndns_sync.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/time.h>

#include <cerrno>

#include "common/log/log.h"
#include "src/dbusinterface/event_reactions.h"
#include "src/dbusinterface/gateway_client.h"
#include "src/dbusinterface/service_store.h"
#include "src/dyndnsrequest.h"
#include "tests/world/cloud.h"
#include "tests/world/test_log.h"
#include "tests/world/wrap.h"

// A clock that only sleeping moves, so that the wait for the GatewayClient takes no time. Its wall clock can be set.
static int iLooksBeforeJump;
static time_t iWallClockJump;
static int64_t iVirtualNanoseconds;
static time_t iVirtualWallClock = 1'700'000'000;

WRAP(time_t, time, time_t*) {
    if (iLooksBeforeJump-- == 0) iVirtualWallClock += iWallClockJump;
    return static_cast<time_t>(iVirtualWallClock + iVirtualNanoseconds / 1'000'000'000);
}

WRAP(int, clock_gettime, clockid_t, timespec* now) {
    *now = {static_cast<time_t>(iVirtualNanoseconds / 1'000'000'000),
            static_cast<long>(iVirtualNanoseconds % 1'000'000'000)};
    return 0;
}

WRAP(int, nanosleep, const timespec* duration, timespec* left) {
    static int calls = 0;
    if (++calls % 2) {  // every other sleep is cut short by a signal, half way
        *left = {0, duration->tv_nsec / 2};
        iVirtualNanoseconds += duration->tv_nsec / 2;
        errno = EINTR;
        return -1;
    }
    iVirtualNanoseconds += duration->tv_nsec;
    return 0;
}

// How many whole seconds from now the timer fires; 0 when it is not armed.
static long armedDelay() {
    timeval fires;
    if (!iDynDnsSyncTimer || !event_pending(iDynDnsSyncTimer, EV_TIMEOUT, &fires)) return 0;
    timeval now;
    gettimeofday(&now, nullptr);
    const double seconds =
        static_cast<double>(fires.tv_sec - now.tv_sec) + static_cast<double>(fires.tv_usec - now.tv_usec) / 1e6;
    return static_cast<long>(seconds + 0.9);
}

// One step, as if the timer had fired.
static void step() {
    if (!iDynDnsSyncTimer) synchronizeDynDnsConfiguration();
    event_del(iDynDnsSyncTimer);
    runDynDnsSyncStep(-1, 0, nullptr);
}

static void react(EventCode code, const std::string& value) {
    EventRecord record = {};
    record.code = code;
    value.copy(record.value, KEventValueMaxLength);
    reactToEvent(record);
}

TEST(SyncDecision, TheFirstTestThatAppliesDecides) {
    const std::tuple<SyncState, SyncAction, int, const char*> cases[] = {
        {{"", 0, 0, 0, false},  SyncAction::SwitchOff,     LEVEL_WARN, "HA-ID is empty"                       },
        {{"H", 0, 0, 0, false}, SyncAction::RetryLater,    LEVEL_INFO, "HA enable - state unknown"            },
        {{"H", 2, 0, 0, false}, SyncAction::SwitchOff,     LEVEL_INFO, "HA is disabled"                       },
        {{"H", 1, 0, 0, false}, SyncAction::RetryLater,    LEVEL_INFO, "DNS server is not yet ready"          },
        {{"H", 1, 2, 1, false}, SyncAction::RetryLater,    LEVEL_INFO, "DNS server is not yet ready"          },
        {{"H", 1, 1, 0, false}, SyncAction::RetryLater,    LEVEL_INFO, "CG-NAT check - state unknown"         },
        {{"H", 1, 1, 1, false}, SyncAction::SwitchOff,     LEVEL_INFO, "CG-NAT check - we are behind CG-NAT"  },
        {{"H", 1, 1, 2, false}, SyncAction::RetryLater,    LEVEL_WARN, "Application server URL is not defined"},
        {{"H", 1, 1, 2, true},  SyncAction::FetchAndStore, LEVEL_INFO, nullptr                                },
    };
    for (const auto& [state, action, level, reason] : cases) {
        SCOPED_TRACE(textOrEmpty(reason));
        const SyncDecision decision = decideSync(state);
        EXPECT_EQ(decision.action, action);
        EXPECT_EQ(decision.level, level);
        EXPECT_STREQ(decision.reason, reason);
    }
}

class Sync : public testing::Test {
  protected:
    Sync() {
        EXPECT_TRUE(initRequestsEngine(cloud_->caPath().c_str(), cloud_->url().c_str(), cloud_->url().c_str()));
        iBusPcbClient = easyCreatePcbDataModelClient();
        iBusEventBase = event_base_new();
        react(EVENT_APP_SERVER_URL_INIT, "");
        react(EVENT_HA_ENABLE_INIT, "true");
        react(EVENT_DNS_SERVER_STATUS_INIT, "1");
        react(EVENT_CGNAT_STATUS_INIT, "false");
        react(EVENT_DYNDNS_ENABLE_INIT, "false");
        react(EVENT_HA_ID_INIT, "HA-1");
    }

    ~Sync() override {
        if (iDynDnsSyncTimer) event_free(iDynDnsSyncTimer);
        event_base_free(iBusEventBase);
        easyDestroyPcbDataModelClient(iBusPcbClient);
        cleanRequestsEngine();
    }

    static std::string value(const char* object, const char* parameter) {
        return textOrEmpty(easyGetPcbParamAsString(iBusPcbClient, object, parameter).get());
    }
    static std::string dynDns(const char* parameter) { return value("OrvoService.DynDNS", parameter); }
    void set(const char* object, const char* parameter, const char* text) {
        EXPECT_EQ(world::run({world::binary("pcb-ctl"), "set", object, parameter, text}), 0);
    }

    world::LogReader log_ = world::startLog();
    std::unique_ptr<world::Process> bus_ = world::startPcbBus();
    std::unique_ptr<world::Cloud> cloud_ = world::startCloud();
};

TEST_F(Sync, NothingRunsUntilSomethingTriggersIt) {
    EXPECT_EQ(armedDelay(), 0);
    react(EVENT_DNS_SERVER_STATUS_CHANGED, "0");
    react(EVENT_CGNAT_STATUS_CHANGED, "false");
    react(EVENT_APP_SERVER_URL_CHANGED, "");
    react(EVENT_WAN_ADDRESS_CHANGED, "true");
    EXPECT_EQ(armedDelay(), 0);
    EXPECT_EQ(log_.count("Synchronizing"), 0U);

    react(EVENT_HA_ENABLE_CHANGED, "true");  // the same value: triggers all the same
    log_.next("Synchronizing DynDNS in reaction to HA enable change");
    log_.next("DynDns sync timer has to be created");
    log_.next("Sync dyndns timer started");
    EXPECT_EQ(armedDelay(), 1);
    react(EVENT_CGNAT_STATUS_CHANGED, "1");
    log_.next("CG-NAT status: 1");
    log_.next("Synchronizing DynDNS in reaction to CG-NAT change");
    log_.next("Pending event for DynDns sync timer has to be cancelled");
    react(static_cast<EventCode>(15), "");
    log_.next("Unknown event");
    EXPECT_EQ(log_.count("ignored"), 0U);
}

TEST_F(Sync, RetriesGrowToAnHourAndStartOverWithATrigger) {
    react(EVENT_DNS_SERVER_STATUS_CHANGED, "");
    for (long retry = 1; retry <= 722; ++retry) {
        step();
        ASSERT_EQ(armedDelay(), std::min(5 * retry, 3600L)) << "retry " << retry;
    }
    react(EVENT_HA_ID_CHANGED, "HA-2");
    EXPECT_EQ(armedDelay(), 1);
    step();
    EXPECT_EQ(armedDelay(), 5);
    EXPECT_TRUE(cloud_->journal().empty());
}

TEST_F(Sync, ARetryCountsFromTheFailureHoweverLongTheStepTook) {
    react(EVENT_DNS_SERVER_STATUS_CHANGED, "");
    synchronizeDynDnsConfiguration();
    const auto slowStep = [](evutil_socket_t, short, void*) {
        poll(nullptr, 0, 1500);  // a blocking step: the loop's own idea of the time stands still
        step();
        EXPECT_EQ(armedDelay(), 5);
    };
    const timeval now = {};
    event_base_once(iBusEventBase, -1, EV_TIMEOUT, slowStep, nullptr, &now);
    event_base_loop(iBusEventBase, EVLOOP_ONCE);
}

TEST_F(Sync, AServerThatFailsChangesNothing) {
    set("OrvoService.GatewayClient", "ConnectionStatus", "true");
    set("OrvoService.DynDNS", "HostName", "kept");
    for (const char* fault : {"not-json", "close"}) {
        cloud_->fault("get", fault);
        step();
    }
    EXPECT_EQ(armedDelay(), 10);
    EXPECT_EQ(dynDns("HostName"), "kept");
}

TEST_F(Sync, AnInterruptedSynchronizationGoesOnWithTheInitialHaId) {
    set("OrvoService.DynDNS", "SyncNotFinished", "1");
    react(EVENT_HA_ID_INIT, std::string(200, 'x'));
    log_.next("Continuing unfinished DynDNS synchronization");
    EXPECT_EQ(armedDelay(), 1);
    EXPECT_EQ(std::string(getHomeAutomationId()), std::string(127, 'x'));
    react(EVENT_HA_ID_CHANGED, "short");
    EXPECT_STREQ(getHomeAutomationId(), "short");

    bus_->send(SIGKILL);
    bus_->wait();
    react(EVENT_HA_ID_INIT, "HA-1");
    log_.next("Cannot determine state of previous DynDNS synchronization");
    step();
    log_.next("Cannot set dyn dns SyncNotFinished=1");
    log_.next("Cannot set DynDNS enable value in PCB");
    EXPECT_EQ(armedDelay(), 5);
}

TEST_F(Sync, SwitchesOffLocallyOnceAndOnlyIfItIsOn) {
    set("OrvoService.DynDNS", "HostName", "box");
    react(EVENT_HA_ENABLE_CHANGED, "");
    step();
    EXPECT_EQ(dynDns("HostName"), "box");
    react(EVENT_DYNDNS_ENABLE_INIT, "1");
    step();
    log_.next("HA is disabled");
    log_.next("DynDNS enable=false saved in PCB");
    log_.next("DynDNS empty hostname saved in PCB");
    log_.next("/media/orvoservice.odl saved to OrvoService");
    EXPECT_EQ(dynDns("HostName"), "");
    EXPECT_EQ(armedDelay(), 0);
    EXPECT_TRUE(cloud_->journal().empty());
}

TEST_F(Sync, PushesTheStoredNameWhenTheSwitchReallyChanged) {
    react(EVENT_DYNDNS_ENABLE_CHANGED, "true");
    log_.next("Setup dyn dns on server");
    log_.next("Dyn DNS name is empty, enabling/disabling is irrelevant");
    set("OrvoService.DynDNS", "HostName", "box");
    set("OrvoService.GatewayClient", "ConnectionStatus", "true");
    react(EVENT_DYNDNS_ENABLE_CHANGED, "1");
    react(EVENT_DYNDNS_ENABLE_CHANGED, "no");
    log_.next("Setting dyn dns configuration");
    log_.next("Dyn DNS Configure OK: ");
    ASSERT_EQ(cloud_->journal().size(), 1U);
    EXPECT_EQ(cloud_->journal().back().body, R"({"name":"box","haId":"HA-1","enabled":false})");

    cloud_->answer("set", 200, R"({"status":"NO"})");
    react(EVENT_DYNDNS_ENABLE_CHANGED, "true");
    log_.next("Failed to configure DynDNS: NO");
    cloud_->order({"fault", "set", "close", "1"});
    react(EVENT_DYNDNS_ENABLE_CHANGED, "false");
    log_.next("Set dyn dns configuration  error");
    react(EVENT_CGNAT_STATUS_CHANGED, "1");
    react(EVENT_DYNDNS_ENABLE_CHANGED, "true");
    log_.next("No possibility to setup dyn dns on server");
    EXPECT_EQ(cloud_->journal().size(), 3U);
}

TEST_F(Sync, TheGuardWaitsPutsTheModeBackAndGivesUpInTime) {
    struct Case {
        const char *mode, *connects;
        bool switched;
        const char* line;
        time_t clock, jump;  // where the wall clock begins, and how far it jumps during the wait
        int seconds;         // of the wait
    };
    constexpr int KAcrossTheEnd = sizeof(time_t) == 4 ? 12 : 11;  // a clock that begins anew is one set back
    constexpr time_t KNow = 1'700'000'000, KHour = 3600, KTenYears = 315'576'000, KEndOf32Bits = 2'147'483'647;
    set("Simulation.GatewayClient", "ConnectDelay", "0");
    for (const Case& c : {
             Case{"ondemand", "true",  true,  "GatewayClient is connected", KNow,             0,         0            },
             Case{"ondemand", "false", true,  "giving up",                  KNow,             0,         11           },
             Case{"on",       "false", false, "giving up",                  KNow,             0,         11           },
             Case{"ondemand", "false", true,  "giving up",                  KNow,             -KHour,    12           },
             Case{"ondemand", "false", true,  "giving up",                  KNow,             KTenYears, 1            },
             Case{"ondemand", "false", true,  "giving up",                  KEndOf32Bits - 5, 0,         KAcrossTheEnd},
    }) {
        SCOPED_TRACE(std::string(c.mode) + " " + c.connects + " " + std::to_string(c.clock + c.jump));
        set("Simulation.GatewayClient", "Connects", c.connects);
        set("OrvoService.GatewayClient", "ConnectionMode", c.mode);
        set("OrvoService.GatewayClient", "ConnectionStatus", "false");
        iVirtualNanoseconds = 0;
        iVirtualWallClock = c.clock;
        iWallClockJump = c.jump;
        iLooksBeforeJump = 10;
        EXPECT_EQ(ensureGatewayClientIsConnected(), c.switched);
        log_.next(c.line);
        EXPECT_EQ(value("OrvoService.GatewayClient", "ConnectionMode"), "on");
        EXPECT_EQ(iVirtualNanoseconds / 1'000'000'000, c.seconds);
    }
    setGatewayClienModeOnDemand();
    EXPECT_EQ(value("OrvoService.GatewayClient", "ConnectionMode"), "ondemand");

    // The request is made although no connection came, and the mode is back before its answer is judged.
    set("Simulation.GatewayClient", "Connects", "false");
    step();
    log_.next("GatewayClient still cannot connect to ApplicationServer - giving up");
    log_.next("Request OK");
    log_.next("GatewayClient connection mode = ondemand saved in PCB");
    log_.next("Get dyn dns configuration OK");
}
