// A throwaway certificate authority, made anew with every start, and the server certificates that it issues.
#pragma once

#include <openssl/ssl.h>

#include <map>
#include <string>

#include "common/owned/owned.h"

namespace cloudsim {

enum class Certificate { Good, UnknownAuthority, Expired, NotYetValid, WrongHost };

using Context = Owned<SSL_CTX, SSL_CTX_free>;

class Certificates {
  public:
    /// Makes everything; the good certificate is for 127.0.0.1, localhost and `hostName`. Throws when OpenSSL fails.
    explicit Certificates(const std::string& hostName);

    /// The authority's certificate as PEM: what a client must trust.
    const std::string& authority() const { return authority_; }

    /// A server context with one of the certificates. Lives as long as this object; any thread.
    SSL_CTX* context(Certificate which) const { return contexts_.at(which).get(); }

  private:
    std::string authority_;
    std::map<Certificate, Context> contexts_;
};

}  // namespace cloudsim
