// The simulated servers in a test's world, and the orders that steer them.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/world/world.h"

namespace world {

/// A request as it stood on the wire.
struct CloudRequest {
    std::string method, target, body;
    std::vector<std::string> headers;  // whole lines, in their order
};

/// Running servers; they end with this object.
class Cloud {
  public:
    Cloud();

    std::string url() const { return readFile(directory_ + "/url"); }
    std::string caPath() const { return directory_ + "/ca.pem"; }

    /// Carries out an order of cloud-sim (see its --help) and gives its output; a refused order fails the test.
    std::string order(std::vector<std::string> words) const;
    /// Orders a fault for the next `count` requests of a resource, 0 for all until it is cleared.
    void fault(const std::string& resource, const std::string& kind, unsigned count = 1, const std::string& value = "");
    /// Lets the next request of a resource be answered with an HTTP status and these bytes.
    void answer(const std::string& resource, int status, const std::string& body);
    /// All requests so far.
    std::vector<CloudRequest> journal() const;
    /// The same as one text, a line each: method and target, every header behind the host, the body; "|" between them.
    std::string wire() const;

  private:
    std::string directory_ = "/var/run/cloud";
    Process process_;
};

/// Starts the servers and waits until they serve.
inline std::unique_ptr<Cloud> startCloud() { return std::make_unique<Cloud>(); }

}  // namespace world
