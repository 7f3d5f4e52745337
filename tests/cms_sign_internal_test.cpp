// Hidden helpers behind the CMS readers and cms_sign: the BIO over caller
// bytes (memory or temporary file) and the check that a rotation chain ends
// at the signer's certificate.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>

#include <optional>
#include <string>
#include <vector>

#include <glib.h>

#include <gtest/gtest.h>

#include "common/background_copy.hpp"
#include "common/bio_source.hpp"
#include "support/files.hpp"
#include "support/pki.hpp"
#include "support/process.hpp"
#include "support/stderr_capture.hpp"
#include "support/temp_dir.hpp"
#include "tk26sig/cms_sign.hpp"

namespace sealkeep::test {
namespace {

Bytes readAll(BIO* bio)
{
    Bytes out;
    unsigned char buffer[4096];
    int n;
    while ((n = BIO_read(bio, buffer, sizeof buffer)) > 0)
        out.insert(out.end(), buffer, buffer + n);
    return out;
}

TEST(BioSource, SmallInputIsAMemoryBioOverTheCallersBytes)
{
    Bytes data = patternBytes(1000);
    BioPtr bio(bioOverBytes(data.data(), data.size()));
    ASSERT_TRUE(bio);
    EXPECT_EQ(BIO_TYPE_MEM, BIO_method_type(bio.get()));
    char* memory = nullptr;
    EXPECT_EQ(1000, BIO_get_mem_data(bio.get(), &memory));
    EXPECT_EQ(reinterpret_cast<char*>(data.data()), memory);
}

TEST(BioSource, TemporaryFileHoldsTheBytesFromTheStart)
{
    Bytes data = patternBytes(3 * 8192 + 17);
    BioPtr bio;
    EXPECT_EQ("", stderrOf([&] { bio.reset(openTempFileBio(data.data(), data.size())); }));
    ASSERT_TRUE(bio);
    EXPECT_EQ(BIO_TYPE_FILE, BIO_method_type(bio.get()));
    EXPECT_EQ(data, readAll(bio.get()));
}

TEST(BioSource, FreeingTheBioClosesTheTemporaryFile)
{
    Bytes data = patternBytes(10);
    BioPtr bio(openTempFileBio(data.data(), data.size()));
    FILE* file = nullptr;
    ASSERT_EQ(1, BIO_get_fp(bio.get(), &file));
    int fd = fileno(file);
    ASSERT_NE(-1, fcntl(fd, F_GETFD));
    bio.reset();
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
}

TEST(BioSource, FailedWriteIsReported)
{
    Bytes data = patternBytes(4 * 8192);
    ChildResult child = runInChild(
        [&] {
            signal(SIGXFSZ, SIG_IGN);
            rlimit limit{1024, 1024};
            setrlimit(RLIMIT_FSIZE, &limit);
            return openTempFileBio(data.data(), data.size()) == nullptr ? 0 : 1;
        },
        30000);
    EXPECT_EQ(0, child.exitCode);
    EXPECT_EQ("Could not store inmemory data to temporary file\n", child.errors);
}

class RotationChainEnd : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        pki = std::make_unique<Pki>();
        a = std::make_unique<Identity>(pki->issue("a", "developer"));
        b = std::make_unique<Identity>(pki->issue("b", "developer"));
    }

    static void TearDownTestSuite()
    {
        b.reset();
        a.reset();
        pki.reset();
    }

    static ChainPtr chainOf(X509* oldCert, EVP_PKEY* oldKey, X509* newCert, EVP_PKEY* newKey)
    {
        ChainPtr chain(sk_ProofOfRotation_new_null());
        sk_ProofOfRotation_push(chain.get(), ProofOfRotation_create(oldCert, oldKey, newCert, newKey));
        return chain;
    }

    // A self-signed certificate without a subject key identifier.
    X509Ptr withoutKeyIdentifier(EVP_PKEY* key)
    {
        X509Ptr cert = makeBareCertificate(key, "no key id");
        signCertificate(cert.get(), key);
        return cert;
    }

    static inline std::unique_ptr<Pki> pki;
    static inline std::unique_ptr<Identity> a, b;
};

// OpenSSL takes a failed read of the content for its end: a signature over
// a range whose read or copy fails part way must not be made over the part.
TEST_F(RotationChainEnd, AFileRangeThatCannotBeReadOrCopiedWholeIsNotSigned)
{
    TempDir dir;
    std::string path = dir.file("range.bin");
    writeFile(path, patternBytes(100000, 5));
    int fd = ::open(path.c_str(), O_RDONLY);
    int full = ::open("/dev/full", O_WRONLY);
    ASSERT_GE(fd, 0);
    X509Ptr cert = loadCertificate(a->certPath);
    PkeyPtr key = loadKey(a->keyPath);
    std::size_t length = 0;
    std::optional<BackgroundCopy> failingCopy;
    if (full >= 0)
        failingCopy.emplace(fd, full, 100000);
    std::vector<SignedRange> ranges{SignedRange::ofFile(fd, 0, 100000 + 100)};
    if (failingCopy)
        ranges.push_back(SignedRange::ofFile(fd, 0, 100000, &*failingCopy));
    for (SignedRange const& range : ranges) {
        std::string errors = stderrOf([&] {
            EXPECT_EQ(nullptr, signRange(range, 0, key.get(), nullptr, 0, cert.get(), nullptr, &length));
        });
        EXPECT_EQ("CMS signing failed\n", errors);
    }
    unsigned char* whole = nullptr;
    stderrOf([&] { whole = signRange(SignedRange::ofFile(fd, 0, 100000), 0, key.get(), nullptr, 0, cert.get(), nullptr, &length); });
    EXPECT_NE(nullptr, whole);
    g_free(whole);
    ::close(fd);
    if (full >= 0)
        ::close(full);
}

TEST_F(RotationChainEnd, EmptyChainIsMalformed)
{
    ChainPtr chain(sk_ProofOfRotation_new_null());
    X509Ptr cert = loadCertificate(a->certPath);
    EXPECT_EQ("Proof-of-rotation chain is malformed, no rotations found\n",
              stderrOf([&] { EXPECT_FALSE(rotationChainEndsAt(chain.get(), cert.get())); }));
}

TEST_F(RotationChainEnd, NewestCertificateMustHaveTheSignersKeyId)
{
    X509Ptr aCert = loadCertificate(a->certPath), bCert = loadCertificate(b->certPath);
    PkeyPtr aKey = loadKey(a->keyPath), bKey = loadKey(b->keyPath);
    ChainPtr chain = chainOf(aCert.get(), aKey.get(), bCert.get(), bKey.get());
    EXPECT_EQ("", stderrOf([&] { EXPECT_TRUE(rotationChainEndsAt(chain.get(), bCert.get())); }));
    EXPECT_EQ("Last keyid in rotation chain does not match with certificate's keyid\n",
              stderrOf([&] { EXPECT_FALSE(rotationChainEndsAt(chain.get(), aCert.get())); }));
}

TEST_F(RotationChainEnd, TwoCertificatesWithoutKeyIdMatch)
{
    PkeyPtr key = loadKey(a->keyPath);
    X509Ptr oldCert = withoutKeyIdentifier(key.get()), newCert = withoutKeyIdentifier(key.get());
    X509Ptr signerCert = withoutKeyIdentifier(key.get());
    ChainPtr chain = chainOf(oldCert.get(), key.get(), newCert.get(), key.get());
    EXPECT_EQ("Failed to extract keyid from certificate\n"
              "Failed to extract keyid from certificate\n",
              stderrOf([&] { EXPECT_TRUE(rotationChainEndsAt(chain.get(), signerCert.get())); }));
}

TEST_F(RotationChainEnd, OneMissingKeyIdDoesNotMatch)
{
    PkeyPtr key = loadKey(a->keyPath);
    X509Ptr bare = withoutKeyIdentifier(key.get());
    X509Ptr aCert = loadCertificate(a->certPath);
    ChainPtr chain = chainOf(aCert.get(), key.get(), bare.get(), key.get());
    EXPECT_EQ("Failed to extract keyid from certificate\n"
              "Last keyid in rotation chain does not match with certificate's keyid\n",
              stderrOf([&] { EXPECT_FALSE(rotationChainEndsAt(chain.get(), aCert.get())); }));
}

}  // namespace
}  // namespace sealkeep::test
