// What the flat layer does with arguments no well-behaved caller passes:
// null pointers, huge lengths, an exhausted process. It must refuse them with
// its usual messages and never crash.
#include <gtest/gtest.h>

#include <sys/resource.h>

#include <sealkeep/sealkeep.h>

#include "base64_size.hpp"
#include "support/process.hpp"
#include "support/shared_pki.hpp"
#include "support/signing.hpp"
#include "support/stderr_capture.hpp"

namespace {

using namespace sealkeep::test;
using sealkeep::PkeyPtr;
using sealkeep::X509Ptr;

TEST(Base64Size, FollowsTheFormulaForSmallSignatures)
{
    EXPECT_EQ(90u, sealkeep::base64BufferSize(64));
    EXPECT_EQ(5u, sealkeep::base64BufferSize(0));
    EXPECT_EQ(175u, sealkeep::base64BufferSize(128));
}

TEST(Base64Size, DoesNotOverflowForHugeSignatures)
{
    // (4 * 2^30 + 12) / 3 + 1 computed in int arithmetic wraps to a few bytes.
    EXPECT_EQ(1431655770u, sealkeep::base64BufferSize(1 << 30));
    EXPECT_GT(sealkeep::base64BufferSize(sealkeep::maxBase64Input),
              static_cast<std::size_t>(sealkeep::maxBase64Input) / 3 * 4);
}

TEST(FileSignatureAccessors, AcceptNull)
{
    EXPECT_EQ(-1, FileSignatures_count(nullptr));
    EXPECT_EQ(nullptr, FileSignatures_get0_at(nullptr, 0));
    EXPECT_EQ(-1, FileSignature_index(nullptr));
    int len = 7;
    EXPECT_EQ(nullptr, FileSignature_value(nullptr, &len));
    EXPECT_EQ(0, len);
    EXPECT_EQ(nullptr, FileSignature_value(nullptr, nullptr));
}

TEST(FileSignatureAccessors, OutOfRangeEntryIsNull)
{
    FileSignatures* table = FileSignatures_new();
    EXPECT_EQ(0, FileSignatures_count(table));
    EXPECT_EQ(nullptr, FileSignatures_get0_at(table, 3));
    EXPECT_EQ(-1, FileSignature_index(FileSignatures_get0_at(table, 3)));
    FileSignatures_free(table);
}

class HostileArguments : public SharedPkiTest {};

TEST_F(HostileArguments, CmsVerifyRefusesANullCms)
{
    X509_STORE* store = certificate_store_read(pki->ca().certPath.c_str());
    const unsigned char data[] = {1, 2, 3};
    EXPECT_EQ("CMS verification failed\n", stderrOf([&] { EXPECT_FALSE(cms_verify(data, 3, nullptr, store)); }));
    X509_STORE_free(store);
}

TEST_F(HostileArguments, CmsVerifyRefusesNullDataWithALength)
{
    Bytes content{1, 2, 3};
    Bytes der = signRange(content, pki->developer());
    CMS_ContentInfo* cms = cms_from_der(der.data(), static_cast<long>(der.size()));
    X509_STORE* store = certificate_store_read(pki->ca().certPath.c_str());
    EXPECT_EQ("CMS verification failed\n", stderrOf([&] { EXPECT_FALSE(cms_verify(nullptr, 3, cms, store)); }));
    EXPECT_TRUE(cms_verify(content.data(), 3, cms, store));
    X509_STORE_free(store);
    CMS_ContentInfo_free(cms);
}

TEST_F(HostileArguments, SigningWithoutAnyFreeDescriptorReportsTheTemporaryFile)
{
    X509Ptr cert = loadCertificate(pki->developer().certPath);
    PkeyPtr key = loadKey(pki->developer().keyPath);
    auto result = runInChild(
        [&] {
            // No descriptor above 2 can be opened, so tmpfile() fails.
            rlimit limit{3, 3};
            setrlimit(RLIMIT_NOFILE, &limit);
            const unsigned char data[] = {1, 2, 3, 4};
            size_t length = 0;
            unsigned char* der = cms_sign(data, 4, 0, key.get(), nullptr, 0, cert.get(), nullptr, &length);
            return der == nullptr ? 0 : 1;
        },
        10000);
    EXPECT_EQ(0, result.exitCode);
    EXPECT_EQ("Could not store inmemory data to temporary file\n", result.errors);
}

}  // namespace
