// Reading keys, certificates and CA stores, the facts taken out of a
// certificate (common name, group, key id), and verification against a store.
#include <chrono>
#include <cstring>
#include <string>

#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <sealkeep/sealkeep.h>

#include "support/files.hpp"
#include "support/pki.hpp"
#include "support/process.hpp"
#include "support/stderr_capture.hpp"

namespace sealkeep::test {
namespace {

// The owned string a flat function returned, or "<null>".
std::string taken(char* text)
{
    MallocPtr owned(text);
    return owned ? std::string(owned.get()) : std::string("<null>");
}

int certificatesIn(X509_STORE* store)
{
    return sk_X509_OBJECT_num(X509_STORE_get0_objects(store));
}

bool holdsSubjectOf(X509_STORE* store, std::string const& certPath)
{
    X509Ptr cert = loadCertificate(certPath);
    return X509_OBJECT_retrieve_by_subject(X509_STORE_get0_objects(store), X509_LU_X509,
                                           X509_get_subject_name(cert.get())) != nullptr;
}

const std::string malformedBlock =
    "-----BEGIN CERTIFICATE-----\nMIIBbroken/notacertificate==\n-----END CERTIFICATE-----\n";

class KeysAndCertificates : public testing::Test {
protected:
    Pki pki;
    std::string file(std::string const& name) const { return pki.dir().file(name); }

    // A hand-made certificate for a new key, signed by that key.
    X509Ptr selfSigned(std::string const& commonName,
                       std::initializer_list<std::pair<int, const char*>> extensions = {})
    {
        PkeyPtr key = loadKey(generateKey(file(commonName + ".key")));
        X509Ptr cert = makeBareCertificate(key.get(), commonName);
        for (auto const& [nid, value] : extensions)
            addExtension(cert.get(), nid, value);
        signCertificate(cert.get(), key.get());
        return cert;
    }
};

// ---------------------------------------------------------------------------
// private_key_read

TEST_F(KeysAndCertificates, ReadsAGeneratedKey)
{
    PkeyPtr key(private_key_read(pki.ca().keyPath.c_str(), nullptr));
    ASSERT_NE(key, nullptr);
    EXPECT_EQ(979, EVP_PKEY_id(key.get()));
}

TEST_F(KeysAndCertificates, ReadsA512BitKey)
{
    std::string path = generateKey(file("big.key"), 512, "A");
    PkeyPtr key(private_key_read(path.c_str(), nullptr));
    ASSERT_NE(key, nullptr);
    EXPECT_EQ(980, EVP_PKEY_id(key.get()));
}

TEST_F(KeysAndCertificates, MissingKeyFileNamesPathAndReason)
{
    std::string path = file("absent.key");
    std::string errors =
        stderrOf([&] { EXPECT_EQ(nullptr, private_key_read(path.c_str(), nullptr)); });
    EXPECT_EQ("Could not open private key \"" + path + "\": No such file or directory\n", errors);
}

TEST_F(KeysAndCertificates, NullKeyPathIsAnInvalidArgument)
{
    std::string errors = stderrOf([] { EXPECT_EQ(nullptr, private_key_read(nullptr, nullptr)); });
    EXPECT_EQ("Could not open private key \"(null)\": Invalid argument\n", errors);
}

TEST_F(KeysAndCertificates, GarbageKeyFileNamesPath)
{
    std::string path = file("garbage.key");
    writeText(path, "not a key\n");
    std::string errors =
        stderrOf([&] { EXPECT_EQ(nullptr, private_key_read(path.c_str(), nullptr)); });
    EXPECT_EQ("Could not read private key \"" + path + "\" (wrong passphrase?)\n", errors);
}

TEST_F(KeysAndCertificates, PassPhraseProtectedKeyOpensOnlyWithItsPassPhrase)
{
    PkeyPtr key = loadKey(pki.ca().keyPath);
    std::string path = file("protected.key");
    {
        FilePtr out(fopen(path.c_str(), "wb"));
        ASSERT_NE(out, nullptr);
        char passPhrase[] = "correct horse";
        ASSERT_EQ(
            1, PEM_write_PKCS8PrivateKey(out.get(), key.get(), EVP_aes_256_cbc(), passPhrase,
                                         static_cast<int>(strlen(passPhrase)), nullptr, nullptr));
    }
    char right[] = "correct horse";
    PkeyPtr opened(private_key_read(path.c_str(), right));
    ASSERT_NE(opened, nullptr);
    EXPECT_EQ(1, EVP_PKEY_eq(key.get(), opened.get()));

    char wrong[] = "battery staple";
    std::string errors =
        stderrOf([&] { EXPECT_EQ(nullptr, private_key_read(path.c_str(), wrong)); });
    EXPECT_EQ("Could not read private key \"" + path + "\" (wrong passphrase?)\n", errors);
}

// ---------------------------------------------------------------------------
// certificate_store_read

TEST_F(KeysAndCertificates, MissingStoreFileNamesPathAndReason)
{
    std::string path = file("absent.pem");
    std::string errors =
        stderrOf([&] { EXPECT_EQ(nullptr, certificate_store_read(path.c_str())); });
    EXPECT_EQ("Could not open certificate store \"" + path + "\": No such file or directory\n",
              errors);
}

TEST_F(KeysAndCertificates, StoreFileWithoutCertificatesGivesAnEmptyStore)
{
    std::string path = file("empty.pem");
    writeText(path, "");
    X509StorePtr store;
    std::string errors = stderrOf([&] { store.reset(certificate_store_read(path.c_str())); });
    ASSERT_NE(store, nullptr);
    EXPECT_EQ(0, certificatesIn(store.get()));
    EXPECT_EQ("", errors);
}

TEST_F(KeysAndCertificates, StoreKeepsCertificatesBeforeAMalformedThirdBlock)
{
    std::string path = file("store.pem");
    writeText(path, readText(pki.ca().certPath) + readText(pki.developer().certPath) +
                        malformedBlock + readText(pki.seclab().certPath));
    X509StorePtr store;
    std::string errors = stderrOf([&] { store.reset(certificate_store_read(path.c_str())); });
    ASSERT_NE(store, nullptr);
    EXPECT_EQ(2, certificatesIn(store.get()));
    EXPECT_EQ("", errors);

    EXPECT_TRUE(holdsSubjectOf(store.get(), pki.developer().certPath));
    EXPECT_FALSE(holdsSubjectOf(store.get(), pki.seclab().certPath));
}

// A PEM block far longer than any certificate ends the read before it is
// held: a few megabytes and milliseconds, not the block's size in memory.
TEST_F(KeysAndCertificates, AHugePemBlockEndsTheStoreReadInBoundedMemory)
{
    std::string path = file("huge.pem");
    {
        FilePtr out(fopen(path.c_str(), "wb"));
        ASSERT_NE(out, nullptr);
        fputs(readText(pki.ca().certPath).c_str(), out.get());
        fputs("-----BEGIN CERTIFICATE-----\n", out.get());
        std::string line(64, 'A');
        line += '\n';
        for (long written = 0; written < (128L << 20); written += static_cast<long>(line.size()))
            fputs(line.c_str(), out.get());
        fputs("-----END CERTIFICATE-----\n", out.get());
        fputs(readText(pki.developer().certPath).c_str(), out.get());
    }
    resetPeakResident();
    long before = peakResidentKib();
    auto start = std::chrono::steady_clock::now();
    X509StorePtr store;
    std::string errors = stderrOf([&] { store.reset(certificate_store_read(path.c_str())); });
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    ASSERT_NE(store, nullptr);
    // The certificate in front of the block is kept; nothing after it is read.
    EXPECT_EQ(1, certificatesIn(store.get()));
    EXPECT_EQ("Certificate store \"" + path + "\" holds a PEM block larger than any certificate\n", errors);
    EXPECT_LT(peakResidentKib() - before, 32L * 1024);
    EXPECT_LT(seconds, 2.0);
}

TEST_F(KeysAndCertificates, StoreAcceptsTheSameCertificateTwice)
{
    std::string path = file("twice.pem");
    std::string ca = readText(pki.ca().certPath);
    writeText(path, ca + ca);
    X509StorePtr store;
    std::string errors = stderrOf([&] { store.reset(certificate_store_read(path.c_str())); });
    ASSERT_NE(store, nullptr);
    EXPECT_EQ(1, certificatesIn(store.get()));
    EXPECT_EQ("", errors);
}

// ---------------------------------------------------------------------------
// certificate_read

TEST_F(KeysAndCertificates, ReadsTheFirstCertificateOfAFile)
{
    std::string path = file("two.pem");
    writeText(path, readText(pki.developer().certPath) + readText(pki.ca().certPath));
    X509Ptr cert(certificate_read(path.c_str()));
    ASSERT_NE(cert, nullptr);
    EXPECT_EQ(0, X509_cmp(cert.get(), loadCertificate(pki.developer().certPath).get()));
}

TEST_F(KeysAndCertificates, MissingCertificateFileNamesPathAndReason)
{
    std::string path = file("absent.pem");
    std::string errors = stderrOf([&] { EXPECT_EQ(nullptr, certificate_read(path.c_str())); });
    EXPECT_EQ("Could not open certificate \"" + path + "\": No such file or directory\n", errors);
}

TEST_F(KeysAndCertificates, MalformedCertificateFileNamesPath)
{
    std::string path = file("bad.pem");
    writeText(path, malformedBlock);
    std::string errors = stderrOf([&] { EXPECT_EQ(nullptr, certificate_read(path.c_str())); });
    EXPECT_EQ("Could not parse certificate \"" + path + "\"\n", errors);
}

// ---------------------------------------------------------------------------
// certificate_get_subject

TEST_F(KeysAndCertificates, SubjectIsTheCommonName)
{
    X509Ptr cert = loadCertificate(pki.developer().certPath);
    EXPECT_EQ("developer", taken(certificate_get_subject(cert.get())));
}

TEST_F(KeysAndCertificates, SubjectIsTheFirstOfSeveralCommonNames)
{
    X509Ptr cert = selfSigned("first");
    X509_NAME_add_entry_by_txt(X509_get_subject_name(cert.get()), "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>("second"), -1, -1, 0);
    EXPECT_EQ("first", taken(certificate_get_subject(cert.get())));
}

TEST_F(KeysAndCertificates, NoCommonNameIsReported)
{
    X509Ptr cert = selfSigned("unnamed");
    X509_NAME* organisationOnly = X509_NAME_new();
    X509_NAME_add_entry_by_txt(organisationOnly, "O", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>("Example"), -1, -1, 0);
    X509_set_subject_name(cert.get(), organisationOnly);
    X509_NAME_free(organisationOnly);
    std::string errors =
        stderrOf([&] { EXPECT_EQ("<null>", taken(certificate_get_subject(cert.get()))); });
    EXPECT_EQ("No common name found\n", errors);
}

TEST_F(KeysAndCertificates, BmpStringCommonNameIsReturnedAsRawTwoByteUnits)
{
    const unsigned char units[] = {0x04, 0x1F, 0x00, 0x41};  // U+041F, 'A'
    X509Ptr cert = selfSigned("bmp");
    X509_NAME* name = X509_NAME_new();
    ASSERT_EQ(1, X509_NAME_add_entry_by_NID(name, NID_commonName, V_ASN1_BMPSTRING, units,
                                            sizeof units, -1, 0));
    X509_set_subject_name(cert.get(), name);
    X509_NAME_free(name);

    MallocPtr subject(certificate_get_subject(cert.get()));
    ASSERT_NE(subject, nullptr);
    EXPECT_EQ(0, memcmp(units, subject.get(), sizeof units));
    EXPECT_EQ('\0', subject.get()[sizeof units]);
}

TEST_F(KeysAndCertificates, NullCertificateHasNoFacts)
{
    std::string errors = stderrOf([] {
        EXPECT_EQ("<null>", taken(certificate_get_subject(nullptr)));
        EXPECT_EQ("<null>", taken(certificate_get_group(nullptr)));
        EXPECT_EQ("<null>", taken(certificate_get_keyid(nullptr)));
    });
    EXPECT_EQ(
        "No common name found\nFailed to get certificate extensions\n"
        "Failed to extract keyid from certificate\n",
        errors);
}

// ---------------------------------------------------------------------------
// certificate_get_group

TEST_F(KeysAndCertificates, GroupOfAnIssuedCertificateIsItsText)
{
    Identity identity = pki.issue("antivirus", "developer:antivirus");
    X509Ptr cert = loadCertificate(identity.certPath);
    std::string errors = stderrOf(
        [&] { EXPECT_EQ("developer:antivirus", taken(certificate_get_group(cert.get()))); });
    EXPECT_EQ("", errors);
}

TEST_F(KeysAndCertificates, GroupWithoutPackageSigningPurposeDoesNotCount)
{
    X509Ptr cert = selfSigned("mail", {{NID_ext_key_usage, "critical,emailProtection"}});
    addGroupExtension(cert.get(), "developer");
    std::string errors =
        stderrOf([&] { EXPECT_EQ("<null>", taken(certificate_get_group(cert.get()))); });
    EXPECT_EQ("Package signing not allowed (there is no corresponding extended key usage)\n",
              errors);
}

TEST_F(KeysAndCertificates, GroupWithoutAnyExtendedKeyUsageIsReported)
{
    X509Ptr cert = selfSigned("plain");
    addGroupExtension(cert.get(), "developer");
    std::string errors =
        stderrOf([&] { EXPECT_EQ("<null>", taken(certificate_get_group(cert.get()))); });
    EXPECT_EQ("Failed to get certificate extensions\n", errors);
}

TEST_F(KeysAndCertificates, PackageSigningPurposeWithoutGroupExtensionIsReported)
{
    X509Ptr cert = selfSigned("nogroup", {{NID_ext_key_usage, "emailProtection,packageSigning"}});
    std::string errors =
        stderrOf([&] { EXPECT_EQ("<null>", taken(certificate_get_group(cert.get()))); });
    EXPECT_EQ("Failed to get package group from certificate\n", errors);
}

TEST_F(KeysAndCertificates, PackageSigningPurposeCountsAnywhereInTheList)
{
    X509Ptr cert =
        selfSigned("late", {{NID_ext_key_usage, "serverAuth,clientAuth,packageSigning"}});
    addGroupExtension(cert.get(), "client");
    EXPECT_EQ("client", taken(certificate_get_group(cert.get())));
}

// ---------------------------------------------------------------------------
// certificate_get_keyid

TEST_F(KeysAndCertificates, TwentyByteIdentifierGivesFortyLowerCaseCharacters)
{
    X509Ptr cert =
        selfSigned("sha1", {{NID_subject_key_identifier,
                             "A1:B2:C3:D4:E5:F6:07:18:29:3A:4B:5C:6D:7E:8F:90:AB:CD:EF:01"}});
    EXPECT_EQ("a1b2c3d4e5f60718293a4b5c6d7e8f90abcdef01", taken(certificate_get_keyid(cert.get())));
}

TEST_F(KeysAndCertificates, LeadingZeroByteOfIdentifierIsKept)
{
    X509Ptr cert = selfSigned("zero", {{NID_subject_key_identifier, "00:0F:F0:FF"}});
    EXPECT_EQ("000ff0ff", taken(certificate_get_keyid(cert.get())));
}

TEST_F(KeysAndCertificates, IssuedCertificateHasA64CharacterKeyId)
{
    X509Ptr cert = loadCertificate(pki.developer().certPath);
    std::string keyId = taken(certificate_get_keyid(cert.get()));
    EXPECT_EQ(64u, keyId.size());
    EXPECT_EQ(std::string::npos, keyId.find_first_not_of("0123456789abcdef"));
}

TEST_F(KeysAndCertificates, MissingIdentifierIsReported)
{
    X509Ptr cert = selfSigned("anonymous");
    std::string errors =
        stderrOf([&] { EXPECT_EQ("<null>", taken(certificate_get_keyid(cert.get()))); });
    EXPECT_EQ("Failed to extract keyid from certificate\n", errors);
}

// ---------------------------------------------------------------------------
// certificate_verify

TEST_F(KeysAndCertificates, SelfSignedCertificateInTheStoreVerifies)
{
    X509Ptr cert = selfSigned("alone");
    X509StorePtr store(X509_STORE_new());
    ASSERT_EQ(1, X509_STORE_add_cert(store.get(), cert.get()));
    EXPECT_TRUE(certificate_verify(cert.get(), store.get()));
}

TEST_F(KeysAndCertificates, IssuedCertificateVerifiesAgainstItsCa)
{
    X509StorePtr store(certificate_store_read(pki.ca().certPath.c_str()));
    X509Ptr cert = loadCertificate(pki.client().certPath);
    EXPECT_TRUE(certificate_verify(cert.get(), store.get()));
}

TEST_F(KeysAndCertificates, CertificateOfAnotherCaFailsSilently)
{
    Pki other("other CA");
    X509StorePtr store(certificate_store_read(pki.ca().certPath.c_str()));
    X509Ptr foreign = loadCertificate(other.developer().certPath);
    std::string errors =
        stderrOf([&] { EXPECT_FALSE(certificate_verify(foreign.get(), store.get())); });
    EXPECT_EQ("", errors);
}

TEST_F(KeysAndCertificates, SignerAloneInTheStoreDoesNotVerify)
{
    X509Ptr cert = loadCertificate(pki.developer().certPath);
    X509StorePtr store(X509_STORE_new());
    ASSERT_EQ(1, X509_STORE_add_cert(store.get(), cert.get()));
    EXPECT_FALSE(certificate_verify(cert.get(), store.get()));
}

TEST_F(KeysAndCertificates, VerificationWithoutStoreOrCertificateFails)
{
    X509Ptr cert = loadCertificate(pki.developer().certPath);
    X509StorePtr store(certificate_store_read(pki.ca().certPath.c_str()));
    EXPECT_FALSE(certificate_verify(cert.get(), nullptr));
    EXPECT_FALSE(certificate_verify(nullptr, store.get()));
}

}  // namespace
}  // namespace sealkeep::test
