#include "simulator/cloud-sim/certificates.h"

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <stdexcept>

namespace cloudsim {

using Key = Owned<EVP_PKEY, EVP_PKEY_free>;
using X509Certificate = Owned<X509, X509_free>;

// Wide enough for a clock that a test sets forward by decades.
static constexpr char KLongAgo[] = "20000101000000Z";
static constexpr char KYearBefore[] = "20010101000000Z";
static constexpr char KYearAhead[] = "21000101000000Z";
static constexpr char KFarAhead[] = "21990101000000Z";

static void check(bool success, const char* what) {
    if (success) return;
    char reason[256];
    ERR_error_string_n(ERR_get_error(), reason, sizeof reason);
    throw std::runtime_error(std::string(what) + ": " + reason);
}

static Key makeKey() {
    char curve[] = "P-256";
    Key key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", curve));
    check(key != nullptr, "making a key");
    return key;
}

struct Request {
    std::string commonName;
    const char* notBefore;
    const char* notAfter;
    std::string alternativeNames;  // empty: an authority's own certificate
};

static void addExtension(X509* certificate, X509* issuer, int kind, const std::string& value) {
    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    const Owned<X509_EXTENSION, X509_EXTENSION_free> extension(
        X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()));
    check(extension && X509_add_ext(certificate, extension.get(), -1), value.c_str());
}

static void setName(X509_NAME* name, const std::string& commonName) {
    check(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                                     reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1, 0),
          "naming a certificate");
}

// Issues a certificate for `key`; without an issuer it signs itself.
static X509Certificate issue(const Request& request, EVP_PKEY* key, X509* issuer, EVP_PKEY* issuerKey) {
    X509Certificate certificate(X509_new());
    check(certificate != nullptr, "making a certificate");
    uint64_t serial = 0;
    check(RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof serial) == 1, "a serial number");
    check(X509_set_version(certificate.get(), X509_VERSION_3) &&
              ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate.get()), serial >> 1) &&
              ASN1_TIME_set_string(X509_getm_notBefore(certificate.get()), request.notBefore) &&
              ASN1_TIME_set_string(X509_getm_notAfter(certificate.get()), request.notAfter) &&
              X509_set_pubkey(certificate.get(), key),
          "filling a certificate");
    setName(X509_get_subject_name(certificate.get()), request.commonName);
    X509* const signer = issuer ? issuer : certificate.get();
    check(X509_set_issuer_name(certificate.get(), X509_get_subject_name(signer)), "naming the issuer");
    if (request.alternativeNames.empty()) {
        addExtension(certificate.get(), signer, NID_basic_constraints, "critical,CA:TRUE");
        addExtension(certificate.get(), signer, NID_key_usage, "critical,keyCertSign,cRLSign");
    } else {
        addExtension(certificate.get(), signer, NID_basic_constraints, "critical,CA:FALSE");
        addExtension(certificate.get(), signer, NID_key_usage, "critical,digitalSignature");
        addExtension(certificate.get(), signer, NID_ext_key_usage, "serverAuth");
        addExtension(certificate.get(), signer, NID_subject_alt_name, request.alternativeNames);
    }
    check(X509_sign(certificate.get(), issuerKey, EVP_sha256()) > 0, "signing a certificate");
    return certificate;
}

static std::string asPem(X509* certificate) {
    const Owned<BIO, BIO_free_all> memory(BIO_new(BIO_s_mem()));
    check(memory && PEM_write_bio_X509(memory.get(), certificate), "writing a certificate");
    const char* bytes = nullptr;
    const long length = BIO_get_mem_data(memory.get(), &bytes);
    return {bytes, static_cast<size_t>(length)};
}

Certificates::Certificates(const std::string& hostName) {
    const Key authorityKey = makeKey();
    const Key strangerKey = makeKey();
    const Key serverKey = makeKey();
    const X509Certificate authority =
        issue({"Throwaway Authority", KLongAgo, KFarAhead, ""}, authorityKey.get(), nullptr, authorityKey.get());
    const X509Certificate stranger =
        issue({"Unknown Authority", KLongAgo, KFarAhead, ""}, strangerKey.get(), nullptr, strangerKey.get());
    authority_ = asPem(authority.get());

    const std::string here = "IP:127.0.0.1,DNS:localhost,DNS:" + hostName;
    const std::string elsewhere = "DNS:elsewhere.invalid";
    const struct {
        const char *notBefore, *notAfter;
        const std::string& names;
        Certificate which;
        bool known;
    } rows[] = {
        {KLongAgo,   KFarAhead,   here,      Certificate::Good,             true },
        {KLongAgo,   KFarAhead,   here,      Certificate::UnknownAuthority, false},
        {KLongAgo,   KYearBefore, here,      Certificate::Expired,          true },
        {KYearAhead, KFarAhead,   here,      Certificate::NotYetValid,      true },
        {KLongAgo,   KFarAhead,   elsewhere, Certificate::WrongHost,        true },
    };
    for (const auto& row : rows) {
        const X509Certificate certificate =
            issue({hostName, row.notBefore, row.notAfter, row.names}, serverKey.get(),
                  row.known ? authority.get() : stranger.get(), row.known ? authorityKey.get() : strangerKey.get());
        Context context(SSL_CTX_new(TLS_server_method()));
        check(context && SSL_CTX_use_certificate(context.get(), certificate.get()) &&
                  SSL_CTX_use_PrivateKey(context.get(), serverKey.get()),
              "making a server context");
        contexts_[row.which] = std::move(context);
    }
}

}  // namespace cloudsim
