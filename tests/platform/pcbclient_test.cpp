// What the daemon relies on when it talks to the gateway's data model. A porter builds this with the platform's own
// client library and runs it on the platform's own bus. ORSM_PCB_BUS is the command that starts that bus at
// /var/run/pcb_sys. It is empty when nothing has to be started: the bus runs already, or the library holds the data
// model itself.
#include "pcblib/pcbclient.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <thread>

#include "tests/world/test_log.h"
#include "tests/world/wrap.h"

// A library may take the signals that end a program, at either of these moments, and they may come just then.
WRAP(decltype(connection_initLibrary()), connection_initLibrary) {
    for (const int taken : {SIGTERM, SIGINT}) {
        signal(taken, SIG_DFL);
        raise(taken);
    }
    return __real_connection_initLibrary();
}
WRAP(peer_info_t*, pcb_client_connect, pcb_t* pcb, const char* uri) {
    signal(SIGTERM, SIG_DFL);
    peer_info_t* const peer = __real_pcb_client_connect(pcb, uri);
    connection_setTerminated(true);  // as the library does when SIGTERM came
    return peer;
}

static bool iRefuses = false;
WRAP(decltype(pcb_sendRequest(nullptr, nullptr, nullptr)), pcb_sendRequest, pcb_t* pcb, peer_info_t* peer,
     request_t* request) {
    return !iRefuses && __real_pcb_sendRequest(pcb, peer, request);
}

static bool iIsCutShort = false;
WRAP(notification_parameter_t*, notification_nextParameter, notification_parameter_t* parameter) {
    return iIsCutShort ? nullptr : __real_notification_nextParameter(parameter);
}

using Texts = std::vector<std::string>;

// What the callbacks received, in order; the loop stops when `iStopAfter` has been received.
static Texts iReceived;
static std::string iStopAfter;

static void receive(const std::string& what) {
    iReceived.push_back(what);
    if (what == iStopAfter) stopPcbDataModelEventLoop();
}

static void objectChanged(const char* path, object_t* object) {
    std::string text = std::string("object ") + path;
    parameter_t* cursor = nullptr;
    const char* name = nullptr;
    OwnedText value;
    while (easyGetPcbParamNext(object, &cursor, &name, &value)) {
        text += std::string(" ") + name + "=" + value.get();
    }
    receive(text);
}

static void paramChanged(const char* path, const char* parameter, const char* oldValue, const char* newValue) {
    receive(std::string(path) + " " + parameter + " " + oldValue + "->" + newValue);
}

static void functionReturned(const char* path, const char* function, const char* result) {
    receive(std::string(path) + " " + function + " " + textOrEmpty(result));
}

// Null where nothing has to be started.
static std::unique_ptr<world::Process> startBus() {
    const char* const command = getenv("ORSM_PCB_BUS");
    if (!command) return world::startPcbBus();
    if (!*command) return nullptr;
    return std::make_unique<world::Process>(std::vector<std::string>{"sh", "-c", std::string("exec ") + command});
}

class Client : public testing::Test {
  protected:
    Client() {
        static int seen = 0;
        signal(SIGTERM, [](int) { ++seen; });
        signal(SIGINT, [](int) { ++seen; });
        EXPECT_TRUE(world::waitFor([] { return createPcbDataModelClient(); }));
        EXPECT_GE(seen, 3) << "a signal is lost while the library has it";
        setPcbChangesCallbacks(objectChanged, paramChanged);
        setPcbFunctionCallback(functionReturned);
        other_ = easyCreatePcbDataModelClient();
        signal(SIGTERM, [](int) { endPcbDataModelEventLoop(); });
        set("OrvoService.DynDNS", "Enable", "false");
        set("OrvoService.DynDNS", "HostName", "");
        set("OrvoService.Voltaro", "Enable", "false");
    }
    ~Client() override {
        easyDestroyPcbDataModelClient(other_);
        destroyPcbDataModelClient();
    }

    Texts runUntil(const std::string& last) {
        iStopAfter = last;
        iReceived.clear();
        stopPcbDataModelEventLoop();  // has no effect before the loop
        EXPECT_EQ(startPcbDataModelEventLoop(), 1);
        return iReceived;
    }
    void set(const char* object, const char* parameter, const char* value) {
        EXPECT_TRUE(easySetPcbParam(other_, object, parameter, value));
    }

    world::LogReader log_ = world::startLog();
    std::unique_ptr<world::Process> bus_ = startBus();
    PcbContext* other_;
};

TEST_F(Client, ReadsWritesSavesAndLoadsParametersAsText) {
    EXPECT_EQ(createPcbDataModelClient(), 0);
    log_.next("Pcb data model singleton already created");
    const char* object = getPcbObjectPathForDynDns();
    EXPECT_TRUE(easySetPcbParamBoolValue(other_, object, getPcbParameterDynDnsEnable(), 2));
    set(object, "HostName", "a \"quoted\" \\ text");
    // A library may fetch an object without those below it, and saves what was fetched.
    EXPECT_TRUE(easyGetPcbObject(other_, object));
    EXPECT_TRUE(easyPcbDatamodelSave_v2(other_, "/media", "o.odl", "OrvoService"));
    log_.next(" INFO /media/o.odl saved to OrvoService");
    EXPECT_TRUE(easyClearPcbParam(other_, object, "HostName"));
    EXPECT_STREQ(easyGetPcbParamAsString(other_, object, "HostName").get(), "");
    EXPECT_TRUE(easyPcbDatamodelLoad_v2(other_, "/media", "o.odl", "OrvoService"));
    log_.next(" INFO /media/o.odl loaded from OrvoService");
    EXPECT_STREQ(easyGetPcbParamAsString(iPcbContext, object, "HostName").get(), "a \"quoted\" \\ text");
    const auto failed = [&](bool done, const char* line) {
        EXPECT_FALSE(done) << line;
        log_.next(line);
    };
    object_t* fetched = easyGetPcbObject(other_, object);
    EXPECT_STREQ(easyGetPcbParamByName(fetched, "Enable").get(), "true");
    failed(!!easyGetPcbParamByName(fetched, "None"), "Get: param None not found");
    failed(!!easyGetPcbParamAsString(other_, "No.Object", "X"), "Get: Failed to get object No.Object param X (0x");
    failed(easySetPcbParam(other_, object, "None", "x"), "DynDNS param None (0x");
    failed(easyGetPcbObject(other_, "No.Object"), "GetO: Failed to get object No.Object (0x");
    failed(easyPcbDatamodelLoad_v2(other_, "/media", "none.odl", "OrvoService"), "from file /media/none.odl");
    failed(easyPcbDatamodelSave_v2(other_, "/none", "o.odl", "OrvoService"), "object OrvoService in file o.odl");
    failed(easyPcbDatamodelSave_v2(other_, "/media", "o.odl", "None"), "Cannot find object None in the datamodel");
}

TEST_F(Client, DeliversAnObjectOnceThenEveryChange) {
    request_t* const requests[] = {listenToChangesInPcbObject("No.Object"),
                                   listenToChangesInPcbObject("OrvoService.Voltaro"),
                                   listenToNotificationsFromPcbObject("OrvoService.DynDNS")};
    EXPECT_EQ(runUntil("object OrvoService.Voltaro Enable=false").size(), 1U);
    log_.next("ERROR Request failed, error - ");
    set("OrvoService.DynDNS", "Enable", "true");
    set("OrvoService.Voltaro", "Enable", "true");
    set("OrvoService.DynDNS", "HostName", "box");
    EXPECT_EQ(runUntil("OrvoService.DynDNS HostName ->box"),
              (Texts{"OrvoService.DynDNS Enable false->true", "OrvoService.Voltaro Enable false->true",
                     "OrvoService.DynDNS HostName ->box"}));
    // Half a notification is not passed on: it would look like a parameter that was cleared.
    iIsCutShort = true;
    set("OrvoService.DynDNS", "HostName", "half");
    std::thread waiter([&] {
        log_.next(" WARN Incomplete change notification from OrvoService.DynDNS");
        stopPcbDataModelEventLoop();
        (void)connection_setEventsAvailable();
    });
    EXPECT_EQ(runUntil("").size(), 0U);
    waiter.join();
    iIsCutShort = false;
    for (request_t* request : requests) {
        freePcbRequestObject(request);
    }
}

TEST_F(Client, DefersWorkAndDoesItNewestFirst) {
    static request_t *first, *second;
    static Texts iLost;
    setPcbRequestLostCallback([](request_t* request) {
        iLost.push_back(request == first ? "first" : "other");
        stopPcbDataModelEventLoop();
    });
    setPcbFunctionCallback([](const char*, const char* function, const char*) {
        receive(function);
        if (iReceived.size() == 2) {
            for (request_t* request : {first, first, second}) {  // the second release is ignored
                freePcbRequestObjectAsync(request);
            }
            listenToChangesInPcbObjectAsync(copyText("OrvoService.Voltaro"));
        }
    });
    first = executePreparedPcbFunctionAsync(prepareToExecutePcbFunction("NeMo.Intf.data", "hasFlag"));
    second = executePreparedPcbFunctionAsync(prepareToExecutePcbFunction("NeMo.Intf.data", "closeQuery"));
    EXPECT_EQ(runUntil("object OrvoService.Voltaro Enable=false"),
              (Texts{"closeQuery", "hasFlag", "object OrvoService.Voltaro Enable=false"}));
    EXPECT_TRUE(iLost.empty());

    // The owner of a call that cannot be sent hears of it, and it is released once.
    iRefuses = true;
    first = executePreparedPcbFunctionAsync(prepareToExecutePcbFunction("NeMo.Intf.data", "hasFlag"));
    freePcbRequestObjectAsync(first);
    runUntil("");
    EXPECT_EQ(iLost, Texts{"first"});
    log_.next("Failed to send request (0x");
    EXPECT_EQ(executePcbFunction("NeMo.Intf.data", "hasFlag"), nullptr);
    iRefuses = false;
    freePcbRequestObject(executePreparedPcbFunctionAsync(prepareToExecutePcbFunction("NeMo.Intf.data", "hasFlag")));
    listenToChangesInPcbObjectAsync(copyText("OrvoService.Voltaro"));
    runUntil("object OrvoService.Voltaro Enable=false");
    EXPECT_EQ(executePreparedPcbFunctionAsync(nullptr), nullptr);
    EXPECT_EQ(executePreparedPcbFunction(nullptr), nullptr);
    EXPECT_EQ(addStringParameter(nullptr, "flag", "x"), 0);
    EXPECT_EQ(log_.count("connectin_setEventsAvailable() returned "), 9U) << "each wakes the loop";
}

TEST_F(Client, GivesFunctionResultsAsJson) {
    request_t* flag = prepareToExecutePcbFunction("NeMo.Intf.data", "hasFlag");
    request_t* unknown = prepareToExecutePcbFunction("NeMo.Intf.data", "noFunction");
    request_t* open = prepareToExecutePcbFunction("NeMo.Intf.data", "openQuery");
    EXPECT_TRUE(addStringParameter(flag, "flag", "none") && addStringParameter(open, "subscriber", "test"));
    for (request_t* request : {flag, unknown, open}) {
        ASSERT_TRUE(executePreparedPcbFunction(request));
    }
    setPcbFunctionCallback([](const char* path, const char* function, const char* result) {
        functionReturned(path, function, result);
        if (strcmp(function, "openQuery") == 0) stopPcbDataModelEventLoop();
    });
    // A boolean and a number, by the library's own types.
    const Texts results = runUntil("");
    ASSERT_EQ(results.size(), 2U);
    EXPECT_EQ(results[0], R"(NeMo.Intf.data hasFlag {"returns":"false"})");
    const char* const number = results[1].c_str() + strlen(R"(NeMo.Intf.data openQuery {"returns":")");
    EXPECT_STREQ(number + strspn(number, "0123456789"), "\"}");
    log_.next("Request failed, error - ");
    EXPECT_STREQ(easyExecutePcbFunction(other_, "NeMo.Intf.data", "hasFlag"), R"({"returns":"false"})");
    EXPECT_EQ(easyExecutePcbFunction(other_, "NeMo.Intf.data", "noFunction"), nullptr);
    for (request_t* request : {flag, unknown, open}) {
        freePcbRequestObject(request);
    }
}

TEST_F(Client, SendsMapsAndHearsCustomNotifications) {
    if (!easyGetPcbObject(other_, "Simulation.Functions")) GTEST_SKIP() << "these functions are the stand-in's";
    setPcbCustomNotificationCallback(
        [](const char* path, const char* value) { receive(std::string("custom ") + path + " " + value); });
    request_t* notify = prepareToExecutePcbFunction("Simulation.Functions", "notify");
    EXPECT_TRUE(addStringParameter(notify, "object", "OrvoService.DynDNS") && addStringParameter(notify, "value", "v"));
    request_t* echo = prepareToExecutePcbFunction("Simulation.Functions", "echo");
    variant_map_t* map = createMapParameter();
    EXPECT_TRUE(addStringParameterToMap(map, "text", "x\"y") && addIntParameterToMap(map, "number", -1) &&
                addBoolParameterToMap(map, "flag", 2));
    EXPECT_TRUE(addStringParameter(echo, "A", "1") && addMapParameter(echo, "extra", map));
    freeMapParameter(map);
    request_t* const requests[] = {listenToCustomNotificationsFromPcbObject("OrvoService.DynDNS"),
                                   listenToNotificationsFromPcbObject("OrvoService.DynDNS"),
                                   executePreparedPcbFunction(notify), executePreparedPcbFunction(echo)};
    const std::string echoed =
        R"(Simulation.Functions echo {"returns":null,"A":"1","text":"x\"y","number":"-1","flag":"true"})";
    EXPECT_EQ(runUntil(echoed),
              (Texts{"custom OrvoService.DynDNS v", R"(Simulation.Functions notify {"returns":null})", echoed}));
    EXPECT_EQ(log_.count(" WARN "), 0U);
    for (request_t* request : requests) {
        freePcbRequestObject(request);
    }
}

TEST_F(Client, LoopIsStoppedByAThreadAndEndedByASignal) {
    std::atomic<bool> stopped = false;
    std::thread stopper([&] {
        // A stop before the loop begins has no effect: the loop begins.
        EXPECT_TRUE(world::waitFor([&] {
            stopPcbDataModelEventLoop();
            (void)connection_setEventsAvailable();
            return stopped.load();
        }));
    });
    runUntil("");
    stopped = true;
    stopper.join();
    std::thread killer([&] {
        EXPECT_TRUE(world::waitFor([&] { return log_.count("Entered pcb data model event loop") == 2; }));
        kill(getpid(), SIGTERM);
    });
    runUntil("");
    killer.join();
    runUntil("");
    EXPECT_EQ(log_.count("Leaving pcb data model event loop"), 3U);
    // A library may report a wait that a signal interrupts as failed.
    EXPECT_EQ(log_.count("ERROR"), log_.count("ERROR Error "));
}
