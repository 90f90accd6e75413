// Allocations of a running program that fail on order. The program is linked with failing_allocations.cpp; the orders
// stand in a page that it shares with the test through the file that FAILING_ALLOCATIONS names.
#pragma once

#include <atomic>

namespace world {

/// Whose allocation it is, by the module that its return address lies in.
enum AllocationClass : unsigned { OWN_CODE, CJSON_CODE, LIBDBUS_CODE, LIBEVENT_CODE, OTHER_CODE };

struct FailingAllocations {
    std::atomic<unsigned> armed;  // 1 + the class whose allocations are counted and fail; 0 for none
    std::atomic<unsigned> from;   // the first that fails, counted from 1
    std::atomic<unsigned> run;    // how many fail
    std::atomic<unsigned> count;  // of the armed class so far
    std::atomic<unsigned> fired;  // how many failed
    std::atomic<unsigned> all;    // of all classes so far, armed or not
};

}  // namespace world
