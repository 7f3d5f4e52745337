// Streaming covered bytes into the checks: the source BIOs over a large
// buffer and over a file range, and what happens when the file turns out
// shorter than the range (it was truncated after the scan).
#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#include <sealkeep/sealkeep.h>

#include "cms_verify_content.hpp"
#include "common/digests.hpp"
#include "common/ossl_ptr.hpp"
#include "common/streaming_bio.hpp"
#include "signed_file_layout.hpp"
#include "support/shared_pki.hpp"
#include "support/signing.hpp"
#include "support/stderr_capture.hpp"
#include "support/temp_dir.hpp"

namespace {

using namespace sealkeep::test;
using sealkeep::BioPtr;
using sealkeep::FilePtr;

class StreamingBio : public SharedPkiTest {
protected:
    TempDir dir;
    std::string path = dir.file("covered");
};

TEST_F(StreamingBio, AFileRangeYieldsExactlyItsBytes)
{
    Bytes contents = patternBytes(30000, 3);
    writeFile(path, contents);
    FilePtr file(fopen(path.c_str(), "r"));
    BioPtr bio(sealkeep::bioOverFileRange(fileno(file.get()), 100, 25000));
    ASSERT_TRUE(bio);
    Bytes read(30000);
    std::size_t done = 0;
    for (int got; (got = BIO_read(bio.get(), read.data() + done, 1000)) > 0;)
        done += static_cast<std::size_t>(got);
    read.resize(done);
    EXPECT_EQ(Bytes(contents.begin() + 100, contents.begin() + 25000), read);
    EXPECT_EQ(1, BIO_eof(bio.get()));
    EXPECT_EQ(0, ftell(file.get()));  // pread leaves the stream's position alone
}

TEST_F(StreamingBio, ItsDigestIsTheDigestOfTheBytes)
{
    Bytes contents = patternBytes(100000, 4);
    writeFile(path, contents);
    FilePtr file(fopen(path.c_str(), "r"));
    BioPtr bio(sealkeep::bioOverFileRange(fileno(file.get()), 0, 100000));
    EXPECT_EQ(sealkeep::gostDigestOf(contents.data(), contents.size()), sealkeep::gostDigestOfBio(bio.get()));
}

TEST_F(StreamingBio, AFileShorterThanTheRangeIsAReadError)
{
    writeFile(path, patternBytes(5000));
    FilePtr file(fopen(path.c_str(), "r"));
    BioPtr bio(sealkeep::bioOverFileRange(fileno(file.get()), 0, 9000));
    EXPECT_FALSE(sealkeep::gostDigestOfBio(bio.get()));
}

TEST_F(StreamingBio, ABufferBeyondAnIntIsStreamedWithoutACopy)
{
    const std::size_t size = 0x80000000u + 10;
    void* zeros = mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(MAP_FAILED, zeros);
    BioPtr bio(sealkeep::bioStreamingBytes(static_cast<const unsigned char*>(zeros), size));
    ASSERT_TRUE(bio);
    EXPECT_NE(BIO_TYPE_MEM, BIO_method_type(bio.get()));
    unsigned char piece[16];
    EXPECT_EQ(16, BIO_read(bio.get(), piece, sizeof piece));
    EXPECT_EQ(0, BIO_eof(bio.get()));
    bio.reset();
    munmap(zeros, size);
}

// A signed range whose file was cut short after the scan: both kinds of
// signature fail cleanly instead of waiting or faulting.
TEST_F(StreamingBio, ATruncatedFileFailsVerification)
{
    Bytes contents = patternBytes(20000, 6);
    Bytes der = signRange(contents, pki->developer());
    writeFile(path, Bytes(contents.begin(), contents.begin() + 12000));
    CMS_ContentInfo* cms = cms_from_der(der.data(), static_cast<long>(der.size()));
    X509_STORE* store = certificate_store_read(pki->ca().certPath.c_str());
    FilePtr file(fopen(path.c_str(), "r"));
    BioPtr bio(sealkeep::bioOverFileRange(fileno(file.get()), 0, 20000));
    std::string errors = stderrOf([&] { EXPECT_FALSE(sealkeep::verifyCmsContent(bio.get(), cms, store)); });
    EXPECT_NE(std::string::npos, errors.find("CMS verification failed\n"));
    X509_STORE_free(store);
    CMS_ContentInfo_free(cms);
}

TEST_F(StreamingBio, ReadingABlockPastTheEndOfTheFileGivesNothing)
{
    writeFile(path, patternBytes(100));
    FilePtr file(fopen(path.c_str(), "r"));
    EXPECT_TRUE(PackageSignatures::readFileRangeWithin(file.get(), 50, 150).empty());
    EXPECT_EQ(50u, PackageSignatures::readFileRangeWithin(file.get(), 50, 100).size());
}

}  // namespace
