// The record that crosses the event pipe, from the main thread to the bus thread.
#pragma once

#include <cstddef>
#include <cstdint>

enum EventCode : uint32_t {
    EVENT_APP_SERVER_URL_INIT = 0,
    EVENT_APP_SERVER_URL_CHANGED = 1,
    EVENT_COMM_SERVER_URL_INIT = 2,
    EVENT_COMM_SERVER_URL_CHANGED = 3,
    EVENT_HA_ID_INIT = 4,
    EVENT_HA_ID_CHANGED = 5,
    EVENT_HA_ENABLE_INIT = 6,
    EVENT_HA_ENABLE_CHANGED = 7,
    EVENT_DNS_SERVER_STATUS_INIT = 8,
    EVENT_DNS_SERVER_STATUS_CHANGED = 9,
    EVENT_WAN_ADDRESS_CHANGED = 10,
    EVENT_CGNAT_STATUS_INIT = 11,
    EVENT_CGNAT_STATUS_CHANGED = 12,
    EVENT_DYNDNS_ENABLE_INIT = 13,
    EVENT_DYNDNS_ENABLE_CHANGED = 14,
    EVENT_COUNT
};

/// The longest value a record carries, in bytes without the terminating zero.
constexpr size_t KEventValueMaxLength = 1023;

/// Written and read whole. The value is zero-terminated and zero-padded, all zero when there is none.
struct EventRecord {
    uint32_t code;  // an EventCode, host byte order
    char value[KEventValueMaxLength + 1];
};
static_assert(sizeof(EventRecord) == 1028);
