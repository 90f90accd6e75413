// The faults that can be ordered: what is put upon an answer, or upon a connection before there is a request.
#pragma once

#include <deque>
#include <map>
#include <optional>
#include <span>
#include <string>

#include "simulator/cloud-sim/certificates.h"
#include "simulator/cloud-sim/exchange.h"

namespace cloudsim {

/// The name that stands for the connection itself where a resource is named.
inline constexpr char KConnection[] = "connection";

struct FaultKind {
    const char* name;
    const char* values;  // what may follow the count, one word each, what may be left out in brackets
    const char* help;
    /// Puts the fault upon an answer; there are as many values as `values` says. Throws std::invalid_argument for a
    /// value that it cannot use.
    void (*apply)(Exchange& exchange, const Words& values);
};

enum class ConnectionFault { None, Reset, Stall };

struct ConnectionKind {
    const char* name;
    const char* help;
    ConnectionFault fault;
    Certificate certificate;
};

/// Whether the fault's last value may be @FILE.
bool takesFile(const std::string& kind);
std::span<const FaultKind> faultKinds();
std::span<const ConnectionKind> connectionKinds();

/// The faults that wait for their requests, first ordered first served. Not locked: its owner does that.
class FaultQueues {
  public:
    /// Orders `kind` for the next `count` requests of `resource`, 0 for all until it is cleared. Throws
    /// std::invalid_argument for an unknown kind and for values that it cannot use or does not take.
    void order(const std::string& resource, const std::string& kind, unsigned count, Words values);
    /// Takes back what was ordered for `resource`; for all when it is empty.
    void clear(const std::string& resource);

    /// Puts the next fault of `resource` upon an answer, if there is one.
    void apply(const std::string& resource, Exchange& exchange);
    /// The next fault of a connection; null when it is to be a good one.
    const ConnectionKind* nextOfConnection();

    /// One line for each order that still waits.
    std::string describe() const;

  private:
    struct Order {
        std::string kind;
        unsigned left;  // 0: until cleared
        Words values;
    };
    std::optional<Order> take(const std::string& resource);

    std::map<std::string, std::deque<Order>> orders_;
};

}  // namespace cloudsim
