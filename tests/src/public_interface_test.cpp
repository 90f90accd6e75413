// Bringing the public interface up inside the test: what a failure leaves behind.
#include "src/dbusinterface/public_interface.h"

#include <dbus/dbus.h>
#include <gtest/gtest.h>

#include "src/dbusinterface/dyndns_service.h"
#include "src/dbusinterface/service_store.h"
#include "tests/world/world.h"

TEST(PublicInterface, AServiceThatCannotTakeItsPathTakesTheOthersDown) {
    const auto dbus = world::startDbusDaemon();
    const auto bus = world::startPcbBus();
    event_base* const base = event_base_new();
    ASSERT_TRUE(enableDbusPublicInterface(base));
    disableDbusPublicInterface();
    DBusConnection* const shared = dbus_bus_get(DBUS_BUS_SESSION, nullptr);
    DBusObjectPathVTable nobody = {};
    nobody.message_function = [](DBusConnection*, DBusMessage*, void*) { return DBUS_HANDLER_RESULT_NOT_YET_HANDLED; };
    ASSERT_TRUE(dbus_connection_register_object_path(shared, "/orvoservicesinfo", &nobody, nullptr));
    EXPECT_FALSE(enableDbusPublicInterface(base));
    EXPECT_TRUE(!iDynDnsMessageBus && !iBusPcbClient);
    dbus_connection_unregister_object_path(shared, "/orvoservicesinfo");
    EXPECT_TRUE(enableDbusPublicInterface(base));
    disableDbusPublicInterface();
    dbus_connection_unref(shared);
    event_base_free(base);
}
