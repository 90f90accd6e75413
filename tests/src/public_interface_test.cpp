// Bringing the public interface up inside the test: what each failure leaves behind (the leak check at the end of every
// test counts), and the life of a call's texts.
#include "src/dbusinterface/public_interface.h"

#include <dbus/dbus.h>
#include <gtest/gtest.h>

#include "src/dbusinterface/dyndns_service.h"
#include "src/dbusinterface/dyndns_state.h"
#include "src/dbusinterface/dyndns_sync.h"
#include "src/dbusinterface/service_store.h"
#include "src/dyndnsrequest.h"
#include "src/orvoservicesinfo.h"
#include "src/voltarodbus/voltaro_service.h"
#include "tests/world/test_log.h"

class PublicInterface : public testing::Test {
  protected:
    ~PublicInterface() override { event_base_free(base_); }

    void expectNothingLeft() {
        EXPECT_EQ(iDynDnsMessageBus, nullptr);
        EXPECT_EQ(iBusPcbClient, nullptr);
        EXPECT_EQ(iBusEventBase, base_);
    }

    world::LogReader log_ = world::startLog();
    event_base* base_ = event_base_new();
};

TEST_F(PublicInterface, WithoutADataModelBusNothingStarts) {
    const auto dbus = world::startDbusDaemon();
    EXPECT_FALSE(enableDbusPublicInterface(base_));
    log_.next("Failed to connect to pcb://ipc:{/var/run/pcb_sys}");
    EXPECT_EQ(log_.count("Enabling"), 0U);
    expectNothingLeft();
}

TEST_F(PublicInterface, EachServiceThatCannotTakeItsPathTakesTheOthersDown) {
    const auto dbus = world::startDbusDaemon();
    const auto bus = world::startPcbBus();
    ASSERT_TRUE(enableDbusPublicInterface(base_));
    disableDbusPublicInterface();
    expectNothingLeft();
    DBusConnection* shared = dbus_bus_get(DBUS_BUS_SESSION, nullptr);
    DBusObjectPathVTable nobody = {};
    nobody.message_function = [](DBusConnection*, DBusMessage*, void*) { return DBUS_HANDLER_RESULT_NOT_YET_HANDLED; };
    struct Case {
        const char *path, *line;
    };
    for (const Case& c : {
             Case{"/dyndns",           "ERROR Cannot create message bus"                 },
             Case{"/voltaro",          "ERROR Cannot create Voltaro message bus"         },
             Case{"/orvoservicesinfo", "ERROR Cannot create OrvoServicesInfo message bus"},
    }) {
        ASSERT_TRUE(dbus_connection_register_object_path(shared, c.path, &nobody, nullptr));
        EXPECT_FALSE(enableDbusPublicInterface(base_));
        log_.next(std::string("failed to register dbus object path: ") + c.path);
        log_.next(c.line);
        expectNothingLeft();
        dbus_connection_unregister_object_path(shared, c.path);
    }
    ASSERT_TRUE(enableDbusPublicInterface(base_));
    disableDbusPublicInterface();
    dbus_connection_unref(shared);
}

TEST_F(PublicInterface, ANameThatThePolicyRefusesEndsTheFirstService) {
    std::string policy = world::readFile(ORSM_SOURCE_FOLDER "/tests/world/bus.conf");
    policy.replace(policy.find("<allow own=\"*\"/>"), 16, "<deny own=\"com.corvane.orsm\"/>");
    world::writeFile("/var/run/deny.conf", policy);
    const auto dbus = world::startDbusDaemon("/var/run/deny.conf");
    const auto bus = world::startPcbBus();
    EXPECT_FALSE(enableDbusPublicInterface(base_));
    log_.next(" WARN failed to request message bus name: com.corvane.orsm. Error:");
    log_.next("ERROR Error setting listeners");
    EXPECT_EQ(log_.count("Enabling"), 1U);
    expectNothingLeft();
}

// A call whose only reference goes with the reply: whoever still looks at its texts afterwards is caught.
static DBusMessage* loneCall(const char* method, const char* text) {
    DBusMessage* call = dbus_message_new_method_call("com.corvane.orsm", "/x", "com.corvane.x", method);
    dbus_message_append_args(call, DBUS_TYPE_STRING, &text, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    dbus_message_set_serial(call, 1);
    return call;
}

TEST_F(PublicInterface, NothingOfACallIsUsedAfterItsReply) {
    const auto dbus = world::startDbusDaemon();
    const auto bus = world::startPcbBus();
    ASSERT_TRUE(initRequestsEngine("/none", "https://127.0.0.1:1", "https://127.0.0.1:1"));
    ASSERT_TRUE(initOrvoServicesInfo("info"));
    ASSERT_TRUE(enableDbusPublicInterface(base_));
    strcpy(iHomeAutomationId, "HA-1");
    struct Case {
        message_bus_method_callback handler;
        message_bus* bus;  // any will do: all stand on one connection
        std::vector<const char*> methods;
    };
    for (const Case& c : {
             Case{handleDynDnsMethodCall,
                  iDynDnsMessageBus,                                   {"IsEnabled", "GetName", "IsNameTaken", "Configure", "SetEnabled", "Other"}},
             Case{handleVoltaroMethodCall,          iDynDnsMessageBus, {"Set", "Get", "EnableBackend", "Other"}                                   },
             Case{handleOrvoServicesInfoMethodCall, iDynDnsMessageBus, {"Get", "Other"}                                                           },
    }) {
        for (const char* method : c.methods) {
            for (const char* text : {"on", "name", "", "not_valid"}) {
                DBusMessage* call = loneCall(method, text);
                const char* first = nullptr;
                dbus_message_get_args(call, nullptr, DBUS_TYPE_STRING, &first, DBUS_TYPE_INVALID);
                c.handler(c.bus, method, first, call);
            }
        }
    }
    EXPECT_EQ(log_.count("Received unsupported method name: Other"), 12U);
    disableDbusPublicInterface();
    cleanRequestsEngine();
    cleanOrvoServicesInfo();
    cleanOrvoServicesInfo();
    ASSERT_TRUE(initOrvoServicesInfo(nullptr));
}
