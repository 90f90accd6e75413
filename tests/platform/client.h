// A client of the running data-model bus, and how tests use one.
#pragma once

#include <gtest/gtest.h>

#include "platform/pcb/pcb.h"
#include "tests/world/world.h"

inline constexpr char KDynDns[] = "OrvoService.DynDNS";

/// The text, which is released.
inline std::string take(char* text) {
    std::string copy = text ? text : "(none)";
    free(text);
    return copy;
}

struct Client {
    pcb_t* pcb;
    peer_info_t* peer;

    explicit Client(const std::string& path = "/var/run/pcb_sys", bool platform = false)
        : pcb((setUp(), pcb_create("test", 0, nullptr))) {
        if (platform) pcb_client_set_attribute(pcb, PCB_CLIENT_PLATFORM, 1);
        peer = pcb_client_connect(pcb, ("pcb://ipc:{" + path + "}").c_str());
    }
    ~Client() { pcb_destroy(pcb); }

    static void setUp() { [[maybe_unused]] static const bool done = connection_initLibrary(); }

    /// What the last failed operation says.
    std::string error() const { return error_string(pcb_client_error(pcb)); }
    std::string get(const char* path, const char* parameter) const {
        const variant_t* value = pcb_client_get(peer, path, parameter);
        return value ? take(variant_char(value)) : "error: " + error();
    }
    /// "done", or the error.
    std::string set(const char* path, const char* parameter, const std::string& value) const {
        variant_t variant;
        variant_initialize(&variant);
        variant_setChar(&variant, value.c_str());
        const bool done = pcb_client_set(peer, path, parameter, &variant);
        variant_cleanup(&variant);
        return done ? "done" : error();
    }
};

struct Platform : testing::Test {
    std::unique_ptr<world::Process> bus = world::startPcbBus();
    Client client;
};

/// Sets one parameter, as the platform, to `prefix` followed by the numbers `from` to `to`, fast.
inline void setOften(const char* object, const char* parameter, int from, int to, const std::string& prefix = "") {
    const Client platform("/var/run/pcb_sys", true);
    for (int i = from; i <= to; ++i) {
        EXPECT_EQ(platform.set(object, parameter, prefix + std::to_string(i)), "done");
    }
}
