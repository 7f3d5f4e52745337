// Signing RPM packages with per-file signatures in tests and taking the
// result apart: RSA keys for trusted applications, the two tables a
// developer signature carries, and the package's file names in header order.
#ifndef SEALKEEP_TESTS_SUPPORT_PAYLOAD_SIGNATURES_HPP
#define SEALKEEP_TESTS_SUPPORT_PAYLOAD_SIGNATURES_HPP

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <openssl/evp.h>
#include <rpm/rpmtypes.h>

#include "support/cms_builder.hpp"
#include "support/files.hpp"

namespace sealkeep::test {

// OP-TEE's algorithm identifiers for trusted-application signatures.
inline constexpr unsigned int taRsaPss = 0x70414930;
inline constexpr unsigned int taRsaPkcs1 = 0x70004830;

// A new RSA key of the given size, also written as PEM to path.
PkeyPtr generateRsaKey(std::string const& path, int bits = 2048);
// A new EC key (prime256v1).
PkeyPtr generateEcKey();

struct PackageSigning {
    std::optional<Bytes> der;  // the CMS, when cms_sign succeeded
    std::string errors;        // what it printed on standard error
};

// cms_sign over the whole of package with signFiles set.
PackageSigning signPackage(Bytes const& package, CmsSigner signer, EVP_PKEY* taKey = nullptr,
                           unsigned int taAlgo = taRsaPss, int signFiles = 1);

// One entry of a file-signature table.
struct TableEntry {
    long index;
    Bytes value;
};
// The IMA table (which 0) or the trusted-application table (which 1) of a
// CMS; empty optional when the CMS has none.
std::optional<std::vector<TableEntry>> tableOf(Bytes const& der, int which);
// The version field of that table.
long tableVersion(Bytes const& der, int which);

// The installed paths of the package's files, in header order (what entry
// indices refer to).
std::vector<std::string> packageFileNames(std::string const& rpmPath);
// Walks the payload of the package at path with librpm's archive reader
// (content first), calling visit with the iterator standing on each file in
// archive order. Throws when the package cannot be opened.
void forEachPayloadFile(std::string const& path, std::function<void(rpmfi)> const& visit);
// Unpacks the payload with rpm2cpio | cpio under dir.
void unpackPayload(std::string const& rpmPath, std::string const& dir);

// The newc archive of names (one per line, "./usr/..."), taken from the
// unpacked payload of the package at rpm.
Bytes archiveOf(std::string const& rpm, std::string const& names);
// The package at rpm with archive, compressed with gzip, as its payload: a
// package whose header names another compressor gets a payload that does
// not match it.
Bytes withPayload(std::string const& rpm, Bytes const& archive);

// "%.2x" of every byte and back.
std::string hexOf(Bytes const& bytes);
Bytes bytesOfHex(std::string const& text);

}  // namespace sealkeep::test

#endif
