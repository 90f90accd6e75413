// What the configuration file says at start-up.
#pragma once

#include "common/conffile/conffile.h"

/// Configures the log from `config`, then checks the required keys and starts the requests engine and the services-info
/// store with their values. What is wrong goes to standard output, every missing key in a line of its own. 1 when all
/// is well, else 0 (with a key missing nothing was started). `daemonize` is set to 0 or 1, only when
/// "demonize-process" is there. Keeps nothing that points into `config`. Main thread, before any other.
[[nodiscard]] int initByConfig(ConfigFile* config, int* daemonize);
