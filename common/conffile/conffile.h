// The configuration reader: a small text of key=value lines, parsed in place into a list of pairs.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/owned/owned.h"

/// One line. Key and value are texts inside the configuration's own buffer.
struct ConfigPair {
    const char* key;
    const char* value;
    ConfigPair* next;
};

/// A loaded configuration; it owns its text and its pairs. The list runs from the text's last line to its first. Used
/// by one thread at a time.
struct ConfigFile {
    ConfigPair* head;        // null without pairs
    char* content;           // the text, ended by a zero byte
    uint32_t contentLength;  // bytes, as read or passed in
};

/// Releases a configuration with all its keys and values; null is ignored.
void configFileFree(ConfigFile* config);

using OwnedConfig = Owned<ConfigFile, configFileFree>;

/// Reads the first 4095 bytes of the file at `path` and ignores the rest. A pipe is read until its writers have closed
/// it. Null, and a line in the log, when the path is null, the file cannot be opened or read, a line holds no "=",
/// or memory is short. An empty file is a configuration without pairs.
[[nodiscard]] OwnedConfig configFileLoad(const char* path);

/// configFileLoad for a path (not null) at which a pipe or a terminal may stand: never waits, and also fails for what
/// is no ordinary file (logged).
[[nodiscard]] OwnedConfig configFileLoadOrdinary(const char* path);

/// Parses a copy of `length` bytes; fails as configFileLoad does (null `bytes` fail, too). A length of exactly 4096
/// loses its last byte, as a file does; other lengths lose nothing.
[[nodiscard]] OwnedConfig configFileLoadFromBytes(const void* bytes, size_t length);

/// The value of the text's last line with this key; it belongs to the configuration. Null when there is none, and, with
/// a line in the log, when the key or the configuration is null or has no pairs.
const char* configFileValue(const ConfigFile* config, const char* key);

/// Walks all pairs, the text's last line first: the head for a null `current`, else the next one; null at the end
/// and for a null configuration.
const ConfigPair* configFileNextKVPair(const ConfigFile* config, const ConfigPair* current);

/// Key and value of a pair (not null); they belong to the configuration.
const char* configFilePairGetKey(const ConfigPair* pair);
const char* configFilePairGetValue(const ConfigPair* pair);
