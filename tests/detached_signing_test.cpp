// The library's pieces for signing without the package: cms_sign_digest, the
// plan of a signature, signSignaturePlan and attach, through the public
// interfaces only.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/cms.h>

#include <sealkeep/sealkeep.hpp>

#include "support/cms_builder.hpp"
#include "support/files.hpp"
#include "support/payload_signatures.hpp"
#include "support/pki.hpp"
#include "support/rpm_builder.hpp"
#include "support/signing.hpp"
#include "support/stderr_capture.hpp"
#include "support/temp_dir.hpp"

namespace sealkeep::test {
namespace {

using PackageSignatures::AttachResult;
using PackageSignatures::FileWithCmses;
using SignedBuffer = std::unique_ptr<unsigned char, Deleter<free>>;

Bytes streebogOf(Bytes const& data)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(data.data(), data.size(), digest, &length, EVP_get_digestbyname(OBJ_nid2sn(982)), nullptr);
    return Bytes(digest, digest + length);
}

std::vector<int> signedAttributeNids(Bytes const& der)
{
    CmsPtr cms(cms_from_der(der.data(), static_cast<long>(der.size())));
    CMS_SignerInfo* signer = sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(cms.get()), 0);
    std::vector<int> nids;
    for (int i = 0; i < CMS_signed_get_attr_count(signer); ++i)
        nids.push_back(OBJ_obj2nid(X509_ATTRIBUTE_get0_object(CMS_signed_get_attr(signer, i))));
    std::sort(nids.begin(), nids.end());
    return nids;
}

class DetachedSigning : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        pki = std::make_unique<Pki>();
        rpmDir = std::make_unique<TempDir>();
        rpm = buildRpm(rpmDir->path(), "detached",
                       {regularFile("/usr/share/d/a.txt", "alpha\n"), regularFile("/usr/share/d/b.txt", "beta\n"),
                        hardLink("/usr/share/d/c.txt", "/usr/share/d/a.txt")});
    }
    static void TearDownTestSuite()
    {
        rpmDir.reset();
        pki.reset();
    }

    static inline std::unique_ptr<Pki> pki;
    static inline std::unique_ptr<TempDir> rpmDir;
    static inline std::string rpm;
    TempDir work;
};

TEST_F(DetachedSigning, CmsSignDigestCarriesTheAttributesOfCmsSignAndVerifiesOverTheData)
{
    LoadedSigner signer = loadSigner(pki->developer());
    Bytes data = patternBytes(10000);
    Bytes digest = streebogOf(data);
    FileSignaturesPtr ima(FileSignatures_new()), ta(FileSignatures_new());
    ASN1_INTEGER_set(ima->version, 1);
    ASN1_INTEGER_set(ta->version, 1);
    std::size_t length = 0;
    SignedBuffer der(cms_sign_digest(digest.data(), digest.size(), ima.get(), ta.get(), signer.key.get(),
                                     signer.cert.get(), nullptr, &length));
    ASSERT_TRUE(der);
    Bytes made(der.get(), der.get() + length);
    CmsPtr cms(cms_from_der(made.data(), static_cast<long>(made.size())));
    X509StorePtr store(certificate_store_read(pki->ca().certPath.c_str()));
    EXPECT_TRUE(cms_verify(data.data(), static_cast<long>(data.size()), cms.get(), store.get()));
    data[0] ^= 1;
    EXPECT_FALSE(cms_verify(data.data(), static_cast<long>(data.size()), cms.get(), store.get()));

    // cms_sign on an RPM package adds the same attributes.
    Bytes package = readFile(rpm);
    std::size_t inPlaceLength = 0;
    SignedBuffer inPlace(cms_sign(package.data(), package.size(), 1, signer.key.get(), nullptr, 0, signer.cert.get(),
                                  nullptr, &inPlaceLength));
    ASSERT_TRUE(inPlace);
    EXPECT_EQ(signedAttributeNids(made), signedAttributeNids(Bytes(inPlace.get(), inPlace.get() + inPlaceLength)));
}

TEST_F(DetachedSigning, CmsSignDigestRefusesADigestOfTheWrongLengthAndHalfTheTables)
{
    LoadedSigner signer = loadSigner(pki->developer());
    Bytes digest(31, 0);
    std::size_t length = 7;
    std::string errors = stderrOf([&] {
        EXPECT_EQ(cms_sign_digest(digest.data(), digest.size(), nullptr, nullptr, signer.key.get(), signer.cert.get(),
                                  nullptr, &length),
                  nullptr);
    });
    EXPECT_EQ(errors, "Digest length does not match the key's digest\n");
    EXPECT_EQ(length, 7u);
    digest.push_back(0);
    FileSignaturesPtr ima(FileSignatures_new());
    errors = stderrOf([&] {
        EXPECT_EQ(cms_sign_digest(digest.data(), digest.size(), ima.get(), nullptr, signer.key.get(),
                                  signer.cert.get(), nullptr, &length),
                  nullptr);
    });
    EXPECT_EQ(errors, "File signatures and trusted-application signatures go together\n");
}

// An object made from a FILE* has no path to rename to: attach cuts and
// appends in place, as sign() does for such an object.
TEST_F(DetachedSigning, PlanSignAndAttachOnAnObjectWithoutAPath)
{
    std::string path = work.file("package.rpm");
    writeFile(path, readFile(rpm));
    LoadedSigner developer = loadSigner(pki->developer());
    auto file = std::make_unique<FileWithCmses>(fopen(path.c_str(), "r+"));
    auto plan = file->planSignature(developer.cert.get(), false, true, {});
    ASSERT_TRUE(plan);
    EXPECT_EQ(plan->position, 0u);
    EXPECT_EQ(plan->coveredEnd, fileSize(path));
    EXPECT_TRUE(plan->fileSignatures);
    ASSERT_EQ(plan->files.size(), 2u);  // a.txt with its link c.txt, and b.txt
    std::size_t names = plan->files[0].indexes.size() + plan->files[1].indexes.size();
    EXPECT_EQ(names, 3u);
    Bytes cms = PackageSignatures::signSignaturePlan(*plan, developer.cert.get(), developer.key.get(), nullptr,
                                                     nullptr);
    ASSERT_FALSE(cms.empty());
    EXPECT_EQ(file->attach(cms, *plan, true), AttachResult::Attached);
    file.reset();
    EXPECT_TRUE(verifyFile(path, pki->ca().certPath));
    // Attached twice: the position is taken now.
    auto again = FileWithCmses::fromPath(path.c_str(), "r+");
    Bytes before = readFile(path);
    EXPECT_EQ(again->attach(cms, *plan, true), AttachResult::PositionTaken);
    EXPECT_EQ(readFile(path), before);
    EXPECT_EQ(std::string(PackageSignatures::attachResultName(AttachResult::RangeChanged)), "range_changed");
}

TEST_F(DetachedSigning, ASignerThatCannotTakeTheNextPositionHasNoPlan)
{
    std::string path = work.file("package.rpm");
    writeFile(path, readFile(rpm));
    LoadedSigner seclab = loadSigner(pki->seclab());
    EXPECT_FALSE(FileWithCmses::fromPath(path.c_str(), "r+")->planSignature(seclab.cert.get(), false, true, {}));
}

}  // namespace
}  // namespace sealkeep::test
