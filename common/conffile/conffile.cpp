#include "common/conffile/conffile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "common/log/log.h"

static constexpr char KLogCategory[] = "unassigned";
static constexpr char KLogModule[] = "common/conffile/conffile";

static constexpr size_t KFileContentSize = 4096;
static constexpr char KLineEnds[] = "\r\n";
static constexpr char KBlanks[] = " \t\v\f";

void configFileFree(ConfigFile* config) {
    if (!config) return;
    while (ConfigPair* const pair = config->head) {
        config->head = pair->next;
        free(pair);
    }
    free(config->content);
    free(config);
}

static OwnedConfig makeConfig(size_t contentSize) {
    OwnedConfig config(static_cast<ConfigFile*>(calloc(1, sizeof(ConfigFile))));
    if (!config) {
        LOG(WARN, "cannot allocate memory for ConfigFile");
        return nullptr;
    }
    config->content = static_cast<char*>(malloc(contentSize));
    if (!config->content) {
        LOG(WARN, "cannot allocate memory for ConfigFile content");
        return nullptr;
    }
    return config;
}

// The text of a quoted field, from after its opening quote up to the closing one, or to the end when there is none.
static char* unquote(char* const text) {
    char* to = text;
    for (const char* from = text; *from && *from != '"'; ++from) {
        if (from[0] == '\\' && from[1] == '"') ++from;
        *to++ = *from;
    }
    *to = '\0';
    return text;
}

static char* cleanField(char* piece) {
    char* const field = piece + strspn(piece, KBlanks);
    if (*field == '"') return unquote(field + 1);
    field[strcspn(field, KBlanks)] = '\0';
    return field;
}

static bool addPair(ConfigFile* config, char* line) {
    char* const separator = strchr(line, '=');
    if (!separator) {
        LOG(WARN, "syntax error in configuration");
        return false;
    }
    *separator = '\0';
    auto* const pair = static_cast<ConfigPair*>(malloc(sizeof(ConfigPair)));
    if (!pair) {
        LOG(WARN, "cannot allocate memory for ConfigPair");
        return false;
    }
    *pair = {cleanField(line), cleanField(separator + 1), config->head};
    config->head = pair;
    return true;
}

// The content needs room for one byte more than its length, unless that is the size of a file's buffer.
static OwnedConfig parse(OwnedConfig config) {
    const size_t length = config->contentLength;
    config->content[length == KFileContentSize ? length - 1 : length] = '\0';
    char* rest = nullptr;
    for (char* line = strtok_r(config->content, KLineEnds, &rest); line; line = strtok_r(nullptr, KLineEnds, &rest)) {
        if (!addPair(config.get(), line)) return nullptr;
    }
    return config;
}

static bool readContent(ConfigFile* config, int file) {
    size_t length = 0;
    while (length < KFileContentSize) {
        const ssize_t piece = read(file, config->content + length, KFileContentSize - length);
        if (piece < 0 && errno == EINTR) continue;
        if (piece < 0) {
            LOG(WARN, "cannot load configuration");
            return false;
        }
        if (piece == 0) break;
        length += static_cast<size_t>(piece);
    }
    config->contentLength = static_cast<uint32_t>(length);
    return true;
}

static int openFile(const char* path, int flags) {
    LOG(INFO, "parsing configuration file: %s", path);
    const int file = open(path, O_RDONLY | O_CLOEXEC | flags);
    if (file < 0) LOG(DEBUG, "cannot open file: %s", path);
    return file;
}

// Closes the file.
static OwnedConfig load(int file) {
    OwnedConfig config = makeConfig(KFileContentSize);
    if (config && !readContent(config.get(), file)) config.reset();
    close(file);
    return config ? parse(std::move(config)) : nullptr;
}

OwnedConfig configFileLoad(const char* path) {
    if (!path) {
        LOG(DEBUG, "path is null");
        return nullptr;
    }
    const int file = openFile(path, 0);
    return file < 0 ? nullptr : load(file);
}

OwnedConfig configFileLoadOrdinary(const char* path) {
    // What was opened is looked at, and not the path before: something else may stand there a moment later.
    const int file = openFile(path, O_NONBLOCK | O_NOCTTY);
    if (file < 0) return nullptr;
    struct stat status = {};
    if (fstat(file, &status) == 0 && S_ISREG(status.st_mode)) return load(file);
    LOG(WARN, "not an ordinary file: %s", path);
    close(file);
    return nullptr;
}

OwnedConfig configFileLoadFromBytes(const void* bytes, size_t length) {
    LOG(INFO, "parsing configuration from server");
    // A length that does not fit its field asks for more memory than there is.
    OwnedConfig config = makeConfig(length < UINT32_MAX ? length + 1 : SIZE_MAX);
    if (!config) return nullptr;
    if (!bytes) {
        LOG(WARN, "cannot load configuration");
        return nullptr;
    }
    memcpy(config->content, bytes, length);
    config->contentLength = static_cast<uint32_t>(length);
    return parse(std::move(config));
}

const char* configFileValue(const ConfigFile* config, const char* key) {
    if (!key) {
        LOG(WARN, "key is null");
        return nullptr;
    }
    if (!config) {
        LOG(WARN, "cfile is null");
        return nullptr;
    }
    if (!config->head) {
        LOG(WARN, "cfile does not contain any key-value pairs");
        return nullptr;
    }
    for (const ConfigPair* pair = config->head; pair; pair = pair->next) {
        if (strcmp(pair->key, key) == 0) return pair->value;
    }
    return nullptr;
}

const ConfigPair* configFileNextKVPair(const ConfigFile* config, const ConfigPair* current) {
    if (current) return config ? current->next : nullptr;
    return config ? config->head : nullptr;
}

const char* configFilePairGetKey(const ConfigPair* pair) { return pair->key; }

const char* configFilePairGetValue(const ConfigPair* pair) { return pair->value; }
