// What the daemon relies on when it talks to the gateway's data model. A porter builds this with the platform's own
// client library and runs it on the platform's own bus. ORSM_PCB_BUS is the command that starts that bus at
// /var/run/pcb_sys. It is empty when nothing has to be started: the bus runs already, or the library holds the data
// model itself. What pcblib offers beyond what the daemon uses is tried with the stand-in alone.
#include "pcblib/pcbclient.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <thread>

#include "common/json/json.h"
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
static std::vector<request_t*> iSent;
WRAP(decltype(pcb_sendRequest(nullptr, nullptr, nullptr)), pcb_sendRequest, pcb_t* pcb, peer_info_t* peer,
     request_t* request) {
    iSent.push_back(request);
    return !iRefuses && __real_pcb_sendRequest(pcb, peer, request);
}

// Cuts one notification behind its first parameter.
static bool iCutsShort = false;
WRAP(notification_parameter_t*, notification_nextParameter, notification_parameter_t* parameter) {
    return std::exchange(iCutsShort, false) ? nullptr : __real_notification_nextParameter(parameter);
}

using Texts = std::vector<std::string>;

// What the callbacks received, in order; the loop stops when there are `iStopAfter`.
static Texts iReceived;
static size_t iStopAfter;

static void receive(const std::string& what) {
    iReceived.push_back(what);
    if (iReceived.size() == iStopAfter) stopPcbDataModelEventLoop();
}

// A library may give a flag as "1" or "0"; null is "(none)".
static std::string plain(const char* value) {
    const std::string text = value ? value : "(none)";
    return text == "1" ? "true" : text == "0" ? "false" : text;
}

static void objectChanged(const char* path, object_t* object) {
    receive(std::string("object ") + path + " " + plain(easyGetPcbParamByName(object, "Enable").get()));
}

static void paramChanged(const char* path, const char* parameter, const char* oldValue, const char* newValue) {
    receive(std::string(path) + " " + parameter + " " + plain(oldValue) + "->" + plain(newValue));
}

static void functionReturned(const char* path, const char* function, const char* result) {
    receive(std::string(path) + " " + function + " " + textOrEmpty(result));
}

static bool busListens() {
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = {AF_UNIX, "/var/run/pcb_sys"};
    const bool listens = connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(probe);
    return listens;
}

// Null where nothing has to be started.
static std::unique_ptr<world::Process> startBus() {
    const char* const command = getenv("ORSM_PCB_BUS");
    if (!command) return world::startPcbBus();
    if (!*command) return nullptr;
    auto bus = std::make_unique<world::Process>(std::vector<std::string>{"sh", "-c", std::string("exec ") + command});
    EXPECT_TRUE(world::waitFor(busListens)) << "nothing listens at /var/run/pcb_sys: " << bus->output();
    return bus;
}

// A call with the parameters that the daemon gives.
static request_t* prepare(const std::string& function) {
    request_t* request = prepareToExecutePcbFunction("NeMo.Intf.data", function.c_str());
    EXPECT_TRUE(addStringParameter(request, "flag", function == "hasFlag" ? "cgnat" : "global"));
    if (function == "hasFlag") return request;
    EXPECT_TRUE(addStringParameter(request, "subscriber", "test") && addStringParameter(request, "class", "getAddrs") &&
                addStringParameter(request, "traverse", "down"));
    return request;
}

class Client : public testing::Test {
  protected:
    Client() {
        static int seen = 0;
        signal(SIGTERM, [](int) { ++seen; });
        signal(SIGINT, [](int) { ++seen; });
        // In the daemon's order: the singleton comes second.
        other_ = easyCreatePcbDataModelClient();
        if (!other_ || !createPcbDataModelClient()) throw std::runtime_error("no client: " + log_.content());
        EXPECT_GE(seen, 3) << "a signal is lost while the library has it";
        signal(SIGTERM, [](int) { endPcbDataModelEventLoop(); });
        setPcbChangesCallbacks(objectChanged, paramChanged);
        setPcbFunctionCallback(functionReturned);
        set("OrvoService.DynDNS", "Enable", "false");
        set("OrvoService.DynDNS", "HostName", "");
        set("OrvoService.Voltaro", "Enable", "false");
    }
    ~Client() override {
        destroyPcbDataModelClient();
        easyDestroyPcbDataModelClient(other_);
    }

    // Runs the loop until so much has been received; 0: until it is stopped otherwise.
    Texts run(size_t count) {
        iStopAfter = count;
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
    // As the daemon: a client that has fetched nothing yet loads, and then goes over to another thread.
    PcbContext* const fresh = easyCreatePcbDataModelClient();
    EXPECT_TRUE(easyPcbDatamodelLoad_v2(fresh, "/media", "o.odl", "OrvoService"));
    log_.next(" INFO /media/o.odl loaded from OrvoService");
    std::thread([=] {
        EXPECT_STREQ(easyGetPcbParamAsString(fresh, object, "HostName").get(), "a \"quoted\" \\ text");
        EXPECT_TRUE(easySetPcbParam(fresh, object, "HostName", "other") && easyGetPcbObject(fresh, object) &&
                    easyPcbDatamodelSave_v2(fresh, "/media", "o.odl", "OrvoService"));
        easyDestroyPcbDataModelClient(fresh);
    }).join();
    EXPECT_NE(world::readFile("/media/o.odl").find("other"), std::string::npos);
    const auto failed = [&](bool done, const char* line) {
        EXPECT_FALSE(done) << line;
        log_.next(line);
    };
    object_t* fetched = easyGetPcbObject(other_, object);
    EXPECT_EQ(plain(easyGetPcbParamByName(fetched, "Enable").get()), "true");
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
                                   listenToChangesInPcbObject("OrvoService.DynDNS")};
    Texts objects = run(2);
    std::sort(objects.begin(), objects.end());
    EXPECT_EQ(objects, (Texts{"object OrvoService.DynDNS false", "object OrvoService.Voltaro false"}));
    set("OrvoService.Voltaro", "Enable", "true");
    EXPECT_EQ(run(1), Texts{"OrvoService.Voltaro Enable false->true"});
    set("OrvoService.DynDNS", "Enable", "true");
    set("OrvoService.DynDNS", "HostName", "box");
    EXPECT_EQ(run(2), (Texts{"OrvoService.DynDNS Enable false->true", "OrvoService.DynDNS HostName ->box"}));
    log_.next("ERROR Request failed, error - ");
    // Half a notification is not passed on: it would look like a parameter that was cleared.
    iCutsShort = true;
    set("OrvoService.DynDNS", "HostName", "half");
    set("OrvoService.DynDNS", "Enable", "false");
    EXPECT_EQ(run(1), Texts{"OrvoService.DynDNS Enable true->false"});
    log_.next(" WARN Incomplete change notification from OrvoService.DynDNS");
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
    first = executePreparedPcbFunctionAsync(prepare("hasFlag"));
    second = executePreparedPcbFunctionAsync(prepare("hasFlag"));
    EXPECT_EQ(log_.count("connectin_setEventsAvailable() returned "), 2U);
    EXPECT_EQ(run(3), (Texts{"hasFlag", "hasFlag", "object OrvoService.Voltaro false"}));
    EXPECT_TRUE(iSent.size() == 3 && iSent[0] == second && iSent[1] == first);
    EXPECT_TRUE(iLost.empty());

    // The owner of a call that cannot be sent hears of it, and it is released once.
    iRefuses = true;
    first = executePreparedPcbFunctionAsync(prepare("hasFlag"));
    freePcbRequestObjectAsync(first);
    run(0);
    EXPECT_EQ(iLost, Texts{"first"});
    log_.next("Failed to send request (0x");
    iRefuses = false;
    freePcbRequestObject(executePreparedPcbFunctionAsync(prepare("hasFlag")));
    listenToChangesInPcbObjectAsync(copyText("OrvoService.Voltaro"));
    EXPECT_EQ(run(1), Texts{"object OrvoService.Voltaro false"});
    EXPECT_EQ(log_.count("connectin_setEventsAvailable() returned "), 9U) << "each wakes the loop";
}

TEST_F(Client, GivesFunctionResultsAsJson) {
    setPcbFunctionCallback([](const char*, const char* function, const char* result) {
        receive(std::string(function) + " " + textOrEmpty(jsonTextMember(parseJson(result).get(), "returns")));
    });
    request_t* const unknown = executePcbFunction("NeMo.Intf.data", "noFunction");
    request_t* const flag = executePreparedPcbFunction(prepare("hasFlag"));
    request_t* const open = executePreparedPcbFunction(prepare("openQuery"));
    ASSERT_TRUE(unknown && flag && open);
    // A boolean and a number, by the library's own types.
    Texts results = run(2);
    std::sort(results.begin(), results.end());
    EXPECT_NE(std::string("hasFlag true, hasFlag false, hasFlag 1, hasFlag 0").find(results.at(0)), std::string::npos);
    const std::string number = results.at(1).substr(strlen("openQuery "));
    EXPECT_TRUE(!number.empty() && number.find_first_not_of("0123456789") == std::string::npos) << results[1];
    log_.next("Request failed, error - ");
    request_t* const close = executePreparedPcbFunction(prepare("closeQuery"));
    for (request_t* request : {flag, unknown, open, close}) {
        freePcbRequestObject(request);
    }
}

TEST_F(Client, OffersMoreThanTheDaemonUses) {
    if (!easyGetPcbObject(other_, "Simulation.Functions")) GTEST_SKIP() << "these functions are the stand-in's";
    setPcbCustomNotificationCallback(
        [](const char* path, const char* value) { receive(std::string("custom ") + path + " " + value); });
    request_t* notify = prepareToExecutePcbFunction("Simulation.Functions", "notify");
    EXPECT_TRUE(addStringParameter(notify, "object", "OrvoService.DynDNS") && addStringParameter(notify, "value", "v"));
    request_t* echo = prepareToExecutePcbFunction("Simulation.Functions", "echo");
    variant_map_t* map = createMapParameter();
    EXPECT_TRUE(addIntParameterToMap(map, "number", -1) && addBoolParameterToMap(map, "flag", 2) &&
                addMapParameter(echo, "extra", map));
    freeMapParameter(map);
    request_t* const requests[] = {listenToCustomNotificationsFromPcbObject("OrvoService.DynDNS"),
                                   listenToNotificationsFromPcbObject("OrvoService.DynDNS"),
                                   executePreparedPcbFunction(notify), executePreparedPcbFunction(echo)};
    EXPECT_EQ(run(3), (Texts{"custom OrvoService.DynDNS v", R"(Simulation.Functions notify {"returns":null})",
                             R"(Simulation.Functions echo {"returns":null,"number":"-1","flag":"true"})"}));
    EXPECT_EQ(log_.count("Incomplete change notification"), 0U) << "a notification that is no change";
    for (request_t* request : requests) {
        freePcbRequestObject(request);
    }
    EXPECT_STREQ(easyExecutePcbFunction(other_, "NeMo.Intf.data", "hasFlag"), R"({"returns":"false"})");
    const char* name = nullptr;
    OwnedText value;
    parameter_t* cursor = nullptr;
    EXPECT_TRUE(easyGetPcbParamNext(easyGetPcbObject(other_, "OrvoService.GatewayClient"), &cursor, &name, &value));
    EXPECT_EQ(std::string(name) + "=" + value.get(), "ConnectionStatus=false");
}

TEST_F(Client, SignalEndsTheLoop) {
    std::thread killer([&] {
        EXPECT_TRUE(world::waitFor([&] { return log_.count("Entered pcb data model event loop") == 1; }));
        kill(getpid(), SIGTERM);
    });
    run(0);
    killer.join();
    run(0);
    EXPECT_EQ(log_.count("Leaving pcb data model event loop"), 2U);
    // A library may report a wait that a signal interrupts as failed.
    EXPECT_EQ(log_.count("ERROR"), log_.count("ERROR Error "));
}
