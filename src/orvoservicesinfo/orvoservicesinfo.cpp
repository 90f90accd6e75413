#include "src/orvoservicesinfo/orvoservicesinfo.h"

#include "common/log/log.h"
#include "common/text/text.h"
#include "src/services/descriptions.h"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "src/orvoservicesinfo";

static message_bus* iOrvoServicesInfoMessageBus;  // null while the service is not offered
static char* iOrvoServicesInfo;                   // owned; null without a text

int initOrvoServicesInfo(const char* text) {
    OwnedText copy;
    if (!duplicateStringOrNull(text, &copy)) return 0;
    if (text && !dbus_validate_utf8(text, nullptr)) LOG(WARN, "Services info is not UTF-8: no Get can be answered");
    cleanOrvoServicesInfo();
    iOrvoServicesInfo = copy.release();
    return 1;
}

void cleanOrvoServicesInfo() {
    free(iOrvoServicesInfo);
    iOrvoServicesInfo = nullptr;
}

static void answerGet(MethodCall& call) {
    LOG(INFO, "OrvoServicesInfo Get requested");
    replyText(call, iOrvoServicesInfo ? iOrvoServicesInfo : R"({"status":"ERROR"})");
    LOG(INFO, "OrvoServicesInfo Get finished");
}

static constexpr Method KMethods[] = {
    {"Get", "", false, answerGet},
};

void handleOrvoServicesInfoMethodCall(message_bus* bus, const char* method, const char* firstArgument,
                                      DBusMessage* call) {
    dispatchMethodCall(KMethods, bus, method, firstArgument, call);
}

constexpr BusService KOrvoServicesInfoService = {
    .interface = "com.corvane.orsm.orvoservicesinfo",
    .path = "/orvoservicesinfo",
    .description = KOrvoServicesInfoDescription,
    .methods = KMethods,
    .handler = handleOrvoServicesInfoMethodCall,
    .enablingLine = "Enabling orvoServicesInfo dbus",
    .cannotCreateLine = "Cannot create OrvoServicesInfo message bus",
    .createdLine = "OrvoServicesInfo message bus created",
};

int enableDbusForOrvoServicesInfo(struct event_base* base) {
    iOrvoServicesInfoMessageBus = offerService(KOrvoServicesInfoService, base);
    return iOrvoServicesInfoMessageBus != nullptr;
}

void disableDbusForOrvoServicesInfo() { message_bus_free(&iOrvoServicesInfoMessageBus); }
