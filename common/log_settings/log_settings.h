// The log's settings, taken from the keys of a configuration that begin with "logger.".
#pragma once

struct ConfigFile;

/// Configures the log; null changes nothing. Without "logger.enabled" set to true, logging is off but for level 5. Once
/// it was true, a SIGHUP makes the next log call or reloadLogIfAsked load "zolclient.log" from the working directory
/// and apply it; what cannot be loaded or is no ordinary file (logged) changes nothing. Keeps copies only. When memory
/// is short a text setting keeps its old value, and a category is left out, so that the global threshold serves it. Any
/// thread.
void debug_init(const ConfigFile* config);
