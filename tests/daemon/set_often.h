// Many changes of the data model in a moment. Link pcb.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "platform/pcb/pcb.h"

namespace world {

/// Sets one parameter to the numbers `from` to `to`, behind `prefix`, fast, as the platform.
inline void setOften(const char* object, const char* parameter, int from, int to, const std::string& prefix = "") {
    connection_initLibrary();
    pcb_t* client = pcb_create("test", 0, nullptr);
    pcb_client_set_attribute(client, PCB_CLIENT_PLATFORM, 1);
    peer_info_t* peer = pcb_client_connect(client, "pcb://ipc:{/var/run/pcb_sys}");
    variant_t value;
    variant_initialize(&value);
    for (int i = from; i <= to; ++i) {
        variant_setChar(&value, (prefix + std::to_string(i)).c_str());
        EXPECT_TRUE(pcb_client_set(peer, object, parameter, &value));
    }
    variant_cleanup(&value);
    pcb_destroy(client);
    connection_exitLibrary();
}

}  // namespace world
