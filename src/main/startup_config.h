// What the configuration file says at start-up.
#pragma once

#include "common/conffile/conffile.h"

/// Configures the log from `config`, then checks the keys and starts the requests engine, the services-info store and
/// the reconciliation with their values. What is wrong goes to standard output, every missing or wrong key in a line of
/// its own. 1 when all is well, else 0 (with a key missing or wrong nothing was started). `daemonize` is set to 0 or 1,
/// only when "demonize-process" is there. Keeps nothing that points into `config`. Main thread, before any other.
[[nodiscard]] int initByConfig(ConfigFile* config, int* daemonize);
