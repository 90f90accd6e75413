// The simulated servers in a test's world, and the orders that steer them.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/world/world.h"

namespace world {

/// Running servers; they end with this object.
class Cloud {
  public:
    Cloud();

    std::string url() const { return readFile(directory_ + "/url"); }
    std::string caPath() const { return directory_ + "/ca.pem"; }

    /// Carries out an order of cloud-sim (see its --help) and gives its output; a refused order fails the test.
    std::string order(std::vector<std::string> words) const;
    /// Orders a fault for the next request of a resource.
    void fault(const std::string& resource, const std::string& kind) const { order({"fault", resource, kind}); }
    /// Lets the next request of a resource be answered with an HTTP status and these bytes.
    void answer(const std::string& resource, int status, const std::string& body);
    /// All requests so far as one text, a line each: method and target, every header after the host's, the body; "|"
    /// between them. And the lines one by one.
    std::string wire() const { return readFile(directory_ + "/journal"); }
    std::vector<std::string> journal() const;

  private:
    std::string directory_ = "/var/run/cloud";
    Process process_;
};

/// Starts the servers and waits until they serve.
inline std::unique_ptr<Cloud> startCloud() { return std::make_unique<Cloud>(); }

}  // namespace world
