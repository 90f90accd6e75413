// Many changes of the data model in a moment. Link pcb.
#pragma once

#include "tests/platform/client.h"

namespace world {

/// Sets one parameter to the numbers `from` to `to`, behind `prefix`, fast, as the platform.
inline void setOften(const char* object, const char* parameter, int from, int to, const std::string& prefix = "") {
    const Client platform("/var/run/pcb_sys", true);
    for (int i = from; i <= to; ++i) {
        EXPECT_EQ(platform.set(object, parameter, prefix + std::to_string(i)), "done");
    }
}

}  // namespace world
