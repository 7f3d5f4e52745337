// PackageSignatures::Certificate: one X.509 certificate with the facts the
// library keys everything on (subject, key id, group, subgroup), computed once.
//
// Ownership: a Certificate holds one reference of its own to the X509; copies
// share the X509 by reference count but not the record. An empty Certificate
// holds no X509 and has empty subject and key id and group/subgroup None.
#ifndef SEALKEEP_CERTIFICATE_HPP
#define SEALKEEP_CERTIFICATE_HPP

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <sealkeep/export.hpp>
#include <sealkeep/groups.hpp>

struct x509_st;

namespace PackageSignatures {

class SEALKEEP_EXPORT Certificate {
public:
    // Takes a new reference to x (the caller keeps its own); null makes an
    // empty certificate.
    explicit Certificate(x509_st* x = nullptr);
    Certificate(const Certificate& other);
    // Exchanges the two objects' records.
    Certificate& operator=(Certificate&& other) noexcept;
    ~Certificate();

    // The X509 held, borrowed; null for an empty certificate.
    x509_st* get() const;

    std::string subject() const;
    std::string keyId() const;
    Group group() const;
    Subgroup subgroup() const;

    // Writes the certificate as PEM, truncating path.
    bool saveAsPem(const char* path) const;
    // True when the certificate chains to the CA certificates in caPath.
    bool verify(const char* caPath) const;
    // The DER encoding; empty on failure.
    std::vector<unsigned char> toDer() const;
    // Whether the key id equals the first line of the system developer key
    // id file named by the default configuration (not a database's), read
    // anew on every call.
    bool isSystemDeveloperCertificate() const;

    // Decodes DER; an empty certificate on failure.
    static Certificate fromDer(const unsigned char* data, std::size_t length);
    // The first PEM certificate of path; an empty certificate on failure.
    static Certificate readCertificateFromFile(const char* path);
    // The signer certificate of every signature appended to the file at path,
    // in file order (an empty certificate where one cannot be read); empty
    // when the file cannot be opened.
    static std::vector<Certificate> allFromFilePath(char const* path);

private:
    struct Record;
    std::unique_ptr<Record> record_;
};

}  // namespace PackageSignatures

#endif
