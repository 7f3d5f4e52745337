// Rotation and RotationChain: construction from ASN.1 proofs and chain files,
// the previous key ids and their cache, copies, and certificates that stay
// valid after the ASN.1 chain is freed.
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <sealkeep/rotation.hpp>
#include <sealkeep/sealkeep.h>

#include "support/cms_builder.hpp"
#include "support/rotating_keys.hpp"
#include "support/files.hpp"
#include "support/pki.hpp"
#include "support/stderr_capture.hpp"

namespace sealkeep::test {
namespace {

using PackageSignatures::Certificate;
using PackageSignatures::Group;
using PackageSignatures::Rotation;
using PackageSignatures::RotationChain;
using Keyids = std::vector<std::string>;

class RotationObjects : public RotatingKeysTest {
protected:
    // An ASN.1 chain of the rotations old -> new given as pairs of names.
    static ChainPtr chainOf(std::vector<std::pair<char, char>> const& rotations)
    {
        ChainPtr chain(sk_ProofOfRotation_new_null());
        for (auto [oldName, newName] : rotations)
            sk_ProofOfRotation_push(chain.get(), ProofOfRotation_create(
                                                     signer(oldName).cert.get(), signer(oldName).key.get(),
                                                     signer(newName).cert.get(), signer(newName).key.get()));
        return chain;
    }

    void appendWithTool(std::string const& path, const char* in, char oldName, char newName)
    {
        ASSERT_EQ(0, make_proof_of_rotation_chain(path.c_str(), in, identity(oldName).certPath.c_str(),
                                                  identity(oldName).keyPath.c_str(),
                                                  identity(newName).certPath.c_str(),
                                                  identity(newName).keyPath.c_str()));
    }

    TempDir dir;
};

TEST_F(RotationObjects, NullChainIsEmpty)
{
    for (RotationChain const& chain : {RotationChain(nullptr), RotationChain()}) {
        EXPECT_TRUE(chain.rotations().empty());
        EXPECT_TRUE(chain.previousKeyids().empty());
    }
}

TEST_F(RotationObjects, NullProofHasNoCertificates)
{
    Rotation rotation(nullptr);
    EXPECT_EQ(nullptr, rotation.oldCertificate());
    EXPECT_EQ(nullptr, rotation.newCertificate());
}

TEST_F(RotationObjects, OneRotationListsTheOldKeyOnly)
{
    ChainPtr asn1 = chainOf({{'a', 'b'}});
    RotationChain chain(asn1.get());
    ASSERT_EQ(1u, chain.rotations().size());
    EXPECT_EQ(keyid('a'), chain.rotations()[0]->oldCertificate()->keyId());
    EXPECT_EQ(keyid('b'), chain.rotations()[0]->newCertificate()->keyId());
    EXPECT_EQ(Keyids{keyid('a')}, chain.previousKeyids());
}

TEST_F(RotationObjects, ChainWrittenByTheToolListsEveryOlderKey)
{
    std::string path = dir.file("chain.pem");
    appendWithTool(path, nullptr, 'a', 'b');
    appendWithTool(path, path.c_str(), 'b', 'c');
    ChainPtr asn1(ProofOfRotationChain_read(path.c_str()));
    ASSERT_EQ(1, ProofOfRotationChain_verify(asn1.get()));

    RotationChain chain = RotationChain::fromFile(path.c_str());
    ASSERT_EQ(2u, chain.rotations().size());
    EXPECT_EQ((Keyids{keyid('a'), keyid('b')}), chain.previousKeyids());
    EXPECT_EQ(keyid('c'), chain.rotations()[1]->newCertificate()->keyId());
}

TEST_F(RotationObjects, MissingFileGivesAnEmptyChain)
{
    std::string path = dir.file("missing.pem");
    std::string errors = stderrOf([&] {
        RotationChain chain = RotationChain::fromFile(path.c_str());
        EXPECT_TRUE(chain.rotations().empty());
        EXPECT_TRUE(chain.previousKeyids().empty());
    });
    EXPECT_EQ("Could not open proof-of-rotation: No such file or directory\n", errors);
}

TEST_F(RotationObjects, UnreadableFileGivesAnEmptyChain)
{
    std::string path = dir.file("garbage.pem");
    writeFile(path, patternBytes(64));
    std::string errors = stderrOf([&] {
        EXPECT_TRUE(RotationChain::fromFile(path.c_str()).rotations().empty());
    });
    EXPECT_EQ("Could not read proof-of-rotation chain\n", errors);
}

TEST_F(RotationObjects, CertificatesOutliveTheAsn1Chain)
{
    X509Ptr oldCert = loadCertificate(identity('a').certPath);
    X509Ptr newCert = loadCertificate(identity('b').certPath);
    ChainPtr asn1(sk_ProofOfRotation_new_null());
    sk_ProofOfRotation_push(asn1.get(), ProofOfRotation_create(oldCert.get(), signer('a').key.get(),
                                                               newCert.get(), signer('b').key.get()));
    RotationChain chain(asn1.get());
    asn1.reset();
    oldCert.reset();
    newCert.reset();

    auto rotations = chain.rotations();
    ASSERT_EQ(1u, rotations.size());
    std::shared_ptr<Certificate> old = rotations[0]->oldCertificate();
    EXPECT_EQ("a", old->subject());
    EXPECT_EQ(keyid('a'), old->keyId());
    EXPECT_EQ(Group::Developer, old->group());
    EXPECT_EQ(0, X509_cmp(signer('a').cert.get(), old->get()));
    EXPECT_EQ("b", rotations[0]->newCertificate()->subject());
    EXPECT_EQ(Group::Developer, rotations[0]->newCertificate()->group());
}

TEST_F(RotationObjects, PreviousKeyidsAreComputedOnce)
{
    ChainPtr asn1 = chainOf({{'a', 'b'}});
    RotationChain chain(asn1.get());
    Keyids first = chain.previousKeyids();

    // The rotations' certificates are shared: replacing one shows whether the
    // list is computed again.
    *chain.rotations()[0]->oldCertificate() = Certificate(signer('c').cert.get());
    ASSERT_EQ(keyid('c'), chain.rotations()[0]->oldCertificate()->keyId());
    EXPECT_EQ(first, chain.previousKeyids());
    EXPECT_EQ(Keyids{keyid('a')}, chain.previousKeyids());
}

TEST_F(RotationObjects, CopySharesRotationsAndKeyids)
{
    ChainPtr asn1 = chainOf({{'a', 'b'}, {'b', 'c'}});
    RotationChain original(asn1.get());
    RotationChain before(original);
    Keyids keyidsOfOriginal = original.previousKeyids();
    RotationChain after(original);

    ASSERT_EQ(2u, after.rotations().size());
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(original.rotations()[i].get(), before.rotations()[i].get());
        EXPECT_EQ(original.rotations()[i].get(), after.rotations()[i].get());
    }
    EXPECT_EQ(keyidsOfOriginal, before.previousKeyids());
    EXPECT_EQ(keyidsOfOriginal, after.previousKeyids());
}

TEST_F(RotationObjects, OldCertificateWithoutKeyIdGivesAnEmptyEntry)
{
    PkeyPtr key = loadKey(generateKey(dir.file("bare.key")));
    X509Ptr bare = makeBareCertificate(key.get(), "bare");
    signCertificate(bare.get(), key.get());
    ChainPtr asn1(sk_ProofOfRotation_new_null());
    sk_ProofOfRotation_push(asn1.get(), ProofOfRotation_create(bare.get(), key.get(),
                                                               signer('a').cert.get(),
                                                               signer('a').key.get()));
    Keyids listed;
    stderrOf([&] { listed = RotationChain(asn1.get()).previousKeyids(); });
    EXPECT_EQ(Keyids{""}, listed);
}

TEST_F(RotationObjects, RepeatedKeysAreKept)
{
    ChainPtr asn1 = chainOf({{'a', 'b'}, {'b', 'a'}, {'a', 'b'}});
    EXPECT_EQ((Keyids{keyid('a'), keyid('b'), keyid('a')}), RotationChain(asn1.get()).previousKeyids());
}

}  // namespace
}  // namespace sealkeep::test
