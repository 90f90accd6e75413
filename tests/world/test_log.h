// The log of the code under test, inside the test program: every level, into a file of the private world.
#pragma once

#include <unistd.h>

#include <cstring>
#include <sstream>

#include "common/conffile/conffile.h"
#include "common/log_settings/log_settings.h"
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

/// The lines of a log file without their date and time, as one text; the file is removed. An end that is torn stays so.
inline std::string takeLog(const std::string& path = "/var/log/test.log") {
    std::string lines;
    std::istringstream all(readFile(path));
    for (std::string line; std::getline(all, line);) {
        lines += line.substr(24) + (all.eof() ? "" : "\n");
    }
    unlink(path.c_str());
    return lines;
}

}  // namespace world
