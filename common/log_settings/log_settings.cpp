#include "common/log_settings/log_settings.h"

#include <syslog.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "common/conffile/conffile.h"
#include "common/log/log.h"
#include "common/text/text.h"

static constexpr char KPrefix[] = "logger.";
static constexpr char KDefaultFileName[] = "zolclient.log";
static constexpr char KReloadFileName[] = "zolclient.log";

static void setFileName(const char* name) {
    const size_t length = std::min(strlen(name), sizeof iLogSettings.filename - 1);
    memcpy(iLogSettings.filename, name, length);
    iLogSettings.filename[length] = '\0';
}

static void releaseCategories() {
    while (LogCategory* const category = categories) {
        categories = category->next;
        free(category->name);
        free(category);
    }
}

static void reset() {
    setFileName(KDefaultFileName);
    iLogSettings.file = false;
    iLogSettings.enabled = false;
    iLogSettings.network = false;
    releaseCategories();
    if (iLogSettings.systemLog) {
        iLogSettings.systemLog = false;
        closelog();
    }
}

static void reloadFromFile() {
    // The log is locked meanwhile: nothing here may wait.
    const OwnedConfig config = configFileLoadOrdinary(KReloadFileName);
    debug_init(config.get());
}

// The setters: `rest` is what follows the table's key, `value` the pair's value; false ends the visit of the pairs.

static bool setEnabled(const char*, const char* value) {
    iLogSettings.enabled = bool_text_value_to_int(value) != 0;
    if (iLogSettings.enabled) {
        reloadLogOnHangup(reloadFromFile);
        return true;
    }
    reset();
    return false;
}

static bool setLevel(const char*, const char* value) {
    iLogSettings.level = logLevelFromText(value);
    return true;
}

template <bool LogSettings::*Member>
static bool setFlag(const char*, const char* value) {
    iLogSettings.*Member = bool_text_value_to_int(value) != 0;
    return true;
}

template <int32_t LogSettings::*Member>
static bool setNumber(const char*, const char* value) {
    const long number = strtol(value, nullptr, 10);
    iLogSettings.*Member = static_cast<int32_t>(std::clamp(number, long{INT32_MIN}, long{INT32_MAX}));
    return true;
}

template <char* LogSettings::*Member>
static bool setText(const char*, const char* value) {
    OwnedText copy = copyText(value);
    if (!copy) return true;
    free(iLogSettings.*Member);
    iLogSettings.*Member = copy.release();
    return true;
}

static bool setLogFileName(const char*, const char* value) {
    setFileName(value);
    return true;
}

static bool addCategory(const char* rest, const char* value) {
    OwnedText name = copyText(rest);
    auto* const category = name ? static_cast<LogCategory*>(malloc(sizeof(LogCategory))) : nullptr;
    if (!category) return true;
    *category = {name.release(), logLevelFromText(value), categories};
    categories = category;
    return true;
}

struct Setting {
    const char* key;
    bool (*set)(const char* rest, const char* value);
    bool hasRest;
};

static constexpr Setting KSettings[] = {
    {"enabled",           setEnabled,                               false},
    {"level",             setLevel,                                 false},
    {"file",              setFlag<&LogSettings::file>,              false},
    {"network",           setFlag<&LogSettings::network>,           false},
    {"stdout",            setFlag<&LogSettings::standardOutput>,    false},
    {"protocol",          setFlag<&LogSettings::protocol>,          false},
    {"lineandfile",       setFlag<&LogSettings::lineAndFile>,       false},
    {"filename",          setLogFileName,                           false},
    {"category.",         addCategory,                              true },
    {"max_file_count",    setNumber<&LogSettings::maxFileCount>,    false},
    {"max_file_size",     setNumber<&LogSettings::maxFileSize>,     false},
    {"rolling_file_path", setText<&LogSettings::rollingFilePath>,   false},
    {"syslog",            setFlag<&LogSettings::systemLog>,         false},
    {"syslog.ident",      setText<&LogSettings::systemLogIdentity>, false},
};

static bool applySetting(const char* key, const char* value) {
    for (const Setting& setting : KSettings) {
        const size_t length = strlen(setting.key);
        if (strncmp(key, setting.key, length) != 0) continue;
        if (setting.hasRest || key[length] == '\0') return setting.set(key + length, value);
    }
    return true;
}

static void applyPairs(const ConfigFile* config) {
    const ConfigPair* pair = nullptr;
    while ((pair = configFileNextKVPair(config, pair))) {
        const char* const key = configFilePairGetKey(pair);
        if (strncmp(key, KPrefix, strlen(KPrefix)) != 0) continue;
        if (!applySetting(key + strlen(KPrefix), configFilePairGetValue(pair))) return;
    }
}

void debug_init(const ConfigFile* config) {
    if (!config) return;
    const LogLock lock;
    // The system log keeps the pointer to its identity: it is closed before a setter may release that.
    reset();
    applyPairs(config);
    if (iLogSettings.systemLog) {
        openlog(iLogSettings.systemLogIdentity ? iLogSettings.systemLogIdentity : "unknown", LOG_PID | LOG_CONS,
                LOG_USER);
    } else {
        closelog();
    }
}
