// A GOST PKI generated at test time in a temporary directory: keys, requests,
// a CA and signer certificates issued by the library, plus small builders for
// hand-made certificates that the library itself would never issue.
//
// Every helper throws std::runtime_error when a step fails, so a broken
// fixture stops the test instead of producing confusing results later.
#ifndef SEALKEEP_TESTS_SUPPORT_PKI_HPP
#define SEALKEEP_TESTS_SUPPORT_PKI_HPP

#include <optional>
#include <string>

#include <openssl/evp.h>
#include <openssl/x509.h>

#include "../../lib/common/ossl_ptr.hpp"
#include "support/temp_dir.hpp"

namespace sealkeep::test {

// ---------------------------------------------------------------------------
// Keys, requests and files

// Writes a new unencrypted PEM GOST R 34.10-2012 private key (bits 256 or 512)
// with the given parameter set and returns path.
std::string generateKey(std::string const& path, int bits = 256, const char* paramset = "A");
// Writes a PEM request for the key at keyPath with subject CN=commonName,
// signed with the key's default digest.
void writeRequest(std::string const& keyPath, std::string const& csrPath,
                  std::string const& commonName);

PkeyPtr loadKey(std::string const& path);
// The digest key signs with by default (throws when it has none).
const EVP_MD* defaultDigestOf(EVP_PKEY* key);
X509Ptr loadCertificate(std::string const& path);
void saveCertificate(X509* cert, std::string const& path);

// ---------------------------------------------------------------------------
// Hand-made certificates

// A version 3 certificate for key with subject and issuer CN=commonName,
// serial 1, valid from now for a year, without extensions and unsigned.
X509Ptr makeBareCertificate(EVP_PKEY* key, std::string const& commonName);
// Appends an extension made from configuration text, e.g.
// (NID_subject_key_identifier, "00:01:02") or (NID_ext_key_usage,
// "critical,emailProtection,packageSigning"). issuer is the certificate that
// "keyid:always" refers to (cert itself when null).
void addExtension(X509* cert, int nid, std::string const& value, X509* issuer = nullptr);
// Appends the certificate-group extension with the given text.
void addGroupExtension(X509* cert, std::string const& groupText);
// Signs with key and its default digest.
void signCertificate(X509* cert, EVP_PKEY* key);
// The NID the library registered for the certificate-group extension.
int certificateGroupNid();

// ---------------------------------------------------------------------------
// A CA and the identities it issues

struct Identity {
    std::string keyPath;
    std::string certPath;
};

class Pki {
public:
    // Makes ca.key and ca.pem (CN=caName) with make_ca_certificate.
    explicit Pki(std::string const& caName = "sealkeep test CA");

    TempDir const& dir() const { return dir_; }
    Identity const& ca() const { return ca_; }

    // A fresh key, request (CN=name) and certificate from make_certificate,
    // stored as name.key, name.csr and name.pem; groupText may be null.
    Identity issue(std::string const& name, const char* groupText);

    // A developer identity signed by this CA by hand, valid from notBefore to
    // notAfter seconds from now: a certificate the library's CA never makes
    // (expired, or not yet valid).
    Identity issueWithValidity(std::string const& name, long notBefore, long notAfter);
    // A developer identity signed by this CA by hand, valid for a year, with
    // subject CN=commonName whatever bytes it holds (control characters
    // included, which the library's CA refuses); stored as name.key and
    // name.pem.
    Identity issueNamed(std::string const& name, std::string const& commonName);

    // Identities issued on first use with the group texts "developer",
    // "seclab" and "client".
    Identity const& developer();
    Identity const& seclab();
    Identity const& client();

private:
    Identity issueByHand(std::string const& name, std::string const& commonName, long notBefore, long notAfter);
    Identity const& cached(std::optional<Identity>& slot, const char* group);

    TempDir dir_;
    Identity ca_;
    std::optional<Identity> developer_, seclab_, client_;
};

}  // namespace sealkeep::test

#endif
