// All that the servers share: what they know, which faults wait, and which answers are held. One lock for everything.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>

#include "simulator/cloud-sim/faults.h"
#include "simulator/cloud-sim/resources.h"

namespace cloudsim {

struct Cloud {
    std::string directory;
    std::string url;

    std::mutex mutex;  // guards what follows
    State state;
    FaultQueues faults;
    unsigned releases = 0;  // how often what is held was released
    unsigned held = 0;      // answers and handshakes that are held now
    bool stopping = false;
    std::condition_variable changed;  // `releases` or `stopping`
};

}  // namespace cloudsim
