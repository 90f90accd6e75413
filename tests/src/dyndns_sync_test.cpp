// The synchronization, driven step by step against a real data model and a real server.
#include "src/dbusinterface/dyndns_sync.h"

#include <gtest/gtest.h>
#include <sys/time.h>

#include <cerrno>
#include <random>

#include "common/log/log.h"
#include "src/dbusinterface/event_reactions.h"
#include "src/dbusinterface/gateway_client.h"
#include "src/dbusinterface/reconciliation.h"
#include "src/dbusinterface/service_store.h"
#include "src/dyndnsrequest/dyndnsrequest.h"
#include "tests/world/cloud.h"
#include "tests/world/test_log.h"
#include "tests/world/wrap.h"

// A clock that only sleeping moves, so that the wait for the GatewayClient takes no time. Its wall clock can be set.
static int iLooksBeforeJump;
static time_t iWallClockJump;
static int64_t iVirtualMilliseconds;

WRAP(time_t, time, time_t*) {
    const time_t jumped = --iLooksBeforeJump < 0 ? iWallClockJump : 0;
    return static_cast<time_t>(1'700'000'000 + jumped + iVirtualMilliseconds / 1000);
}

WRAP(int, clock_gettime, clockid_t, timespec* now) {
    *now = {static_cast<time_t>(iVirtualMilliseconds / 1000),
            static_cast<long>(iVirtualMilliseconds % 1000 * 1'000'000)};
    return 0;
}

WRAP(int, nanosleep, const timespec* duration, timespec* left) {
    static bool cutShort = false;  // every other sleep is, by a signal, half way
    cutShort = !cutShort;
    const long slept = cutShort ? duration->tv_nsec / 2 : duration->tv_nsec;
    iVirtualMilliseconds += slept / 1'000'000;
    *left = {0, duration->tv_nsec - slept};
    errno = EINTR;
    return cutShort ? -1 : 0;
}

// How many whole seconds from now the timer fires; 0 when it is not armed.
static long armedDelay() {
    timeval fires, now;
    if (!iDynDnsSyncTimer || !event_pending(iDynDnsSyncTimer, EV_TIMEOUT, &fires)) return 0;
    gettimeofday(&now, nullptr);
    evutil_timersub(&fires, &now, &fires);
    return fires.tv_sec + (fires.tv_usec + 900'000) / 1'000'000;
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

TEST(SyncDecision, FirstMatchingConditionDecides) {
    using enum SyncAction;
    constexpr TriState unknown = TRI_UNKNOWN, yes = TRI_TRUE, no = TRI_FALSE;
    const std::tuple<SyncState, SyncAction, int, const char*> cases[] = {
        {{"", unknown, unknown, unknown, false},  SwitchOff,     LEVEL_WARN, "HA-ID is empty"                       },
        {{"H", unknown, unknown, unknown, false}, RetryLater,    LEVEL_INFO, "HA enable - state unknown"            },
        {{"H", no, unknown, unknown, false},      SwitchOff,     LEVEL_INFO, "HA is disabled"                       },
        {{"H", yes, unknown, unknown, false},     RetryLater,    LEVEL_INFO, "DNS server is not yet ready"          },
        {{"H", yes, no, yes, false},              RetryLater,    LEVEL_INFO, "DNS server is not yet ready"          },
        {{"H", yes, yes, unknown, false},         RetryLater,    LEVEL_INFO, "CG-NAT check - state unknown"         },
        {{"H", yes, yes, yes, false},             SwitchOff,     LEVEL_INFO, "CG-NAT check - we are behind CG-NAT"  },
        {{"H", yes, yes, no, false},              RetryLater,    LEVEL_WARN, "Application server URL is not defined"},
        {{"H", yes, yes, no, true},               FetchAndStore, LEVEL_INFO, nullptr                                },
    };
    for (const auto& [state, action, level, reason] : cases) {
        const SyncDecision decision = decideSync(state);
        EXPECT_STREQ(decision.reason, reason);
        EXPECT_TRUE(decision.action == action && decision.level == level) << textOrEmpty(reason);
    }
}

TEST(Reconciliation, FleetThatLostPowerTogetherIsSpreadOverTheInterval) {
    constexpr long KInterval = 3600;
    std::mt19937_64 random(1);
    std::vector<int> gateways(KInterval);
    for (int gateway = 0; gateway < 100'000; ++gateway) {
        ++gateways.at(static_cast<size_t>(firstReconciliationDelay(KInterval, random()) / 1'000'000));
    }
    EXPECT_LE(*std::max_element(gateways.begin(), gateways.end()), 200'000L / KInterval);
}

class Sync : public testing::Test {
  protected:
    Sync() {
        EXPECT_TRUE(initRequestsEngine(cloud_->caPath().c_str(), cloud_->url().c_str(), cloud_->url().c_str()));
        iBusPcbClient = easyCreatePcbDataModelClient();
        iBusEventBase = event_base_new();
        EXPECT_TRUE(easySetPcbParamBoolValue(iBusPcbClient, getPcbObjectPathForDynDns(), "SyncNotFinished", 0));
        set("OrvoService.GatewayClient", "ConnectionStatus", "true");
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

    static std::string get(const char* object, const char* parameter) {
        return textOrEmpty(easyGetPcbParamAsString(iBusPcbClient, object, parameter).get());
    }
    static void set(const char* object, const char* parameter, const char* text) {
        EXPECT_EQ(world::run({world::binary("pcb-ctl"), "set", object, parameter, text}), 0);
    }

    world::LogReader log_ = world::startLog();
    std::unique_ptr<world::Process> bus_ = world::startPcbBus();
    std::unique_ptr<world::Cloud> cloud_ = world::startCloud();
};

TEST_F(Sync, RetryDelayGrowsToAnHourAndRestartsWithATrigger) {
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

TEST_F(Sync, AnInterruptedSynchronizationGoesOnWithTheInitialHaId) {
    set("OrvoService.DynDNS", "SyncNotFinished", "1");
    react(EVENT_HA_ID_INIT, std::string(200, 'x'));
    log_.next("Continuing unfinished DynDNS synchronization");
    EXPECT_EQ(armedDelay(), 1);
    EXPECT_EQ(std::string(getHomeAutomationId()), std::string(127, 'x'));

    bus_->send(SIGKILL);
    bus_->wait();
    react(EVENT_HA_ID_INIT, "short");
    cloud_->order({"register", "short", "box", "true"});
    EXPECT_STREQ(getHomeAutomationId(), "short");
    log_.next("Cannot determine state of previous DynDNS synchronization");
    step();
    log_.next("Cannot set DynDNS enable value in PCB");
    EXPECT_EQ(armedDelay(), 5);
    react(EVENT_HA_ENABLE_CHANGED, "true");
    react(EVENT_DYNDNS_ENABLE_CHANGED, "true");  // not by that write any more
    log_.next("Setup dyn dns on server waits for the synchronization");
}

TEST_F(Sync, SwitchesOffLocallyOnceAndOnlyIfItIsOn) {
    set("OrvoService.DynDNS", "HostName", "box");
    react(EVENT_HA_ENABLE_CHANGED, "");
    step();
    EXPECT_EQ(get("OrvoService.DynDNS", "HostName"), "box");
    react(EVENT_DYNDNS_ENABLE_INIT, "1");
    step();
    log_.next("DynDNS enable=false saved in PCB");
    log_.next("DynDNS empty hostname saved in PCB");
    log_.next("/media/orvoservice.odl saved to OrvoService");
    EXPECT_EQ(armedDelay(), 0);
    EXPECT_TRUE(cloud_->journal().empty());
}

TEST_F(Sync, GuardWaitsRestoresTheModeAndGivesUpInTime) {
    constexpr time_t KHour = 3600, KTenYears = 315'576'000;
    // The mode, whether a connection comes, whether the mode is switched, how far the wall clock jumps during the wait,
    // and how many seconds the wait takes.
    const std::tuple<const char*, const char*, bool, time_t, int> cases[] = {
        {"ondemand", "true",  true,  0,         0 },
        {"ondemand", "false", true,  0,         11},
        {"on",       "false", false, 0,         11},
        {"ondemand", "false", true,  -KHour,    12},
        {"ondemand", "false", true,  KTenYears, 1 },
    };
    set("Simulation.GatewayClient", "ConnectDelay", "0");
    for (const auto& [mode, connects, switched, jump, seconds] : cases) {
        SCOPED_TRACE(std::string(mode) + " " + connects + " " + std::to_string(jump));
        set("Simulation.GatewayClient", "Connects", connects);
        set("OrvoService.GatewayClient", "ConnectionMode", mode);
        set("OrvoService.GatewayClient", "ConnectionStatus", "false");
        iVirtualMilliseconds = 0;
        iWallClockJump = jump;
        iLooksBeforeJump = 10;
        EXPECT_EQ(ensureGatewayClientIsConnected(), switched);
        EXPECT_EQ(get("OrvoService.GatewayClient", "ConnectionMode"), "on");
        EXPECT_EQ(iVirtualMilliseconds / 1000, seconds);
    }
    setGatewayClienModeOnDemand();
    EXPECT_EQ(get("OrvoService.GatewayClient", "ConnectionMode"), "ondemand");

    // The request is made although no connection came, and the mode is back before its answer is judged.
    cloud_->fault("get", "not-json");
    step();
    log_.next("giving up");
    log_.next("Request OK");
    log_.next("GatewayClient connection mode = ondemand saved in PCB");
    log_.next("Get dyn dns configuration OK");
}

TEST_F(Sync, StoresAnAnswerOrRetries) {
    // A fault or a body comes to this name and this switch; with a line of an error the step is tried again.
    const auto comesTo = [&](const std::string& answer, const char* name, const char* enable, const char* error) {
        SCOPED_TRACE(answer);
        answer[0] == '{' ? cloud_->answer("get", 200, answer) : cloud_->fault("get", answer);
        step();
        EXPECT_EQ(get("OrvoService.DynDNS", "HostName"), name);
        EXPECT_EQ(get("OrvoService.DynDNS", "Enable"), enable);
        EXPECT_EQ(get("OrvoService.DynDNS", "SyncNotFinished"), *error ? "true" : "false");
        EXPECT_EQ(armedDelay() > 0, *error != 0);
        log_.next(error);
    };
    comesTo(R"({"STATUS":"SUCCESS","dyndns":{"Name":"Box","ENABLED":true}} more)", "Box", "true", "");
    comesTo("close", "Box", "true", "ERROR Get dyn dns configuration error");
    comesTo("http500", "Box", "true", " WARN Dyn DNS status error: INTERNAL_ERROR");
    comesTo("not-json", "Box", "true", "ERROR Server error or error during parsing server response");
    comesTo(R"({"status":"SUCCESS","dynDNS":{"name":"b","enabled":"true"}})", "b", "false", "");
    comesTo(R"({"status":"SUCCESS","dynDNS":{"name":7,"enabled":true}})", "", "true", "");
    comesTo(R"({"status":"SUCCESS","dynDNS":"box"})", "", "false", "");
}

TEST_F(Sync, OwedPushGoesOutFirstUntilItIsForgotten) {
    const auto change = [&] {
        set("OrvoService.DynDNS", "HostName", "box");
        set("OrvoService.DynDNS", "Enable", "true");
        react(EVENT_DYNDNS_ENABLE_CHANGED, "true");
        reconcileDynDnsConfiguration();
        step();
        step();  // the retry
    };
    cloud_->order({"take", "box"});
    cloud_->order({"register", "HA-2", "box", "false"});
    change();
    react(EVENT_HA_ID_CHANGED, "HA-2");
    step();
    change();
    reconcileDynDnsConfiguration();  // refused for an interval
    step();
    reconcileDynDnsConfiguration();
    step();
    EXPECT_EQ(log_.count("Failed to configure DynDNS: NAME_TAKEN"), 6U);
    EXPECT_EQ(get("OrvoService.DynDNS", "Enable"), "false");
}
