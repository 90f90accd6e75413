// The application server and the smart-plug cloud: what they know, and how each of their resources answers.
#pragma once

#include <httplib.h>

#include <map>
#include <set>
#include <span>
#include <string>

#include "simulator/cloud-sim/exchange.h"

namespace cloudsim {

struct Registration {
    std::string name;
    bool enabled;
};

struct Account {
    std::string email, password;
};

struct Plug {
    std::string state;
    std::string power;  // JSON, handed out as it is
    bool connected = true;
    bool switchable = true;
    std::string powerWhenOn = power;  // what it shows again after it was switched off and on
};

struct State {
    std::map<std::string, Registration> registrations;  // by HA-ID
    std::map<std::string, Account> accounts;            // by HA-ID
    std::map<std::string, Plug> plugs;                  // by plug id; they belong to every account
    std::set<std::string> takenNames;                   // by others
    std::set<std::string> tokens;
};

struct Resource {
    const char* name;
    const char* method;
    const char *pathBegin, *pathEnd;  // what stands between them is the HA-ID
    void (*answer)(State& state, const httplib::Request& request, const std::string& haId, Exchange& exchange);
};

std::span<const Resource> resources();

/// The resource at a path, and in `haId` the part of the path that names a gateway; null when there is none.
const Resource* findResource(const std::string& path, std::string& haId);

}  // namespace cloudsim
