// PackageSignatures::Cms: one appended signature as DER bytes, answering for
// its signer certificate, signature text, per-file and trusted-application
// signatures and rotation chain. Answers are parsed on first use and cached.
//
// Copying and assign() follow fixed rules that callers rely on:
//  - a copy takes the bytes and the loaded file-signature table only; every
//    other cache starts empty in the copy;
//  - assign()/assignRaw() replace the bytes and empty the file-signature table
//    and nothing else: the certificate, rotation chain, trusted-application
//    table and parsed CMS keep describing the former bytes.
// The library's own decisions (the selectors below, Database::checkPackage
// and the records of Database::insertPackage) always judge the bytes the
// object holds when they are called, and never fill these caches.
// Const members fill caches, so one object must not be used by two threads at
// once. certificate() and rotationChain() hand out shared ownership.
#ifndef SEALKEEP_CMS_HPP
#define SEALKEEP_CMS_HPP

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <sealkeep/certificate.hpp>
#include <sealkeep/export.hpp>
#include <sealkeep/rotation.hpp>

struct CMS_ContentInfo_st;

namespace PackageSignatures {

class SEALKEEP_EXPORT Cms {
public:
    explicit Cms(std::vector<unsigned char> const& der);
    Cms(Cms const& other);
    ~Cms();

    std::vector<unsigned char> data() const;
    unsigned long size() const;
    void assign(std::vector<unsigned char> const& der);
    void assignRaw(unsigned char const* der, unsigned long len);
    // Compares the bytes only.
    bool operator==(Cms const& other) const;

    // The signer's signature value in base64; empty on failure.
    std::string signature() const;
    // Fills the trusted-application table (which == 1) or the file table.
    void loadSignatures(int which) const;
    // The IMA signature of payload file index; empty when there is none.
    std::vector<unsigned char> fileSignature(int index) const;
    // The trusted-application signature of payload file index; empty when none.
    std::vector<unsigned char> trustletSignature(int index) const;
    std::shared_ptr<Certificate> certificate() const;
    std::shared_ptr<RotationChain> rotationChain() const;

    // The parsed CMS, borrowed; parsed on first use, null when the bytes do
    // not decode.
    ::CMS_ContentInfo_st* parsed() const;

private:
    struct Record;
    // The library's own decisions read the answers for the bytes held now,
    // whatever the public caches keep.
    friend struct CmsAccess;
    std::unique_ptr<Record> record_;
};

// The first signature of the list when its signer is a developer.
SEALKEEP_EXPORT std::optional<Cms> developerCmsFromVector(std::vector<Cms> const& cmses);
// The last signature of the list when its signer is a client.
SEALKEEP_EXPORT std::optional<Cms> clientCmsFromVector(std::vector<Cms> const& cmses);

}  // namespace PackageSignatures

#endif
