#include "src/orvoservicesinfo/orvoservicesinfo.h"

#include "common/log/log.h"
#include "common/text/text.h"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "src/orvoservicesinfo";

message_bus* iOrvoServicesInfoMessageBus;

static char* iOrvoServicesInfo;  // owned; null without a text

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

static Reply answerGet(const MethodCall&) {
    LOG(INFO, "OrvoServicesInfo Get requested");
    return {iOrvoServicesInfo ? iOrvoServicesInfo : R"({"status":"ERROR"})", "OrvoServicesInfo Get finished"};
}

static constexpr Method KMethods[] = {
    {"Get", "", false, answerGet},
};

constexpr BusService KOrvoServicesInfoService = {
    .sourcePath = KLogModule,
    .interface = "com.corvane.orsm.orvoservicesinfo",
    .path = "/orvoservicesinfo",
    .methods = KMethods,
    .handler = handleOrvoServicesInfoMethodCall,
    .enablingLine = "Enabling orvoServicesInfo dbus",
    .cannotCreateLine = "Cannot create OrvoServicesInfo message bus",
    .createdLine = "OrvoServicesInfo message bus created",
    .object = &iOrvoServicesInfoMessageBus,
};

void handleOrvoServicesInfoMethodCall(message_bus* bus, const char* method, const char* firstArgument,
                                      DBusMessage* call) {
    dispatchMethodCall(KOrvoServicesInfoService, bus, method, firstArgument, call);
}

bool enableDbusForOrvoServicesInfo(struct event_base* base) { return offerService(KOrvoServicesInfoService, base); }

void disableDbusForOrvoServicesInfo() { withdrawService(KOrvoServicesInfoService); }
