// PackageSignatures::Certificate: an X.509 certificate together with its
// subject, key id, group and subgroup, computed once when the object is made.
#include <sealkeep/certificate.hpp>

#include <climits>
#include <cstdio>
#include <iostream>
#include <optional>
#include <utility>

#include <openssl/pem.h>

#include <sealkeep/configuration.hpp>
#include <sealkeep/sealkeep.h>

#include "common/open_file.hpp"
#include "common/pem_file.hpp"
#include "common/ossl_ptr.hpp"

namespace PackageSignatures {

using sealkeep::FilePtr;
using sealkeep::MallocPtr;
using sealkeep::X509Ptr;
using sealkeep::X509StorePtr;

struct Certificate::Record {
    X509Ptr certificate;  // one reference of its own; null when empty
    std::string subject;
    std::string keyId;
    Group group = Group::None;
    Subgroup subgroup = Subgroup::None;
};

namespace {

// Takes a reference of its own to a certificate someone else holds.
X509Ptr sharedReference(X509* cert)
{
    if (cert)
        X509_up_ref(cert);
    return X509Ptr(cert);
}

// The first line of a text file, without its newline and untrimmed; empty for
// an empty file. nullopt when the file cannot be opened.
std::optional<std::string> firstLineOf(const std::string& path)
{
    FilePtr file = sealkeep::openFile(path.c_str(), "r");
    if (!file)
        return std::nullopt;
    char* buffer = nullptr;
    std::size_t capacity = 0;
    const ssize_t length = getline(&buffer, &capacity, file.get());
    MallocPtr line(buffer);
    if (length <= 0)
        return std::string();
    std::string text(line.get(), static_cast<std::size_t>(length));
    if (text.back() == '\n')
        text.pop_back();
    return text;
}

// The text a flat function handed out, freed here; empty for null.
std::string takeText(char* text)
{
    MallocPtr owned(text);
    return owned ? std::string(owned.get()) : std::string();
}

}  // namespace

Certificate::Certificate(x509_st* x) : record_(std::make_unique<Record>())
{
    if (!x)
        return;
    record_->certificate = sharedReference(x);
    record_->subject = takeText(certificate_get_subject(x));
    record_->keyId = takeText(certificate_get_keyid(x));
    MallocPtr groupText(certificate_get_group(x));
    record_->group = groupFromString(groupText.get());
    record_->subgroup = subgroupFromString(groupText.get());
}

Certificate::Certificate(const Certificate& other) : record_(std::make_unique<Record>())
{
    if (!other.record_->certificate)
        return;
    record_->certificate = sharedReference(other.get());
    record_->subject = other.record_->subject;
    record_->keyId = other.record_->keyId;
    record_->group = other.record_->group;
    record_->subgroup = other.record_->subgroup;
}

Certificate& Certificate::operator=(Certificate&& other) noexcept
{
    if (this != &other)
        std::swap(record_, other.record_);
    return *this;
}

Certificate::~Certificate() = default;

x509_st* Certificate::get() const
{
    return record_->certificate.get();
}

std::string Certificate::subject() const
{
    return record_->subject;
}

std::string Certificate::keyId() const
{
    return record_->keyId;
}

Group Certificate::group() const
{
    return record_->group;
}

Subgroup Certificate::subgroup() const
{
    return record_->subgroup;
}

bool Certificate::saveAsPem(const char* path) const
{
    FilePtr file = sealkeep::openFile(path, "w");
    if (!file) {
        std::cerr << "Could open file '" << sealkeep::printablePath(path) << "'" << std::endl;
        return false;
    }
    X509* cert = get();
    bool written = writePemAndClose(std::move(file), [cert](FILE* out) { return cert ? PEM_write_X509(out, cert) : 0; });
    if (!written) {
        std::cerr << "Could not save X.509 certificate" << std::endl;
        return false;
    }
    return true;
}

bool Certificate::verify(const char* caPath) const
{
    // Without a store the verification itself fails, so no separate check.
    X509StorePtr store(certificate_store_read(caPath));
    return certificate_verify(get(), store.get());
}

std::vector<unsigned char> Certificate::toDer() const
{
    // An empty certificate encodes to nothing (length 0), silently.
    int length = i2d_X509(get(), nullptr);
    if (length < 0) {
        std::cerr << "Could not encode X.509 certificate" << std::endl;
        return {};
    }
    if (length == 0)
        return {};
    std::vector<unsigned char> der(static_cast<std::size_t>(length));
    unsigned char* cursor = der.data();
    i2d_X509(get(), &cursor);
    return der;
}

bool Certificate::isSystemDeveloperCertificate() const
{
    // Always the system's own configuration: which developer is the system's
    // does not depend on the database a caller happens to use.
    const std::optional<std::string> systemKeyId =
        firstLineOf(Configuration().systemDeveloperKeyIdPath());
    if (!systemKeyId) {
        fputs("Couldn't retrieve system developer key id\n", stderr);
        return false;
    }
    return *systemKeyId == keyId();
}

Certificate Certificate::fromDer(const unsigned char* data, std::size_t length)
{
    const unsigned char* cursor = data;
    X509Ptr decoded(data && length <= LONG_MAX
                        ? d2i_X509(nullptr, &cursor, static_cast<long>(length))
                        : nullptr);
    if (!decoded) {
        std::cerr << "Could not decode X.509 certificate" << std::endl;
        return Certificate();
    }
    return Certificate(decoded.get());
}

Certificate Certificate::readCertificateFromFile(const char* path)
{
    X509Ptr cert(certificate_read(path));
    return Certificate(cert.get());
}

}  // namespace PackageSignatures
