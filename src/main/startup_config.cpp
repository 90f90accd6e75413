#include "src/main/startup_config.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/log_settings/log_settings.h"
#include "common/text/text.h"
#include "src/dbusinterface/reconciliation.h"
#include "src/dyndnsrequest/dyndnsrequest.h"
#include "src/orvoservicesinfo/orvoservicesinfo.h"

namespace {

struct RequiredKey {
    const char* name;
    const char* value = nullptr;  // belongs to the configuration; null until the key is found
};

struct RequiredKeys {
    RequiredKey caBundle{"serverrequests.pathtocabundlefile"};
    RequiredKey applicationServer{"serverrequests.applicationserver"};
    RequiredKey voltaroServer{"serverrequests.voltaroserver"};
    RequiredKey servicesInfo{"orvoservicesinfo"};
    RequiredKey daemonize{"demonize-process"};
};

// An optional key for a number of seconds: 0, which is also its default, or one from `shortest` to `longest`.
struct OptionalSeconds {
    const char* name;
    long shortest, longest;
    const char* value = nullptr;  // as RequiredKey's

    // False, with a complaint, when the value is anything else.
    bool read(long* seconds) const {
        const char* const digits = value ? value : "0";
        *seconds = strtol(digits, nullptr, 10);
        const bool isNumber = *digits && strspn(digits, "0123456789") == strlen(digits);
        if (isNumber && (*seconds == 0 || (*seconds >= shortest && *seconds <= longest))) return true;
        printf("Wrong %s key in config file: %s (0 or %ld to %ld)\n", name, digits, shortest, longest);
        return false;
    }
};

}  // namespace

int initByConfig(ConfigFile* config, int* daemonize) {
    debug_init(config);

    RequiredKeys keys;
    RequiredKey* const inOrder[] = {&keys.caBundle, &keys.applicationServer, &keys.voltaroServer, &keys.servicesInfo,
                                    &keys.daemonize};
    OptionalSeconds interval{"synchronize.interval", 3600, 365L * 24 * 3600};
    for (const ConfigPair* pair = configFileNextKVPair(config, nullptr); pair;
         pair = configFileNextKVPair(config, pair)) {
        for (RequiredKey* key : inOrder) {
            if (strcmp(configFilePairGetKey(pair), key->name) == 0) key->value = configFilePairGetValue(pair);
        }
        if (strcmp(configFilePairGetKey(pair), interval.name) == 0) interval.value = configFilePairGetValue(pair);
    }
    if (keys.daemonize.value) *daemonize = bool_text_value_to_int(keys.daemonize.value);

    bool complete = true;
    for (const RequiredKey* key : inOrder) {
        if (key->value) continue;
        printf("Missing %s key in config file\n", key->name);
        complete = false;
    }
    long seconds = 0;
    if (!interval.read(&seconds)) complete = false;
    if (!complete) return 0;
    setReconciliationInterval(seconds);

    int result = 1;
    if (!initRequestsEngine(keys.caBundle.value, keys.applicationServer.value, keys.voltaroServer.value)) {
        puts("Cannot init requests engine");
        result = 0;
    }
    if (!initOrvoServicesInfo(keys.servicesInfo.value)) {
        puts("Cannot init OrvoServicesInfo");
        result = 0;
    }
    return result;
}
