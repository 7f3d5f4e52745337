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

unsigned int flagsFor(CmsRecipe const& recipe)
{
    unsigned int flags = CMS_BINARY | CMS_PARTIAL | CMS_USE_KEYID | CMS_NOSMIMECAP;
    if (!recipe.attached)
        flags |= CMS_DETACHED;
    if (!recipe.includeSignerCertificates)
        flags |= CMS_NOCERTS;
    return flags;
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

void addSigner(CMS_ContentInfo* cms, CmsRecipe const& recipe, CmsSigner const& signer)
{
    CMS_SignerInfo* info =
        CMS_add1_signer(cms, signer.cert, signer.key, defaultDigestOf(signer.key), flagsFor(recipe));
    require(info != nullptr, "cannot add signer");
    for (auto const& attribute : recipe.attributes)
        addAttribute(info, attribute);
}

// Digests the content and signs. OpenSSL refuses to finalise a SignedData
// without signers, which is then encoded as it stands.
void finalise(CMS_ContentInfo* cms, CmsRecipe const& recipe, BIO* content)
{
    require(content != nullptr, "cannot read content");
    require(CMS_final(cms, content, nullptr, flagsFor(recipe)) == 1, "cannot finalise");
}

void finalise(CMS_ContentInfo* cms, CmsRecipe const& recipe)
{
    static const unsigned char nothing = 0;
    BioPtr content(BIO_new_mem_buf(recipe.content.empty() ? &nothing : recipe.content.data(),
                                   static_cast<int>(recipe.content.size())));
    finalise(cms, recipe, content.get());
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

Bytes buildCms(CmsRecipe const& recipe)
{
    CmsPtr cms(CMS_ContentInfo_new());
    require(cms && CMS_SignedData_init(cms.get()) == 1, "cannot make SignedData");
    require(CMS_set_detached(cms.get(), recipe.attached ? 0 : 1) == 1, "cannot set detached");
    for (auto const& signer : recipe.signers)
        addSigner(cms.get(), recipe, signer);
    for (X509* cert : recipe.extraCertificates)
        require(CMS_add1_cert(cms.get(), cert) == 1, "cannot add certificate");
    if (!recipe.signers.empty())
        finalise(cms.get(), recipe);
    return encode(cms.get());
}

Bytes cmsWithSigners(Bytes const& content, std::vector<CmsSigner> const& signers)
{
    CmsRecipe recipe;
    recipe.content = content;
    recipe.signers = signers;
    return buildCms(recipe);
}

Bytes cmsWithExtraCertificates(Bytes const& content, CmsSigner const& signer,
                               std::vector<X509*> const& extra)
{
    CmsRecipe recipe;
    recipe.content = content;
    recipe.signers = {signer};
    recipe.extraCertificates = extra;
    return buildCms(recipe);
}

Bytes cmsWithAttribute(Bytes const& content, CmsSigner const& signer, CmsAttribute const& attribute)
{
    CmsRecipe recipe;
    recipe.content = content;
    recipe.signers = {signer};
    recipe.attributes = {attribute};
    return buildCms(recipe);
}

Bytes attachedCms(Bytes const& content, CmsSigner const& signer)
{
    CmsRecipe recipe;
    recipe.content = content;
    recipe.signers = {signer};
    recipe.attached = true;
    return buildCms(recipe);
}

Bytes detachedCmsOverFile(std::string const& path, CmsSigner const& signer)
{
    CmsRecipe recipe;
    recipe.signers = {signer};
    CmsPtr cms(CMS_ContentInfo_new());
    require(cms && CMS_SignedData_init(cms.get()) == 1, "cannot make SignedData");
    require(CMS_set_detached(cms.get(), 1) == 1, "cannot set detached");
    addSigner(cms.get(), recipe, signer);
    BioPtr content(BIO_new_file(path.c_str(), "rb"));
    finalise(cms.get(), recipe, content.get());
    return encode(cms.get());
}

Bytes undecodableSequence()
{
    return {0x30, 0x03, 0x02, 0x01, 0x01};
}

}  // namespace sealkeep::test
