// The payload walk on its own, with signers that cms_sign cannot take: a
// certificate without (or with a short) subject key identifier, and digests
// the IMA record has no number for.
#include <fcntl.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>
#include <openssl/x509v3.h>

#include "support/files.hpp"
#include "support/payload_signatures.hpp"
#include "support/pki.hpp"
#include "support/rpm_builder.hpp"
#include "support/stderr_capture.hpp"
#include "support/temp_dir.hpp"
#include "tk26sig/payload_walk.hpp"

namespace sealkeep::test {
namespace {

class PayloadWalk : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        dir = std::make_unique<TempDir>();
        rpm = buildRpm(dir->path(), "walk", {regularFile("/usr/share/walk/a", "a")});
        key = loadKey(generateKey(dir->file("gost.key")));
    }
    static void TearDownTestSuite()
    {
        key.reset();
        dir.reset();
    }

    // The walk over the package with cert and md; the IMA table's only record
    // (empty when the walk failed) and what was printed.
    static std::pair<Bytes, std::string> walk(EVP_PKEY* signingKey, const EVP_MD* md, X509* cert)
    {
        int fd = open(rpm.c_str(), O_RDONLY);
        EXPECT_NE(-1, fd);
        Bytes record;
        std::string errors = stderrOf([&] {
            auto tables = signPayloadFiles(fd, signingKey, md, cert, nullptr, 0);
            if (tables && FileSignatures_count(tables->ima.get()) == 1) {
                int length = 0;
                const unsigned char* value = FileSignature_value(FileSignatures_get0_at(tables->ima.get(), 0), &length);
                record.assign(value, value + length);
            }
        });
        close(fd);
        return {record, errors};
    }

    static X509Ptr certificateFor(EVP_PKEY* certKey, const char* ski)
    {
        X509Ptr cert = makeBareCertificate(certKey, "walk signer");
        if (ski)
            addExtension(cert.get(), NID_subject_key_identifier, ski);
        signCertificate(cert.get(), certKey);
        return cert;
    }

    static inline std::unique_ptr<TempDir> dir;
    static inline std::string rpm;
    static inline PkeyPtr key;
};

TEST_F(PayloadWalk, ACertificateWithoutSubjectKeyIdentifierGivesZeroKeyId)
{
    X509Ptr cert = certificateFor(key.get(), nullptr);
    auto [record, errors] = walk(key.get(), defaultDigestOf(key.get()), cert.get());
    EXPECT_EQ("", errors);
    ASSERT_EQ(73u, record.size());
    EXPECT_EQ((Bytes{3, 2, 18, 0, 0, 0, 0, 0, 64}), Bytes(record.begin(), record.begin() + 9));
}

TEST_F(PayloadWalk, AShortSubjectKeyIdentifierGivesZeroKeyId)
{
    X509Ptr cert = certificateFor(key.get(), "01:02:03");
    auto [record, errors] = walk(key.get(), defaultDigestOf(key.get()), cert.get());
    ASSERT_EQ(73u, record.size());
    EXPECT_EQ((Bytes{0, 0, 0, 0}), Bytes(record.begin() + 3, record.begin() + 7));
}

TEST_F(PayloadWalk, TheKeyIdIsTheLastFourBytesOfTheSubjectKeyIdentifier)
{
    X509Ptr cert = certificateFor(key.get(), "01:02:03:04:05:06");
    auto [record, errors] = walk(key.get(), defaultDigestOf(key.get()), cert.get());
    ASSERT_EQ(73u, record.size());
    EXPECT_EQ((Bytes{3, 4, 5, 6}), Bytes(record.begin() + 3, record.begin() + 7));
}

TEST_F(PayloadWalk, ADigestWithoutImaNumberFailsTheWalk)
{
    X509Ptr cert = certificateFor(key.get(), "01:02:03:04");
    auto [record, errors] = walk(key.get(), EVP_sha3_256(), cert.get());
    EXPECT_TRUE(record.empty());
    EXPECT_EQ("Hash algo is unknown for imaevm: SHA3-256\nCould not sign file from rpm: /usr/share/walk/a\n", errors);
}

TEST_F(PayloadWalk, AnRsaKeyWithSha256WritesHashAlgorithm4)
{
    PkeyPtr rsa = generateRsaKey(dir->file("rsa.key"));
    X509Ptr cert = certificateFor(rsa.get(), "0a:0b:0c:0d");
    auto [record, errors] = walk(rsa.get(), EVP_sha256(), cert.get());
    EXPECT_EQ("", errors);
    ASSERT_EQ(9u + 256u, record.size());
    EXPECT_EQ((Bytes{3, 2, 4, 0x0a, 0x0b, 0x0c, 0x0d, 1, 0}), Bytes(record.begin(), record.begin() + 9));
}

TEST_F(PayloadWalk, ANonPackageIsRefused)
{
    std::string path = dir->file("garbage");
    writeText(path, std::string(1000, 'x'));
    int fd = open(path.c_str(), O_RDONLY);
    std::string errors = stderrOf([&] {
        EXPECT_FALSE(signPayloadFiles(fd, key.get(), defaultDigestOf(key.get()), nullptr, nullptr, 0));
    });
    close(fd);
    EXPECT_EQ("Argument is not an RPM package\n", errors);
}

}  // namespace
}  // namespace sealkeep::test
