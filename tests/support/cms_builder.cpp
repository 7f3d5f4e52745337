// Builds test CMS SignedData structures with OpenSSL's CMS functions.
#include "support/cms_builder.hpp"

#include <memory>
#include <stdexcept>

#include <openssl/cms.h>
#include <openssl/objects.h>

namespace sealkeep::test {

namespace {

using ObjectPtr = std::unique_ptr<ASN1_OBJECT, Deleter<ASN1_OBJECT_free>>;

void require(bool ok, const char* what)
{
    if (!ok)
        throw std::runtime_error(std::string("cms builder: ") + what);
}

unsigned int flagsFor(CmsSpec const& spec)
{
    unsigned int flags = CMS_BINARY | CMS_PARTIAL | CMS_USE_KEYID | CMS_NOSMIMECAP;
    if (!spec.attached)
        flags |= CMS_DETACHED;
    if (!spec.includeSignerCertificates)
        flags |= CMS_NOCERTS;
    return flags;
}

const EVP_MD* defaultDigest(EVP_PKEY* key)
{
    int nid = 0;
    require(EVP_PKEY_get_default_digest_nid(key, &nid) > 0, "key has no default digest");
    const EVP_MD* md = EVP_get_digestbyname(OBJ_nid2sn(nid));
    require(md != nullptr, "unknown digest");
    return md;
}

void addAttribute(CMS_SignerInfo* signer, CmsAttribute const& attribute)
{
    ObjectPtr object(OBJ_txt2obj(attribute.oid.c_str(), 0));
    require(object != nullptr, "unknown attribute identifier");
    require(CMS_signed_add1_attr_by_OBJ(signer, object.get(), attribute.type,
                                        attribute.value.data(),
                                        static_cast<int>(attribute.value.size())) == 1,
            "cannot add attribute");
}

void addSigner(CMS_ContentInfo* cms, CmsSpec const& spec, CmsSigner const& signer)
{
    CMS_SignerInfo* info =
        CMS_add1_signer(cms, signer.cert, signer.key, defaultDigest(signer.key), flagsFor(spec));
    require(info != nullptr, "cannot add signer");
    for (auto const& attribute : spec.attributes)
        addAttribute(info, attribute);
}

// Digests the content and signs. OpenSSL refuses to finalise a SignedData
// without signers, which is then encoded as it stands.
void finalise(CMS_ContentInfo* cms, CmsSpec const& spec)
{
    static const unsigned char nothing = 0;
    BioPtr content(BIO_new_mem_buf(spec.content.empty() ? &nothing : spec.content.data(),
                                   static_cast<int>(spec.content.size())));
    require(content != nullptr, "cannot wrap content");
    require(CMS_final(cms, content.get(), nullptr, flagsFor(spec)) == 1, "cannot finalise");
}

Bytes encode(CMS_ContentInfo* cms)
{
    unsigned char* der = nullptr;
    int length = i2d_CMS_ContentInfo(cms, &der);
    require(length > 0, "cannot encode");
    Bytes bytes(der, der + length);
    OPENSSL_free(der);
    return bytes;
}

}  // namespace

LoadedSigner loadSigner(Identity const& identity)
{
    return {loadCertificate(identity.certPath), loadKey(identity.keyPath)};
}

Bytes buildCms(CmsSpec const& spec)
{
    CmsPtr cms(CMS_ContentInfo_new());
    require(cms && CMS_SignedData_init(cms.get()) == 1, "cannot make SignedData");
    require(CMS_set_detached(cms.get(), spec.attached ? 0 : 1) == 1, "cannot set detached");
    for (auto const& signer : spec.signers)
        addSigner(cms.get(), spec, signer);
    for (X509* cert : spec.extraCertificates)
        require(CMS_add1_cert(cms.get(), cert) == 1, "cannot add certificate");
    if (!spec.signers.empty())
        finalise(cms.get(), spec);
    return encode(cms.get());
}

Bytes cmsWithSigners(Bytes const& content, std::vector<CmsSigner> const& signers)
{
    CmsSpec spec;
    spec.content = content;
    spec.signers = signers;
    return buildCms(spec);
}

Bytes cmsWithExtraCertificates(Bytes const& content, CmsSigner const& signer,
                               std::vector<X509*> const& extra)
{
    CmsSpec spec;
    spec.content = content;
    spec.signers = {signer};
    spec.extraCertificates = extra;
    return buildCms(spec);
}

Bytes cmsWithAttribute(Bytes const& content, CmsSigner const& signer, CmsAttribute const& attribute)
{
    CmsSpec spec;
    spec.content = content;
    spec.signers = {signer};
    spec.attributes = {attribute};
    return buildCms(spec);
}

Bytes attachedCms(Bytes const& content, CmsSigner const& signer)
{
    CmsSpec spec;
    spec.content = content;
    spec.signers = {signer};
    spec.attached = true;
    return buildCms(spec);
}

Bytes undecodableSequence()
{
    return {0x30, 0x03, 0x02, 0x01, 0x01};
}

}  // namespace sealkeep::test
