// The HTTPS server. The HTTP library reads requests and composes answers; what lies below is our own, so that each
// connection can have its own certificate and each answer its own way to go wrong.
#pragma once

#include <httplib.h>

#include <cstdio>
#include <mutex>
#include <set>
#include <string>

#include "common/owned/owned.h"
#include "simulator/cloud-sim/certificates.h"
#include "simulator/cloud-sim/cloud.h"

namespace cloudsim {

struct Received;

class TlsServer : public httplib::Server {
  public:
    /// Appends each request to the file journal in the cloud's directory, before its answer goes out, as one line:
    /// method and target, every header after the host's, and the body, with "|" between them. Prints one line for it.
    /// Throws when the file cannot be opened. `cloud` and `certificates` must live longer.
    TlsServer(Cloud& cloud, const Certificates& certificates);

    /// Ends all connections, held ones too, and refuses new ones. Any thread.
    void closeConnections();

  private:
    bool process_and_close_socket(socket_t socket) override;
    void serve(socket_t socket);
    void serveRequest(SSL* tls);
    bool waitUntilLetGo(socket_t socket, const Exchange& exchange);
    void writeJournal(const Received& received);
    bool adopt(socket_t socket);
    void abandon(socket_t socket);

    Cloud& cloud_;
    const Certificates& certificates_;
    Owned<FILE, fclose> journal_;
    std::mutex journalMutex_;
    std::mutex socketsMutex_;
    std::set<socket_t> sockets_;
    bool closing_ = false;
};

}  // namespace cloudsim
