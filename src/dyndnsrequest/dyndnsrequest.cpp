#include "src/dyndnsrequest/dyndnsrequest.h"

#include <utility>

#include "common/json/json.h"
#include "common/log/log.h"
#include "src/httprequest/httprequest.h"

#define DYNDNS_PATH "/hm/dyndns"
#define STARDEVICE_PATH "/hm/stardevice/"
#define JSON_HEADERS "{\"Content-Type\":\"application/json\"}"

static constexpr char KLogCategory[] = "orvoservicemanager";
static constexpr char KLogModule[] = "src/dyndnsrequest";

// Owned. Plain pointers, because a destructor at exit would release them while the bus thread still runs.
static char* iPathToServerCABundleFile = nullptr;
static char* iApplicationServerUrl = nullptr;
static char* iVoltaroServerUrl = nullptr;

static OwnedText copyOrNone(const char* text) { return text ? copyText(text) : nullptr; }

static void store(char*& setting, OwnedText value) {
    free(setting);
    setting = value.release();
}

// Logs `message` when `value` is missing.
static bool requireText(const char* value, const char* message) {
    if (!value) LOG(ERROR, "%s", message);
    return value != nullptr;
}

int initRequestsEngine(const char* caBundle, const char* applicationServerUrl, const char* voltaroServerUrl) {
    OwnedText bundle = copyOrNone(caBundle);
    if (!bundle) return 0;
    OwnedText application = copyOrNone(applicationServerUrl);
    if (!application) return 0;
    OwnedText voltaro = copyOrNone(voltaroServerUrl);
    if (!voltaro) return 0;
    store(iPathToServerCABundleFile, std::move(bundle));
    store(iApplicationServerUrl, std::move(application));
    store(iVoltaroServerUrl, std::move(voltaro));
    return 1;
}

void cleanRequestsEngine() {
    store(iPathToServerCABundleFile, nullptr);
    store(iApplicationServerUrl, nullptr);
    store(iVoltaroServerUrl, nullptr);
}

int setApplicationServerUrl(const char* url) {
    OwnedText copy = copyOrNone(url);
    if (!copy) return 0;
    store(iApplicationServerUrl, std::move(copy));
    return 1;
}

const char* getPathToServerCABundleFile() { return iPathToServerCABundleFile; }

const char* getVoltaroServerUrl() { return iVoltaroServerUrl; }

OwnedText verifyDynDnsName(const char* name) {
    if (!requireText(iApplicationServerUrl, "Missing Dyn DNS server url")) return nullptr;
    if (!requireText(name, "Missing name")) return nullptr;
    const OwnedText url = formatText("%s" DYNDNS_PATH "/verify?name=%s", iApplicationServerUrl, name);
    if (!requireText(url.get(), "Out of memory")) return nullptr;
    return curlGet(url.get(), iPathToServerCABundleFile);
}

OwnedText getDynDnsConfiguration(const char* haId) {
    if (!requireText(iApplicationServerUrl, "Missing Dyn DNS server url")) return nullptr;
    if (!requireText(haId, "Missing HA-ID")) return nullptr;
    const OwnedText url = formatText("%s" DYNDNS_PATH "?haId=%s", iApplicationServerUrl, haId);
    if (!url) return nullptr;
    return curlGet(url.get(), iPathToServerCABundleFile);
}

static OwnedJson makeConfigurationJson(const DynDnsConfiguration& configuration) {
    OwnedJson object(cJSON_CreateObject());
    const bool complete = object && cJSON_AddStringToObject(object.get(), "name", configuration.name) &&
                          cJSON_AddStringToObject(object.get(), "haId", configuration.haId) &&
                          cJSON_AddBoolToObject(object.get(), "enabled", configuration.enabled != 0);
    return complete ? std::move(object) : nullptr;
}

OwnedText setDynDnsConfiguration(const DynDnsConfiguration& configuration) {
    if (!requireText(iApplicationServerUrl, "Missing Dyn DNS server url")) return nullptr;
    if (!requireText(configuration.name, "Missing name")) return nullptr;
    if (!requireText(configuration.haId, "Missing HA-ID")) return nullptr;
    const OwnedJson object = makeConfigurationJson(configuration);
    if (!object) {
        LOG(ERROR, "Cannot create json object");
        return nullptr;
    }
    const OwnedText body = printJson(object.get());
    if (!requireText(body.get(), "Cannot create json string")) return nullptr;
    const OwnedText url = formatText("%s" DYNDNS_PATH "/set", iApplicationServerUrl);
    if (!requireText(url.get(), "Out of memory")) return nullptr;
    return curlPostV2(url.get(), body.get(), iPathToServerCABundleFile, JSON_HEADERS);
}

OwnedText getParamsForHaId(const char* haId) {
    if (!requireText(iApplicationServerUrl, "Missing app server url")) return nullptr;
    if (!requireText(haId, "Missing HA-ID")) return nullptr;
    const OwnedText url = formatText("%s" STARDEVICE_PATH "%s/params", iApplicationServerUrl, haId);
    if (!url) return nullptr;
    return curlGet(url.get(), iPathToServerCABundleFile);
}
