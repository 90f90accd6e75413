#include "src/main/startup_config.h"

#include <cstdio>
#include <cstring>

#include "common/log_settings/log_settings.h"
#include "common/text/text.h"
#include "src/orvoservicesinfo/orvoservicesinfo.h"
#include "src/requests/dyndnsrequest.h"

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

}  // namespace

int initByConfig(ConfigFile* config, int* daemonize) {
    debug_init(config);

    RequiredKeys keys;
    RequiredKey* const inOrder[] = {&keys.caBundle, &keys.applicationServer, &keys.voltaroServer, &keys.servicesInfo,
                                    &keys.daemonize};
    for (const ConfigPair* pair = configFileNextKVPair(config, nullptr); pair;
         pair = configFileNextKVPair(config, pair)) {
        for (RequiredKey* key : inOrder) {
            if (strcmp(configFilePairGetKey(pair), key->name) == 0) key->value = configFilePairGetValue(pair);
        }
    }
    if (keys.daemonize.value) *daemonize = bool_text_value_to_int(keys.daemonize.value);

    bool complete = true;
    for (const RequiredKey* key : inOrder) {
        if (key->value) continue;
        printf("Missing %s key in config file\n", key->name);
        complete = false;
    }
    if (!complete) return 0;

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
