// libFuzzer's entry points, and the target for configuration files. ORSM_FUZZ_TARGET names the target to run.
#include "tests/fuzz/fuzz.h"

#include <csignal>
#include <cstring>
#include <map>

#include "common/log/log.h"
#include "common/text/text.h"
#include "src/main/startup_config.h"

static Target* iTarget;

int LLVMFuzzerInitialize(int*, char***) {
    const std::map<std::string, Target*> targets{
        {"configuration", fuzzConfiguration},
        {"calls",         fuzzCalls        }, // a marshalled message
        {"answers",       fuzzAnswers      }, // a letter that chooses the request, then one answer a line
    };
    iTarget = targets.at(textOrEmpty(getenv("ORSM_FUZZ_TARGET")));
    return signal(SIGPIPE, SIG_IGN) == SIG_ERR;
}

int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    // Every line is formatted and none is written, whatever an earlier input did to the log.
    iLogSettings.enabled = true;
    iLogSettings.level = LEVEL_TRACE;
    iLogSettings.standardOutput = iLogSettings.file = iLogSettings.systemLog = false;
    iTarget({reinterpret_cast<const char*>(bytes), size});
    return 0;
}

void fuzzConfiguration(std::string_view bytes) {
    const OwnedConfig config = configFileLoadFromBytes(bytes.data(), bytes.size());
    size_t length = 0;
    for (const ConfigPair* pair = nullptr; (pair = configFileNextKVPair(config.get(), pair));) {
        require(!strpbrk(pair->key, "=\r\n") && !strpbrk(pair->value, "\r\n"));
        length += strlen(pair->key) + strlen(pair->value) + 1;
    }
    require(length <= bytes.size());
    int daemonize = 0;
    if (config) (void)initByConfig(config.get(), &daemonize);
}
