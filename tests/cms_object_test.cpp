// The Cms object: lazily parsed answers, the copy and assign rules, the
// developer/client selectors, and the signer certificates of a file.
#include <gtest/gtest.h>

#include <memory>

#include <sealkeep/sealkeep.hpp>

#include "support/blocks.hpp"
#include "support/cms_builder.hpp"
#include "support/shared_pki.hpp"
#include "support/signing.hpp"
#include "support/stderr_capture.hpp"

namespace {

using namespace sealkeep::test;
using namespace PackageSignatures;
using sealkeep::PkeyPtr;
using sealkeep::X509Ptr;

// DER of a FileSignatures with version 1 and the given (index, value) entries.
Bytes fileSignaturesDer(std::vector<std::pair<long, std::string>> const& entries)
{
    FileSignatures* table = FileSignatures_new();
    ASN1_INTEGER_set(table->version, 1);
    for (auto const& [index, value] : entries) {
        FileSignature* entry = FileSignature_new();
        ASN1_INTEGER_set(entry->index, index);
        ASN1_OCTET_STRING_set(entry->value, reinterpret_cast<const unsigned char*>(value.data()),
                              static_cast<int>(value.size()));
        sk_FileSignature_push(table->signatures, entry);
    }
    unsigned char* der = nullptr;
    int len = i2d_FileSignatures(table, &der);
    Bytes out(der, der + len);
    OPENSSL_free(der);
    FileSignatures_free(table);
    return out;
}

Bytes asBytes(std::string const& text)
{
    return Bytes(text.begin(), text.end());
}

class CmsObject : public SharedPkiTest {
protected:
    static Bytes withFileSignatures(std::vector<std::pair<long, std::string>> const& entries,
                                    const char* oid = fileSignaturesOid)
    {
        LoadedSigner signer = loadSigner(pki->developer());
        return cmsWithAttribute(asBytes("content"), signer.borrowed(),
                                CmsAttribute{oid, V_ASN1_SEQUENCE, fileSignaturesDer(entries)});
    }

    static Bytes plainSignature(Identity const& who) { return signRange(asBytes("content"), who); }

    TempDir dir;
};

TEST_F(CmsObject, HoldsACopyOfTheBytes)
{
    Bytes der = plainSignature(pki->developer());
    Cms cms(der);
    EXPECT_EQ(der, cms.data());
    EXPECT_EQ(der.size(), cms.size());
}

TEST_F(CmsObject, FileSignatureLooksUpTheTableAndAMissAddsAnEmptyEntry)
{
    Cms cms(withFileSignatures({{0, "zero"}, {1, "one"}, {2, "two"}}));
    EXPECT_EQ(asBytes("one"), cms.fileSignature(1));
    EXPECT_TRUE(cms.fileSignature(3).empty());
    EXPECT_EQ(asBytes("zero"), cms.fileSignature(0));
    EXPECT_EQ(asBytes("two"), cms.fileSignature(2));
    EXPECT_TRUE(cms.fileSignature(3).empty());
}

TEST_F(CmsObject, RepeatedIndexKeepsTheFirstValue)
{
    Cms cms(withFileSignatures({{2, "first"}, {2, "second"}, {1, "one"}}));
    EXPECT_EQ(asBytes("first"), cms.fileSignature(2));
    EXPECT_EQ(asBytes("one"), cms.fileSignature(1));
}

TEST_F(CmsObject, TrustletSignatureWithoutTableIsEmptyAndSilent)
{
    Cms cms(withFileSignatures({{0, "zero"}}));
    EXPECT_EQ("", stderrOf([&] { EXPECT_TRUE(cms.trustletSignature(0).empty()); }));
}

TEST_F(CmsObject, TrustletTableIsReadFromItsOwnAttribute)
{
    Cms cms(withFileSignatures({{4, "ta"}}, trustletSignaturesOid));
    EXPECT_EQ(asBytes("ta"), cms.trustletSignature(4));
    EXPECT_EQ("No file signatures found in CMS\n", stderrOf([&] { EXPECT_TRUE(cms.fileSignature(4).empty()); }));
}

TEST_F(CmsObject, MissingFileTableIsReportedOncePerObject)
{
    Cms cms(plainSignature(pki->developer()));
    EXPECT_EQ("No file signatures found in CMS\n", stderrOf([&] { EXPECT_TRUE(cms.fileSignature(0).empty()); }));
    EXPECT_EQ("", stderrOf([&] { EXPECT_TRUE(cms.fileSignature(1).empty()); }));
}

TEST_F(CmsObject, CopyTakesTheLoadedFileTableButNotTheOtherCaches)
{
    Cms original(plainSignature(pki->developer()));
    // The miss leaves a loaded (non-empty) table behind.
    EXPECT_EQ("No file signatures found in CMS\n", stderrOf([&] { original.fileSignature(0); }));
    auto originalCertificate = original.certificate();

    Cms copy(original);
    EXPECT_EQ("", stderrOf([&] { EXPECT_TRUE(copy.fileSignature(0).empty()); }));
    auto copyCertificate = copy.certificate();
    EXPECT_NE(originalCertificate.get(), copyCertificate.get());
    EXPECT_EQ(originalCertificate->keyId(), copyCertificate->keyId());

    // A fresh object of the same bytes reports the missing table again.
    Cms fresh(original.data());
    EXPECT_EQ("No file signatures found in CMS\n", stderrOf([&] { fresh.fileSignature(0); }));
}

TEST_F(CmsObject, CopyLoadsTheTrustletTableAnew)
{
    // The original keeps the table of its former bytes after assign; a copy
    // takes the new bytes and loads their table.
    Cms original(withFileSignatures({{1, "old"}}, trustletSignaturesOid));
    EXPECT_EQ(asBytes("old"), original.trustletSignature(1));
    original.assign(withFileSignatures({{1, "new"}}, trustletSignaturesOid));
    Cms copy(original);
    EXPECT_EQ(asBytes("new"), copy.trustletSignature(1));
    EXPECT_EQ(asBytes("old"), original.trustletSignature(1));
}

TEST_F(CmsObject, CertificateAndChainAreCachedAndShared)
{
    Cms cms(plainSignature(pki->seclab()));
    auto first = cms.certificate();
    auto second = cms.certificate();
    EXPECT_EQ(first.get(), second.get());
    EXPECT_EQ(Group::Seclab, first->group());
    EXPECT_EQ(cms.rotationChain().get(), cms.rotationChain().get());
    EXPECT_TRUE(cms.rotationChain()->rotations().empty());
}

TEST_F(CmsObject, HandedOutCertificateOutlivesTheObject)
{
    std::shared_ptr<Certificate> certificate;
    {
        Cms cms(plainSignature(pki->client()));
        certificate = cms.certificate();
    }
    EXPECT_EQ(Group::Client, certificate->group());
    EXPECT_EQ("client", certificate->subject());
}

TEST_F(CmsObject, AssignKeepsTheFormerCertificateButEmptiesTheFileTable)
{
    Cms cms(plainSignature(pki->developer()));
    EXPECT_EQ(Group::Developer, cms.certificate()->group());
    stderrOf([&] { cms.fileSignature(0); });

    Bytes other = withFileSignatures({{0, "zero"}});
    cms.assign(plainSignature(pki->client()));
    EXPECT_EQ(Group::Developer, cms.certificate()->group());
    // The table was emptied; reloading uses the parse of the former bytes,
    // which still has no table.
    EXPECT_EQ("No file signatures found in CMS\n", stderrOf([&] { cms.fileSignature(0); }));

    cms.assignRaw(other.data(), other.size());
    EXPECT_EQ(other, cms.data());
    EXPECT_EQ(Group::Developer, cms.certificate()->group());
}

TEST_F(CmsObject, AssignBeforeAnyParseServesTheNewBytes)
{
    Cms cms(plainSignature(pki->developer()));
    cms.assign(withFileSignatures({{0, "zero"}}));
    EXPECT_EQ(asBytes("zero"), cms.fileSignature(0));
}

TEST_F(CmsObject, EqualityComparesBytesOnly)
{
    Bytes der = plainSignature(pki->developer());
    Cms a(der), b(der);
    a.certificate();
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a == Cms(plainSignature(pki->developer())));
    EXPECT_TRUE(Cms(Bytes{}) == Cms(Bytes{}));
    EXPECT_FALSE(Cms(Bytes{1}) == Cms(Bytes{1, 2}));
}

TEST_F(CmsObject, SignatureIsTheBase64SignatureValue)
{
    Cms cms(plainSignature(pki->developer()));
    std::string text = cms.signature();
    EXPECT_EQ(88u, text.size());  // 64 bytes of GOST R 34.10-2012 256-bit signature
}

TEST_F(CmsObject, GarbageAnswersEmptyAndIsParsedOnlyOnce)
{
    Cms cms(Bytes{1, 2, 3});
    EXPECT_EQ("Could not decode DER CMS\n", stderrOf([&] { EXPECT_EQ("", cms.signature()); }));
    // The failure is remembered: no accessor parses the bytes again.
    EXPECT_EQ("", stderrOf([&] { EXPECT_EQ("", cms.signature()); }));
    EXPECT_EQ("", stderrOf([&] { EXPECT_EQ("", cms.certificate()->keyId()); }));
    EXPECT_EQ("", stderrOf([&] { EXPECT_TRUE(cms.rotationChain()->previousKeyids().empty()); }));
    EXPECT_EQ("", stderrOf([&] { EXPECT_TRUE(cms.fileSignature(0).empty()); }));
    EXPECT_EQ(nullptr, cms.parsed());
}

TEST_F(CmsObject, AssigningOtherBytesAfterAFailedParseParsesThem)
{
    Cms cms(Bytes{1, 2, 3});
    stderrOf([&] { cms.signature(); });
    cms.assign(plainSignature(pki->developer()));
    EXPECT_EQ(88u, cms.signature().size());
}

TEST_F(CmsObject, AnEmptyCmsAnswersEmptySilently)
{
    Cms cms(Bytes{});
    EXPECT_EQ("", stderrOf([&] { EXPECT_EQ("", cms.signature()); }));
    EXPECT_EQ("", stderrOf([&] { EXPECT_EQ("", cms.certificate()->keyId()); }));
}

TEST_F(CmsObject, DeveloperSelectorLooksAtTheFirstSignatureOnly)
{
    std::vector<Cms> cmses{Cms(plainSignature(pki->developer())), Cms(plainSignature(pki->seclab()))};
    auto developer = developerCmsFromVector(cmses);
    ASSERT_TRUE(developer);
    EXPECT_TRUE(*developer == cmses[0]);

    std::vector<Cms> seclabFirst{Cms(plainSignature(pki->seclab())), Cms(plainSignature(pki->developer()))};
    EXPECT_FALSE(developerCmsFromVector(seclabFirst));
    EXPECT_FALSE(developerCmsFromVector({}));
}

TEST_F(CmsObject, ClientSelectorLooksAtTheLastSignatureOnly)
{
    std::vector<Cms> cmses{Cms(plainSignature(pki->developer())), Cms(plainSignature(pki->client()))};
    auto client = clientCmsFromVector(cmses);
    ASSERT_TRUE(client);
    EXPECT_TRUE(*client == cmses[1]);

    std::vector<Cms> clientNotLast{Cms(plainSignature(pki->client())), Cms(plainSignature(pki->seclab()))};
    EXPECT_FALSE(clientCmsFromVector(clientNotLast));
    EXPECT_FALSE(clientCmsFromVector({}));
}

// The selectors judge the bytes an element holds when they are called, not
// a certificate it read before an assign().
TEST_F(CmsObject, SelectorsJudgeTheBytesHeldNow)
{
    std::vector<Cms> cmses{Cms(plainSignature(pki->developer()))};
    ASSERT_EQ(Group::Developer, cmses[0].certificate()->group());
    cmses[0].assign(plainSignature(pki->client()));
    EXPECT_FALSE(developerCmsFromVector(cmses));
    auto client = clientCmsFromVector(cmses);
    ASSERT_TRUE(client);
    EXPECT_EQ(Group::Client, client->certificate()->group());

    ASSERT_EQ(Group::Developer, cmses[0].certificate()->group());  // the public cache keeps its answer
    cmses[0].assign(plainSignature(pki->seclab()));
    EXPECT_FALSE(clientCmsFromVector(cmses));
    cmses[0].assign(plainSignature(pki->developer()));
    auto developer = developerCmsFromVector(cmses);
    ASSERT_TRUE(developer);
    EXPECT_EQ(Group::Developer, developer->certificate()->group());
    EXPECT_TRUE(*developer == cmses[0]);
}

TEST_F(CmsObject, SelectorsFillNoCacheOfTheCaller)
{
    std::vector<Cms> cmses{Cms(plainSignature(pki->developer()))};
    ASSERT_TRUE(developerCmsFromVector(cmses));
    ASSERT_FALSE(clientCmsFromVector(cmses));
    cmses[0].assign(plainSignature(pki->client()));
    EXPECT_EQ(Group::Client, cmses[0].certificate()->group());
}

// A file table that the element loaded from the parse of its former bytes
// is not handed to the copy that a selector returns.
TEST_F(CmsObject, TheSelectedCopyHasTheFileTableOfTheBytesHeldNow)
{
    std::vector<Cms> cmses{Cms(withFileSignatures({{0, "old"}}))};
    ASSERT_EQ(asBytes("old"), cmses[0].fileSignature(0));
    cmses[0].assign(withFileSignatures({{0, "new"}}));
    ASSERT_EQ(asBytes("old"), cmses[0].fileSignature(0));  // the contract of assign()
    auto developer = developerCmsFromVector(cmses);
    ASSERT_TRUE(developer);
    EXPECT_EQ(asBytes("new"), developer->fileSignature(0));
}

TEST_F(CmsObject, CmsesListsEveryBlockInFileOrderWithoutDecoding)
{
    std::string path = dir.file("package");
    Bytes first = plainSignature(pki->developer());
    Bytes second = plainSignature(pki->seclab());
    writeFile(path, concat({patternBytes(500), makeBlock(first, 2), makeBlock(Bytes{9, 9, 9}, 3),
                            makeBlock(second, 1)}));
    auto file = FileWithCmses::fromPath(path.c_str(), "r");
    auto cmses = file->cmses();
    ASSERT_EQ(3u, cmses.size());
    EXPECT_EQ(first, cmses[0].data());
    EXPECT_EQ((Bytes{9, 9, 9}), cmses[1].data());
    EXPECT_EQ(second, cmses[2].data());

    writeFile(path, patternBytes(100));
    EXPECT_TRUE(FileWithCmses::fromPath(path.c_str(), "r")->cmses().empty());
    writeFile(path, {});
    EXPECT_TRUE(FileWithCmses::fromPath(path.c_str(), "r")->cmses().empty());
}

TEST_F(CmsObject, AllFromFilePathListsTheSignersInFileOrder)
{
    std::string path = dir.file("package");
    writeFile(path, patternBytes(2000));
    ASSERT_TRUE(signFile(path, pki->developer()));
    ASSERT_TRUE(signFile(path, pki->seclab()));
    ASSERT_TRUE(signFile(path, pki->client()));

    auto certificates = Certificate::allFromFilePath(path.c_str());
    ASSERT_EQ(3u, certificates.size());
    EXPECT_EQ(Group::Developer, certificates[0].group());
    EXPECT_EQ(Group::Seclab, certificates[1].group());
    EXPECT_EQ(Group::Client, certificates[2].group());
    EXPECT_EQ(certificates.size(), certificates.capacity());
}

TEST_F(CmsObject, AllFromFilePathOfUnsignedOrMissingFileIsEmpty)
{
    std::string path = dir.file("package");
    writeFile(path, patternBytes(200));
    EXPECT_TRUE(Certificate::allFromFilePath(path.c_str()).empty());

    std::string missing = dir.file("missing");
    std::string errors = stderrOf([&] { EXPECT_TRUE(Certificate::allFromFilePath(missing.c_str()).empty()); });
    EXPECT_EQ("sealkeep: trying to reopen " + missing +
                  " in read-only mode, as it failed to open in read-write mode "
                  "(some features that modify a file may fail with an error)\n",
              errors);
}

TEST_F(CmsObject, AllFromFilePathGivesAnEmptyCertificateForAnUnreadableSignature)
{
    std::string path = dir.file("package");
    writeFile(path, concat({patternBytes(200), makeBlock(Bytes{1, 2, 3}, 2)}));
    std::vector<Certificate> certificates;
    EXPECT_EQ("Could not decode DER CMS\n",
              stderrOf([&] { certificates = Certificate::allFromFilePath(path.c_str()); }));
    ASSERT_EQ(1u, certificates.size());
    EXPECT_EQ("", certificates[0].keyId());
}

}  // namespace
