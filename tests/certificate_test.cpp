// PackageSignatures::Certificate: the facts computed at construction, copies
// and move assignment, DER and PEM forms, and verification against a CA file.
#include <signal.h>
#include <sys/resource.h>

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/x509v3.h>

#include <sealkeep/certificate.hpp>
#include <sealkeep/sealkeep.h>

#include "support/files.hpp"
#include "support/pki.hpp"
#include "support/process.hpp"
#include "support/stderr_capture.hpp"

namespace sealkeep::test {
namespace {

using PackageSignatures::Certificate;
using PackageSignatures::Group;
using PackageSignatures::Subgroup;

std::vector<unsigned char> derOf(X509* cert)
{
    std::vector<unsigned char> der(static_cast<std::size_t>(i2d_X509(cert, nullptr)));
    unsigned char* cursor = der.data();
    i2d_X509(cert, &cursor);
    return der;
}

void expectEmpty(Certificate const& cert)
{
    EXPECT_EQ(nullptr, cert.get());
    EXPECT_EQ("", cert.subject());
    EXPECT_EQ("", cert.keyId());
    EXPECT_EQ(Group::None, cert.group());
    EXPECT_EQ(Subgroup::None, cert.subgroup());
}

class CertificateObject : public testing::Test {
protected:
    Pki pki;
    std::string file(std::string const& name) const { return pki.dir().file(name); }

    Certificate issued(std::string const& name, const char* group)
    {
        return Certificate::readCertificateFromFile(pki.issue(name, group).certPath.c_str());
    }

    // A hand-made certificate with a group extension and the given
    // extended key usage, but no subject key identifier.
    X509Ptr withoutKeyIdentifier(const char* usage)
    {
        PkeyPtr key = loadKey(generateKey(file("nokeyid.key")));
        X509Ptr cert = makeBareCertificate(key.get(), "no key id");
        addExtension(cert.get(), NID_ext_key_usage, usage);
        addGroupExtension(cert.get(), "developer:mdm");
        signCertificate(cert.get(), key.get());
        return cert;
    }
};

TEST_F(CertificateObject, FactsOfAnIssuedCertificate)
{
    Certificate cert = issued("mdm signer", "developer:mdm");
    EXPECT_EQ("mdm signer", cert.subject());
    EXPECT_EQ(64u, cert.keyId().size());
    MallocPtr keyId(certificate_get_keyid(cert.get()));
    EXPECT_EQ(keyId.get(), cert.keyId());
    EXPECT_EQ(Group::Developer, cert.group());
    EXPECT_EQ(Subgroup::Mdm, cert.subgroup());
}

TEST_F(CertificateObject, GroupWithoutSubgroupIsRegular)
{
    Certificate cert = issued("lab", "seclab");
    EXPECT_EQ(Group::Seclab, cert.group());
    EXPECT_EQ(Subgroup::Regular, cert.subgroup());
}

TEST_F(CertificateObject, DeveloperAntivirusTextGivesGroupAndSubgroup)
{
    Certificate cert = issued("antivirus", "developer:antivirus");
    EXPECT_EQ(Group::Developer, cert.group());
    EXPECT_EQ(Subgroup::Antivirus, cert.subgroup());
}

TEST_F(CertificateObject, WithoutPackageSigningPurposeThereIsNoGroupOrSubgroup)
{
    X509Ptr x = withoutKeyIdentifier("critical,emailProtection");
    std::string errors = stderrOf([&] {
        Certificate cert(x.get());
        EXPECT_EQ(Group::None, cert.group());
        EXPECT_EQ(Subgroup::None, cert.subgroup());
        EXPECT_EQ("no key id", cert.subject());
    });
    EXPECT_EQ(
        "Failed to extract keyid from certificate\n"
        "Package signing not allowed (there is no corresponding extended key usage)\n",
        errors);
}

TEST_F(CertificateObject, IssuedWithoutGroupTextHasNoGroup)
{
    Identity plain = pki.issue("plain", nullptr);
    std::string errors = stderrOf([&] {
        Certificate cert = Certificate::readCertificateFromFile(plain.certPath.c_str());
        EXPECT_EQ(Group::None, cert.group());
        EXPECT_EQ(Subgroup::None, cert.subgroup());
        EXPECT_EQ(64u, cert.keyId().size());
    });
    EXPECT_EQ("Package signing not allowed (there is no corresponding extended key usage)\n",
              errors);
}

TEST_F(CertificateObject, WithoutKeyIdentifierKeepsSubjectAndGroup)
{
    X509Ptr x = withoutKeyIdentifier("critical,emailProtection,packageSigning");
    std::string errors = stderrOf([&] {
        Certificate cert(x.get());
        EXPECT_EQ("", cert.keyId());
        EXPECT_EQ("no key id", cert.subject());
        EXPECT_EQ(Group::Developer, cert.group());
        EXPECT_EQ(Subgroup::Mdm, cert.subgroup());
    });
    EXPECT_EQ("Failed to extract keyid from certificate\n", errors);
}

TEST_F(CertificateObject, NullMakesAnEmptyCertificate)
{
    std::string errors = stderrOf([] { expectEmpty(Certificate(nullptr)); });
    EXPECT_EQ("", errors);
    expectEmpty(Certificate());
}

TEST_F(CertificateObject, HoldsAReferenceOfItsOwn)
{
    X509Ptr x = loadCertificate(pki.developer().certPath);
    std::vector<unsigned char> expected = derOf(x.get());
    Certificate cert(x.get());
    EXPECT_EQ(x.get(), cert.get());
    x.reset();
    EXPECT_EQ(expected, cert.toDer());
}

TEST_F(CertificateObject, CopySharesTheCertificateButNotTheRecord)
{
    auto original = std::make_unique<Certificate>(
        Certificate::readCertificateFromFile(pki.client().certPath.c_str()));
    Certificate copy(*original);
    EXPECT_EQ(original->get(), copy.get());
    EXPECT_EQ(original->subject(), copy.subject());
    EXPECT_EQ(original->keyId(), copy.keyId());
    EXPECT_EQ(Group::Client, copy.group());
    EXPECT_EQ(Subgroup::Regular, copy.subgroup());
    std::vector<unsigned char> der = original->toDer();
    original.reset();
    EXPECT_EQ(der, copy.toDer());
    EXPECT_EQ("client", copy.subject());
}

TEST_F(CertificateObject, CopyOfAnEmptyCertificateIsEmpty)
{
    Certificate empty;
    Certificate copy(empty);
    expectEmpty(copy);
}

TEST_F(CertificateObject, MoveAssignmentExchangesTheCertificates)
{
    Certificate a = Certificate::readCertificateFromFile(pki.developer().certPath.c_str());
    Certificate b = Certificate::readCertificateFromFile(pki.seclab().certPath.c_str());
    X509* formerA = a.get();
    X509* formerB = b.get();
    b = std::move(a);
    EXPECT_EQ(formerA, b.get());
    EXPECT_EQ(formerB, a.get());
    EXPECT_EQ(Group::Developer, b.group());
    EXPECT_EQ(Group::Seclab, a.group());
    EXPECT_EQ("seclab", a.subject());
}

TEST_F(CertificateObject, SelfMoveAssignmentKeepsTheCertificate)
{
    Certificate a = Certificate::readCertificateFromFile(pki.developer().certPath.c_str());
    X509* held = a.get();
    Certificate& alias = a;
    a = std::move(alias);
    EXPECT_EQ(held, a.get());
    EXPECT_EQ("developer", a.subject());
}

TEST_F(CertificateObject, CertificatesLiveInVectors)
{
    std::vector<Certificate> certificates;
    certificates.push_back(Certificate::readCertificateFromFile(pki.developer().certPath.c_str()));
    certificates.push_back(Certificate::readCertificateFromFile(pki.seclab().certPath.c_str()));
    certificates.push_back(Certificate::readCertificateFromFile(pki.client().certPath.c_str()));
    EXPECT_EQ(Group::Developer, certificates[0].group());
    EXPECT_EQ(Group::Client, certificates[2].group());
}

// ---------------------------------------------------------------------------
// DER

TEST_F(CertificateObject, DerRoundTrip)
{
    Certificate cert = Certificate::readCertificateFromFile(pki.developer().certPath.c_str());
    std::vector<unsigned char> der = cert.toDer();
    ASSERT_FALSE(der.empty());
    X509Ptr x = loadCertificate(pki.developer().certPath);
    EXPECT_EQ(derOf(x.get()), der);

    Certificate decoded = Certificate::fromDer(der.data(), der.size());
    EXPECT_NE(nullptr, decoded.get());
    EXPECT_EQ(cert.subject(), decoded.subject());
    EXPECT_EQ(cert.keyId(), decoded.keyId());
    EXPECT_EQ(cert.group(), decoded.group());
    EXPECT_EQ(der, decoded.toDer());
}

TEST_F(CertificateObject, GarbageDerMakesAnEmptyCertificate)
{
    Bytes garbage = patternBytes(300);
    std::string errors = stderrOf([&] {
        Certificate cert = Certificate::fromDer(garbage.data(), garbage.size());
        expectEmpty(cert);
    });
    EXPECT_EQ("Could not decode X.509 certificate\n", errors);
}

TEST_F(CertificateObject, TruncatedOrMissingDerMakesAnEmptyCertificate)
{
    Certificate cert = Certificate::readCertificateFromFile(pki.developer().certPath.c_str());
    std::vector<unsigned char> der = cert.toDer();
    std::string errors = stderrOf([&] {
        expectEmpty(Certificate::fromDer(der.data(), der.size() - 1));
        expectEmpty(Certificate::fromDer(nullptr, 0));
        expectEmpty(Certificate::fromDer(der.data(), 0));
    });
    EXPECT_EQ(
        "Could not decode X.509 certificate\nCould not decode X.509 certificate\n"
        "Could not decode X.509 certificate\n",
        errors);
}

TEST_F(CertificateObject, EmptyCertificateHasNoDer)
{
    // Encoding nothing gives a length of 0, not an error.
    std::string errors = stderrOf([] { EXPECT_TRUE(Certificate().toDer().empty()); });
    EXPECT_EQ("", errors);
}

// ---------------------------------------------------------------------------
// PEM files

TEST_F(CertificateObject, ReadsTheFirstCertificateOfAFile)
{
    std::string path = file("both.pem");
    writeText(path, readText(pki.seclab().certPath) + readText(pki.developer().certPath));
    Certificate cert = Certificate::readCertificateFromFile(path.c_str());
    EXPECT_EQ("seclab", cert.subject());
}

TEST_F(CertificateObject, MissingFileMakesAnEmptyCertificate)
{
    std::string path = file("absent.pem");
    std::string errors =
        stderrOf([&] { expectEmpty(Certificate::readCertificateFromFile(path.c_str())); });
    EXPECT_EQ("Could not open certificate \"" + path + "\": No such file or directory\n", errors);
}

TEST_F(CertificateObject, SavedPemReadsBackAndOpensslAcceptsIt)
{
    Certificate cert = Certificate::readCertificateFromFile(pki.developer().certPath.c_str());
    std::string path = file("saved.pem");
    writeText(path, std::string(5000, 'x'));
    ASSERT_TRUE(cert.saveAsPem(path.c_str()));
    EXPECT_EQ(readText(pki.developer().certPath), readText(path));
    EXPECT_EQ(cert.toDer(), Certificate::readCertificateFromFile(path.c_str()).toDer());

    CommandResult result =
        runCommand({"openssl", "verify", "-engine", "gost", "-CAfile", pki.ca().certPath, path});
    EXPECT_EQ(0, result.exitCode) << result.output << result.errors;
}

TEST_F(CertificateObject, SavingIntoAMissingDirectoryFails)
{
    Certificate cert = Certificate::readCertificateFromFile(pki.developer().certPath.c_str());
    std::string path = file("no/such/dir/cert.pem");
    std::string errors = stderrOf([&] { EXPECT_FALSE(cert.saveAsPem(path.c_str())); });
    EXPECT_EQ("Could open file '" + path + "'\n", errors);
}

TEST_F(CertificateObject, SavingAnEmptyCertificateFails)
{
    std::string path = file("empty.pem");
    std::string errors = stderrOf([&] { EXPECT_FALSE(Certificate().saveAsPem(path.c_str())); });
    EXPECT_EQ("Could not save X.509 certificate\n", errors);
}

TEST_F(CertificateObject, FailedWriteIsReported)
{
    Certificate cert = Certificate::readCertificateFromFile(pki.developer().certPath.c_str());
    std::string path = file("partial.pem");
    ChildResult child = runInChild(
        [&] {
            signal(SIGXFSZ, SIG_IGN);
            rlimit limit{16, 16};
            setrlimit(RLIMIT_FSIZE, &limit);
            return cert.saveAsPem(path.c_str()) ? 1 : 0;
        },
        60000);
    EXPECT_EQ(0, child.exitCode);
    EXPECT_EQ("Could not save X.509 certificate\n", child.errors);
}

// ---------------------------------------------------------------------------
// Verification

TEST_F(CertificateObject, VerifiesAgainstItsCaFile)
{
    Certificate cert = Certificate::readCertificateFromFile(pki.developer().certPath.c_str());
    EXPECT_TRUE(cert.verify(pki.ca().certPath.c_str()));
}

TEST_F(CertificateObject, DoesNotVerifyAgainstAnotherCa)
{
    Pki other("other CA");
    Certificate cert = Certificate::readCertificateFromFile(pki.developer().certPath.c_str());
    EXPECT_FALSE(cert.verify(other.ca().certPath.c_str()));
}

TEST_F(CertificateObject, MissingCaFileDoesNotVerify)
{
    Certificate cert = Certificate::readCertificateFromFile(pki.developer().certPath.c_str());
    std::string path = file("absent-ca.pem");
    std::string errors = stderrOf([&] { EXPECT_FALSE(cert.verify(path.c_str())); });
    EXPECT_EQ("Could not open certificate store \"" + path + "\": No such file or directory\n",
              errors);
}

TEST_F(CertificateObject, EmptyCertificateDoesNotVerify)
{
    EXPECT_FALSE(Certificate().verify(pki.ca().certPath.c_str()));
}

}  // namespace
}  // namespace sealkeep::test
