// The log of the code under test, inside the test program: every level, into a file of the private world.
#pragma once

#include <cstring>

#include "common/conffile/conffile.h"
#include "common/log/log_settings.h"
#include "tests/world/world.h"

namespace world {

/// Switches the log on; the reader begins at what is logged from now on. Link log_settings.
inline LogReader startLog() {
    constexpr char settings[] =
        "logger.filename=/var/log/test.log\nlogger.file=true\nlogger.level=TRACE\nlogger.enabled=true\n";
    debug_init(configFileLoadFromBytes(settings, strlen(settings)).get());
    writeFile("/var/log/test.log", "");
    return LogReader("/var/log/test.log");
}

}  // namespace world
