// The data-model client against the real data-model bus.
#include "pcblib/pcbclient.h"

#include <gtest/gtest.h>

#include "tests/world/test_log.h"

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

class Client : public testing::Test {
  protected:
    Client() {
        EXPECT_TRUE(createPcbDataModelClient());
        setPcbChangesCallbacks(objectChanged, paramChanged);
        setPcbFunctionCallback(functionReturned);
    }
    ~Client() override { destroyPcbDataModelClient(); }

    Texts runUntil(const std::string& last) {
        iStopAfter = last;
        iReceived.clear();
        EXPECT_EQ(startPcbDataModelEventLoop(), 1);
        return iReceived;
    }
    void set(const char* object, const char* parameter, const char* value) {
        EXPECT_EQ(world::run({world::binary("pcb-ctl"), "set", object, parameter, value}), 0);
    }

    world::LogReader log_ = world::startLog();
    std::unique_ptr<world::Process> bus_ = world::startPcbBus();
};

TEST_F(Client, ReadsWritesSavesAndLoadsParametersAsText) {
    EXPECT_EQ(createPcbDataModelClient(), 0);
    log_.next("Pcb data model singleton already created");
    PcbContext* context = easyCreatePcbDataModelClient();
    const char* object = getPcbObjectPathForDynDns();
    EXPECT_TRUE(easySetPcbParamBoolValue(context, object, getPcbParameterDynDnsEnable(), 2));
    const std::string awkward = "\x01 \"quoted\" \\ \xff\n";
    EXPECT_TRUE(easySetPcbParam(context, object, "HostName", awkward.c_str()));
    EXPECT_TRUE(easyPcbDatamodelSave_v2(context, "/media", "o.odl", "OrvoService"));
    log_.next(" INFO /media/o.odl saved to OrvoService");
    EXPECT_TRUE(easyClearPcbParam(context, object, "HostName"));
    EXPECT_STREQ(easyGetPcbParamAsString(context, object, "HostName").get(), "");
    EXPECT_TRUE(easyPcbDatamodelLoad_v2(context, "/media", "o.odl", "OrvoService"));
    log_.next(" INFO /media/o.odl loaded from OrvoService");
    EXPECT_EQ(easyGetPcbParamAsString(context, object, "HostName").get(), awkward);
    object_t* fetched = easyGetPcbObject(context, object);
    EXPECT_STREQ(easyGetPcbParamByName(fetched, "Enable").get(), "true");

    const auto failed = [&](bool done, const char* line) {
        EXPECT_FALSE(done) << line;
        log_.next(line);
    };
    failed(!!easyGetPcbParamAsString(context, "No.Object", "X"),
           "Get: Failed to get object No.Object param X (0x0002000");
    failed(easySetPcbParam(context, object, "Enable", "maybe"), "DynDNS param Enable (0x00020004 - ");
    failed(easyGetPcbObject(context, "No.Object"), "GetO: Failed to get object No.Object (0x00020001 - ");
    failed(!!easyGetPcbParamByName(fetched, "None"), "Get: param None not found");
    failed(easyPcbDatamodelLoad_v2(context, "/media", "none.odl", "OrvoService"), "from file /media/none.odl");
    failed(easyPcbDatamodelSave_v2(context, "/none", "o.odl", "OrvoService"), "object OrvoService in file o.odl");
    failed(easyPcbDatamodelSave_v2(context, "/media", "o.odl", "None"), "Cannot find object None in the datamodel");
    easyDestroyPcbDataModelClient(context);
}

TEST_F(Client, DeliversAnObjectOnceThenEveryChangeAndCustomNotificationsApart) {
    setPcbCustomNotificationCallback(
        [](const char* path, const char* value) { receive(std::string("custom ") + path + " " + value); });
    request_t* notify = prepareToExecutePcbFunction("Simulation.Functions", "notify");
    EXPECT_TRUE(addStringParameter(notify, "object", "OrvoService.DynDNS") && addStringParameter(notify, "value", "v"));
    request_t* const requests[] = {
        listenToChangesInPcbObject("No.Object"), listenToChangesInPcbObject("OrvoService.Voltaro"),
        listenToCustomNotificationsFromPcbObject("OrvoService.DynDNS"),
        listenToNotificationsFromPcbObject("OrvoService.DynDNS"), executePreparedPcbFunction(notify)};
    const std::string notified = R"(Simulation.Functions notify {"returns":null})";
    EXPECT_EQ(runUntil(notified),
              (Texts{"object OrvoService.Voltaro Enable=false", "custom OrvoService.DynDNS v", notified}));
    log_.next("ERROR Request failed, error - 131073 - ");
    set("OrvoService.Voltaro", "Enable", "false");  // changes nothing
    set("OrvoService.DynDNS", "Enable", "true");
    set("OrvoService.Voltaro", "Enable", "true");
    set("OrvoService.Voltaro", "Enable", "1");
    EXPECT_EQ(runUntil("OrvoService.Voltaro Enable true->1"),
              (Texts{"OrvoService.DynDNS Enable false->true", "OrvoService.Voltaro Enable false->true",
                     "OrvoService.Voltaro Enable true->1"}));
    for (request_t* request : requests) {
        freePcbRequestObject(request);
    }
}

TEST_F(Client, DefersWorkAndDoesItNewestFirst) {
    static request_t *first, *second;
    static Texts iLost;
    setPcbRequestLostCallback([](request_t* request) { iLost.push_back(request == first ? "first" : "other"); });
    setPcbFunctionCallback([](const char*, const char* function, const char*) {
        receive(function);
        if (iReceived.size() == 2) {
            freePcbRequestObjectAsync(first);
            freePcbRequestObjectAsync(second);
            listenToChangesInPcbObjectAsync(copyText("OrvoService.Voltaro"));
        }
    });
    first = executePreparedPcbFunctionAsync(prepareToExecutePcbFunction("NeMo.Intf.data", "hasFlag"));
    second = executePreparedPcbFunctionAsync(prepareToExecutePcbFunction("NeMo.Intf.data", "closeQuery"));
    EXPECT_EQ(log_.count("connectin_setEventsAvailable() returned 1"), 2U);
    EXPECT_EQ(runUntil("object OrvoService.Voltaro Enable=false"),
              (Texts{"closeQuery", "hasFlag", "object OrvoService.Voltaro Enable=false"}));
    EXPECT_TRUE(iLost.empty());

    // A request that was sent already cannot be sent again: its owner hears of it, and it is released once.
    first = executePcbFunction("NeMo.Intf.data", "hasFlag");
    ASSERT_TRUE(executePreparedPcbFunctionAsync(first));
    freePcbRequestObjectAsync(first);
    listenToChangesInPcbObjectAsync(copyText("OrvoService.Voltaro"));
    runUntil("object OrvoService.Voltaro Enable=false");
    EXPECT_EQ(iLost, Texts{"first"});
    log_.next("Failed to send request (0x0001");
    EXPECT_EQ(executePreparedPcbFunctionAsync(nullptr), nullptr);
    EXPECT_EQ(executePreparedPcbFunction(nullptr), nullptr);
    EXPECT_EQ(addStringParameter(nullptr, "flag", "x"), 0);
}

TEST_F(Client, GivesFunctionResultsAsJson) {
    request_t* open = prepareToExecutePcbFunction("NeMo.Intf.data", "openQuery");
    variant_map_t* map = createMapParameter();
    EXPECT_TRUE(addStringParameterToMap(map, "text", "x") && addIntParameterToMap(map, "number", -1) &&
                addBoolParameterToMap(map, "flag", 2));
    EXPECT_TRUE(addStringParameter(open, "subscriber", "test") && addMapParameter(open, "extra", map));
    freeMapParameter(map);
    request_t* echo = prepareToExecutePcbFunction("Simulation.Functions", "echo");
    EXPECT_TRUE(addStringParameter(echo, "A", "1") && addStringParameter(echo, "B", "x\"y"));
    request_t* unknown = prepareToExecutePcbFunction("NeMo.Intf.data", "noFunction");
    for (request_t* request : {open, unknown, echo}) {
        ASSERT_TRUE(executePreparedPcbFunction(request));
    }
    const std::string echoed = R"(Simulation.Functions echo {"returns":null,"A":"1","B":"x\"y"})";
    EXPECT_EQ(runUntil(echoed), (Texts{R"(NeMo.Intf.data openQuery {"returns":"1"})", echoed}));
    log_.next("Request failed, error - 131075 - ");
    for (request_t* request : {open, unknown, echo}) {
        freePcbRequestObject(request);
    }
}

TEST_F(Client, WaitsForAFunctionsResultNotForEver) {
    PcbContext* context = easyCreatePcbDataModelClient();
    EXPECT_STREQ(easyExecutePcbFunction(context, "NeMo.Intf.data", "hasFlag"), R"({"returns":"false"})");
    EXPECT_EQ(easyExecutePcbFunction(context, "NeMo.Intf.data", "noFunction"), nullptr);
    set("Simulation.Functions", "Delay", "100000");
    EXPECT_EQ(easyExecutePcbFunction(context, "NeMo.Intf.data", "hasFlag"), nullptr);
    log_.next(" WARN Easy execute PCB function - timeout");
    easyDestroyPcbDataModelClient(context);
}
