// Proofs of key rotation and chains of them: making and checking a proof,
// the linking rule of a chain, reading chain files, and the tool that
// appends a rotation to a chain file.
#include <signal.h>
#include <sys/resource.h>

#include <climits>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <openssl/objects.h>

#include <sealkeep/sealkeep.h>

#include "support/cms_builder.hpp"
#include "support/rotating_keys.hpp"
#include "support/files.hpp"
#include "support/pki.hpp"
#include "support/process.hpp"
#include "support/stderr_capture.hpp"

namespace sealkeep::test {
namespace {

// id-tc26-signwithdigest-gost3410-12-256
constexpr int gostSignatureWithDigest256Nid = 985;

// Removes the PEM armour of a chain file, leaving its DER.
Bytes derOfPemChain(std::string const& path)
{
    ChainPtr chain(ProofOfRotationChain_read(path.c_str()));
    if (!chain)
        throw std::runtime_error("unreadable chain " + path);
    unsigned char* der = nullptr;
    int length = i2d_ProofOfRotationChain(chain.get(), &der);
    OpensslBytesPtr owner(der);
    return Bytes(der, der + length);
}

class ProofOfRotationTest : public RotatingKeysTest {
protected:
    // A proof old -> new signed with the keys of oldKey and newKey.
    static ProofPtr proof(char oldName, char newName, char oldKey = 0, char newKey = 0)
    {
        return ProofPtr(ProofOfRotation_create(signer(oldName).cert.get(),
                                               signer(oldKey ? oldKey : oldName).key.get(),
                                               signer(newName).cert.get(),
                                               signer(newKey ? newKey : newName).key.get()));
    }

    static ChainPtr chainOf(std::initializer_list<ProofOfRotation*> proofs)
    {
        ChainPtr chain(sk_ProofOfRotation_new_null());
        for (ProofOfRotation* proof : proofs)
            sk_ProofOfRotation_push(chain.get(), proof);
        return chain;
    }

    // make_proof_of_rotation_chain from the identities' files.
    static int makeChain(std::string const& out, const char* in, char oldName, char newName,
                         char oldKey = 0)
    {
        return make_proof_of_rotation_chain(out.c_str(), in, identity(oldName).certPath.c_str(),
                                            identity(oldKey ? oldKey : oldName).keyPath.c_str(),
                                            identity(newName).certPath.c_str(),
                                            identity(newName).keyPath.c_str());
    }

    // A self-signed certificate without a subject key identifier, and its key.
    LoadedSigner withoutKeyIdentifier(std::string const& name)
    {
        PkeyPtr key = loadKey(generateKey(dir.file(name + ".key")));
        X509Ptr cert = makeBareCertificate(key.get(), name);
        signCertificate(cert.get(), key.get());
        return {std::move(cert), std::move(key)};
    }

    TempDir dir;
};

// ---------------------------------------------------------------------------
// A single proof

TEST_F(ProofOfRotationTest, CreatedProofVerifiesAndNamesBothCertificates)
{
    ProofPtr made;
    EXPECT_EQ("", stderrOf([&] { made = proof('a', 'b'); }));
    ASSERT_TRUE(made);
    EXPECT_EQ(0, X509_cmp(signer('a').cert.get(), ProofOfRotation_get0_old_cert(made.get())));
    EXPECT_EQ(0, X509_cmp(signer('b').cert.get(), ProofOfRotation_get0_new_cert(made.get())));
    EXPECT_EQ("", stderrOf([&] { EXPECT_EQ(1, ProofOfRotation_verify(made.get())); }));
}

TEST_F(ProofOfRotationTest, ProofKeepsItsOwnCertificateReferences)
{
    X509Ptr oldCert = loadCertificate(identity('a').certPath);
    X509Ptr newCert = loadCertificate(identity('b').certPath);
    ProofPtr made(ProofOfRotation_create(oldCert.get(), signer('a').key.get(), newCert.get(),
                                         signer('b').key.get()));
    ASSERT_TRUE(made);
    oldCert.reset();
    newCert.reset();
    EXPECT_EQ(1, ProofOfRotation_verify(made.get()));
    EXPECT_EQ(0, X509_cmp(signer('a').cert.get(), ProofOfRotation_get0_old_cert(made.get())));
}

TEST_F(ProofOfRotationTest, SignaturesAreGostOctetStringsThatSurviveEncoding)
{
    ProofPtr made = proof('a', 'b');
    unsigned char* der = nullptr;
    int length = i2d_ProofOfRotation(made.get(), &der);
    OpensslBytesPtr owner(der);
    const unsigned char* cursor = der;
    ProofPtr decoded(d2i_ProofOfRotation(nullptr, &cursor, length));
    ASSERT_TRUE(decoded);
    EXPECT_EQ(V_ASN1_OCTET_STRING, ASN1_STRING_type(decoded->oldSignature));
    EXPECT_EQ(64, ASN1_STRING_length(decoded->newSignature));
    EXPECT_EQ(gostSignatureWithDigest256Nid, OBJ_obj2nid(decoded->oldSignatureAlgorithm->algorithm));
    EXPECT_EQ(1, ProofOfRotation_verify(decoded.get()));
}

TEST_F(ProofOfRotationTest, WrongOldKeyIsFoundByVerification)
{
    ProofPtr made;
    EXPECT_EQ("", stderrOf([&] { made = proof('a', 'b', 'c'); }));
    ASSERT_TRUE(made);
    EXPECT_EQ("Could not verify old signature in proof-of-rotation\n",
              stderrOf([&] { EXPECT_LT(ProofOfRotation_verify(made.get()), 1); }));
}

TEST_F(ProofOfRotationTest, WrongNewKeyIsFoundByVerification)
{
    ProofPtr made = proof('a', 'b', 'a', 'c');
    ASSERT_TRUE(made);
    EXPECT_EQ("Could not verify new signature in proof-of-rotation\n",
              stderrOf([&] { EXPECT_LT(ProofOfRotation_verify(made.get()), 1); }));
}

TEST_F(ProofOfRotationTest, ReplacedCertificateBreaksTheSignatures)
{
    ProofPtr made = proof('a', 'b');
    X509_up_ref(signer('c').cert.get());
    X509_free(made->signedAttrs->newCert);
    made->signedAttrs->newCert = signer('c').cert.get();
    EXPECT_EQ("Could not verify old signature in proof-of-rotation\n",
              stderrOf([&] { EXPECT_LT(ProofOfRotation_verify(made.get()), 1); }));
}

TEST_F(ProofOfRotationTest, MissingKeyOrCertificateIsNotSigned)
{
    X509* a = signer('a').cert.get();
    X509* b = signer('b').cert.get();
    EVP_PKEY* aKey = signer('a').key.get();
    EVP_PKEY* bKey = signer('b').key.get();
    auto create = [](X509* oldCert, EVP_PKEY* oldKey, X509* newCert, EVP_PKEY* newKey) {
        return stderrOf([&] {
            EXPECT_EQ(nullptr, ProofOfRotation_create(oldCert, oldKey, newCert, newKey));
        });
    };
    EXPECT_EQ("Could not sign proof-of-rotation with old key\n", create(a, nullptr, b, bKey));
    EXPECT_EQ("Could not sign proof-of-rotation with new key\n", create(a, aKey, b, nullptr));
    EXPECT_EQ("Could not sign proof-of-rotation with old key\n", create(nullptr, aKey, b, bKey));
    EXPECT_EQ("Could not sign proof-of-rotation with old key\n", create(a, aKey, nullptr, bKey));
}

TEST_F(ProofOfRotationTest, NullProofHasNothing)
{
    EXPECT_EQ(-1, ProofOfRotation_verify(nullptr));
    EXPECT_EQ(nullptr, ProofOfRotation_get0_old_cert(nullptr));
    EXPECT_EQ(nullptr, ProofOfRotation_get0_new_cert(nullptr));
}

// ---------------------------------------------------------------------------
// Chains in memory

TEST_F(ProofOfRotationTest, EmptyChainIsValidSilently)
{
    ChainPtr chain = chainOf({});
    EXPECT_EQ("", stderrOf([&] { EXPECT_EQ(1, ProofOfRotationChain_verify(chain.get())); }));
    EXPECT_EQ(0, ProofOfRotationChain_count(chain.get()));
    EXPECT_EQ(nullptr, ProofOfRotationChain_get0_at(chain.get(), 0));
}

TEST_F(ProofOfRotationTest, ChainOfOneNeedsNoLink)
{
    ChainPtr chain = chainOf({proof('c', 'd').release()});
    EXPECT_EQ("", stderrOf([&] { EXPECT_EQ(1, ProofOfRotationChain_verify(chain.get())); }));
}

TEST_F(ProofOfRotationTest, LinkedChainVerifies)
{
    ChainPtr chain = chainOf({proof('a', 'b').release(), proof('b', 'c').release(),
                              proof('c', 'a').release()});
    EXPECT_EQ("", stderrOf([&] { EXPECT_EQ(1, ProofOfRotationChain_verify(chain.get())); }));
}

TEST_F(ProofOfRotationTest, ProofsThatDoNotLinkAreRefused)
{
    ChainPtr chain = chainOf({proof('a', 'b').release(), proof('c', 'd').release()});
    EXPECT_EQ("New SKID from proof[0] does not match old SKID from proof[1]\n",
              stderrOf([&] { EXPECT_EQ(0, ProofOfRotationChain_verify(chain.get())); }));
}

TEST_F(ProofOfRotationTest, FirstBadProofEndsTheCheck)
{
    ChainPtr chain = chainOf({proof('a', 'b').release(), proof('b', 'c', 'd').release(),
                              proof('a', 'd').release()});
    EXPECT_EQ("Could not verify old signature in proof-of-rotation\n"
              "Could not verify proof[1]\n",
              stderrOf([&] { EXPECT_LT(ProofOfRotationChain_verify(chain.get()), 1); }));
}

TEST_F(ProofOfRotationTest, CertificatesWithoutKeyIdentifierAreRefused)
{
    LoadedSigner bare = withoutKeyIdentifier("bare");
    auto check = [&](X509* oldCert, EVP_PKEY* oldKey, X509* newCert, EVP_PKEY* newKey) {
        ChainPtr chain = chainOf({ProofOfRotation_create(oldCert, oldKey, newCert, newKey)});
        return stderrOf([&] { EXPECT_EQ(0, ProofOfRotationChain_verify(chain.get())); });
    };
    EXPECT_EQ("Old certificate in proof[0] has no SKID\n",
              check(bare.cert.get(), bare.key.get(), signer('a').cert.get(), signer('a').key.get()));
    EXPECT_EQ("New certificate in proof[0] has no SKID\n",
              check(signer('a').cert.get(), signer('a').key.get(), bare.cert.get(), bare.key.get()));
}

TEST_F(ProofOfRotationTest, CountAndIndexOutsideTheChain)
{
    ChainPtr chain = chainOf({proof('a', 'b').release()});
    EXPECT_EQ(-1, ProofOfRotationChain_count(nullptr));
    EXPECT_EQ(nullptr, ProofOfRotationChain_get0_at(nullptr, 0));
    EXPECT_NE(nullptr, ProofOfRotationChain_get0_at(chain.get(), 0));
    EXPECT_EQ(nullptr, ProofOfRotationChain_get0_at(chain.get(), 1));
    EXPECT_EQ(nullptr, ProofOfRotationChain_get0_at(chain.get(), UINT_MAX));
    ProofOfRotationChain_free(nullptr);
}

// ---------------------------------------------------------------------------
// Chain files

TEST_F(ProofOfRotationTest, MissingChainFileIsReported)
{
    std::string path = dir.file("missing.pem");
    EXPECT_EQ("Could not open proof-of-rotation: No such file or directory\n",
              stderrOf([&] { EXPECT_EQ(nullptr, ProofOfRotationChain_read(path.c_str())); }));
}

TEST_F(ProofOfRotationTest, DerChainFileIsNotRead)
{
    std::string pem = dir.file("chain.pem");
    ASSERT_EQ(0, makeChain(pem, nullptr, 'a', 'b'));
    std::string der = dir.file("chain.der");
    writeFile(der, derOfPemChain(pem));
    EXPECT_EQ("Could not read proof-of-rotation chain\n",
              stderrOf([&] { EXPECT_EQ(nullptr, ProofOfRotationChain_read(der.c_str())); }));
}

TEST_F(ProofOfRotationTest, ToolWritesAChainThatOpensslParses)
{
    std::string pem = dir.file("chain.pem");
    EXPECT_EQ("", stderrOf([&] { EXPECT_EQ(0, makeChain(pem, nullptr, 'a', 'b')); }));
    EXPECT_EQ(0u, readText(pem).find("-----BEGIN PROOF OF ROTATION CHAIN-----\n"));

    CommandResult fromPem = runCommand({"openssl", "asn1parse", "-inform", "PEM", "-in", pem});
    EXPECT_EQ(0, fromPem.exitCode) << fromPem.errors;
    std::string der = dir.file("chain.der");
    writeFile(der, derOfPemChain(pem));
    CommandResult fromDer = runCommand({"openssl", "asn1parse", "-inform", "DER", "-in", der});
    EXPECT_EQ(0, fromDer.exitCode) << fromDer.errors;
    EXPECT_EQ(fromPem.output, fromDer.output);
    EXPECT_NE(std::string::npos, fromDer.output.find("OCTET STRING"));

    ChainPtr chain(ProofOfRotationChain_read(pem.c_str()));
    ASSERT_EQ(1, ProofOfRotationChain_count(chain.get()));
    EXPECT_EQ(1, ProofOfRotationChain_verify(chain.get()));
}

TEST_F(ProofOfRotationTest, ToolAppendsOverTheSameFile)
{
    std::string path = dir.file("chain.pem");
    ASSERT_EQ(0, makeChain(path, nullptr, 'a', 'b'));
    EXPECT_EQ("", stderrOf([&] { EXPECT_EQ(0, makeChain(path, path.c_str(), 'b', 'c')); }));

    ChainPtr chain(ProofOfRotationChain_read(path.c_str()));
    ASSERT_EQ(2, ProofOfRotationChain_count(chain.get()));
    EXPECT_EQ(1, ProofOfRotationChain_verify(chain.get()));
    EXPECT_EQ(0, X509_cmp(signer('b').cert.get(),
                          ProofOfRotation_get0_old_cert(ProofOfRotationChain_get0_at(chain.get(), 1))));
    EXPECT_EQ(0, X509_cmp(signer('c').cert.get(),
                          ProofOfRotation_get0_new_cert(ProofOfRotationChain_get0_at(chain.get(), 1))));
}

TEST_F(ProofOfRotationTest, ToolRefusesAWrongKeyAndWritesNothing)
{
    std::string out = dir.file("chain.pem");
    EXPECT_EQ("Could not verify old signature in proof-of-rotation\n"
              "Could not verify proof[0]\n",
              stderrOf([&] { EXPECT_EQ(-1, makeChain(out, nullptr, 'a', 'b', 'c')); }));
    EXPECT_FALSE(fileExists(out));
}

TEST_F(ProofOfRotationTest, ToolChecksTheExistingChainAndLeavesItUntouched)
{
    std::string path = dir.file("chain.pem");
    ASSERT_EQ(0, makeChain(path, nullptr, 'a', 'b'));
    std::string before = readText(path);
    EXPECT_EQ("New SKID from proof[0] does not match old SKID from proof[1]\n",
              stderrOf([&] { EXPECT_EQ(-1, makeChain(path, path.c_str(), 'c', 'd')); }));
    EXPECT_EQ(before, readText(path));
}

TEST_F(ProofOfRotationTest, ToolStopsAtTheFirstUnreadableInput)
{
    std::string out = dir.file("chain.pem");
    writeText(out, "untouched");
    std::string missing = dir.file("missing.pem");
    EXPECT_EQ("Could not open certificate \"" + missing + "\": No such file or directory\n",
              stderrOf([&] {
                  EXPECT_EQ(-1, make_proof_of_rotation_chain(
                                    out.c_str(), nullptr, missing.c_str(),
                                    identity('a').keyPath.c_str(), identity('b').certPath.c_str(),
                                    identity('b').keyPath.c_str()));
              }));
    EXPECT_EQ("Could not open proof-of-rotation: No such file or directory\n",
              stderrOf([&] { EXPECT_EQ(-1, makeChain(out, missing.c_str(), 'a', 'b')); }));
    EXPECT_EQ("untouched", readText(out));
}

TEST_F(ProofOfRotationTest, ToolReportsAnOutputThatCannotBeOpened)
{
    std::string out = dir.file("no/such/dir/chain.pem");
    EXPECT_EQ("Could not open resulting proof-of-rotation chain file: No such file or directory\n",
              stderrOf([&] { EXPECT_EQ(-1, makeChain(out, nullptr, 'a', 'b')); }));
}

TEST_F(ProofOfRotationTest, ToolRemovesAChainItCouldNotWrite)
{
    std::string out = dir.file("chain.pem");
    // A file size limit makes the write fail; the child keeps it away from
    // this process.
    ChildResult child = runInChild(
        [&] {
            signal(SIGXFSZ, SIG_IGN);
            rlimit limit{100, 100};
            setrlimit(RLIMIT_FSIZE, &limit);
            return makeChain(out, nullptr, 'a', 'b') == -1 ? 0 : 1;
        },
        30000);
    EXPECT_EQ(0, child.exitCode);
    EXPECT_EQ("Could not save resulting proof-of-rotation chain file\n", child.errors);
    EXPECT_FALSE(fileExists(out));
}

}  // namespace
}  // namespace sealkeep::test
