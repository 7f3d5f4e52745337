// Builds CMS SignedData structures that cms_sign never makes (several
// signers, extra certificates, attributes of any shape, attached content),
// with OpenSSL's own CMS functions, so that readers and verifiers can be
// tested against them. Every builder throws std::runtime_error on failure.
#ifndef SEALKEEP_TESTS_SUPPORT_CMS_BUILDER_HPP
#define SEALKEEP_TESTS_SUPPORT_CMS_BUILDER_HPP

#include <string>
#include <vector>

#include <openssl/asn1.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include "support/files.hpp"
#include "support/pki.hpp"

namespace sealkeep::test {

// The object identifiers of this library's private signed attributes.
inline constexpr const char* fileSignaturesOid = "1.2.999.4.17.1.3.1";
inline constexpr const char* rotationChainOid = "1.2.999.4.17.1.3.2";
inline constexpr const char* trustletSignaturesOid = "1.2.999.4.17.1.3.3";

// A signing certificate and its private key, both borrowed.
struct CmsSigner {
    X509* cert;
    EVP_PKEY* key;
};

// A signer loaded from an identity's PEM files, owning both.
struct LoadedSigner {
    X509Ptr cert;
    PkeyPtr key;
    CmsSigner borrowed() const { return {cert.get(), key.get()}; }
};
LoadedSigner loadSigner(Identity const& identity);

// One signed attribute with a single value. For V_ASN1_SEQUENCE (and
// V_ASN1_SET) value is the whole DER of that SEQUENCE, tag and length
// included; for other types it is the content octets (e.g. V_ASN1_OCTET_STRING).
struct CmsAttribute {
    std::string oid;  // dotted text or a registered short name
    int type = V_ASN1_SEQUENCE;
    Bytes value;
};

struct CmsRecipe {
    Bytes content;
    // One SignerInfo each, in order, identified by subject key identifier and
    // signed with the key's default digest. May be empty: the SignedData then
    // has no signer and no content.
    std::vector<CmsSigner> signers;
    // Added to every signer's signed attributes, in order.
    std::vector<CmsAttribute> attributes;
    // Placed in the certificate set beside the signers' own certificates.
    std::vector<X509*> extraCertificates;
    // False leaves the signers' certificates out of the certificate set.
    bool includeSignerCertificates = true;
    // True embeds content in the CMS; false makes a detached signature.
    bool attached = false;
};

// The DER of the SignedData described by recipe.
Bytes buildCms(CmsRecipe const& recipe);

// A detached signature over content by every one of signers.
Bytes cmsWithSigners(Bytes const& content, std::vector<CmsSigner> const& signers);
// A detached signature by signer whose certificate set also holds extra
// (for instance the issuing CA's certificate).
Bytes cmsWithExtraCertificates(Bytes const& content, CmsSigner const& signer,
                               std::vector<X509*> const& extra);
// A detached signature by signer carrying one more signed attribute.
Bytes cmsWithAttribute(Bytes const& content, CmsSigner const& signer, CmsAttribute const& attribute);
// An attached signature by signer whose encapsulated content is content.
Bytes attachedCms(Bytes const& content, CmsSigner const& signer);

// A detached signature by signer over the whole file at path, whose bytes are
// streamed into the digest (a file of any size).
Bytes detachedCmsOverFile(std::string const& path, CmsSigner const& signer);

// DER of SEQUENCE { INTEGER 1 }: well-formed, and no structure of the library.
Bytes undecodableSequence();

}  // namespace sealkeep::test

#endif
