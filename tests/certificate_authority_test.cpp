// Issuing CA and signer certificates: their fields and extensions, serial
// numbers and key identifiers, every failure path with its messages, and
// acceptance by the openssl command-line tool.
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <signal.h>
#include <sys/resource.h>

#include <sealkeep/sealkeep.h>

#include "support/files.hpp"
#include "support/pki.hpp"
#include "support/process.hpp"
#include "support/stderr_capture.hpp"

namespace sealkeep::test {
namespace {

constexpr long validitySeconds = 756864000;

std::string taken(char* text)
{
    MallocPtr owned(text);
    return owned ? std::string(owned.get()) : std::string("<null>");
}

std::vector<int> extensionNids(X509* cert)
{
    std::vector<int> nids;
    for (int i = 0; i < X509_get_ext_count(cert); ++i)
        nids.push_back(OBJ_obj2nid(X509_EXTENSION_get_object(X509_get_ext(cert, i))));
    return nids;
}

std::vector<int> extensionCriticality(X509* cert)
{
    std::vector<int> flags;
    for (int i = 0; i < X509_get_ext_count(cert); ++i)
        flags.push_back(X509_EXTENSION_get_critical(X509_get_ext(cert, i)));
    return flags;
}

std::string commonNameOf(X509_NAME* name)
{
    char buffer[512] = {};
    X509_NAME_get_text_by_NID(name, NID_commonName, buffer, sizeof buffer);
    return buffer;
}

std::vector<unsigned char> serialBytes(X509* cert)
{
    BnPtr number(ASN1_INTEGER_to_BN(X509_get0_serialNumber(cert), nullptr));
    std::vector<unsigned char> bytes(20);
    EXPECT_FALSE(BN_is_negative(number.get()));
    EXPECT_LE(BN_num_bits(number.get()), 159);
    EXPECT_EQ(20, BN_bn2binpad(number.get(), bytes.data(), 20));
    return bytes;
}

std::uint64_t nanosecondsNow()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000000u +
           static_cast<std::uint64_t>(now.tv_nsec);
}

// The issue time stored little-endian in the last 8 serial bytes.
std::uint64_t issueTimeOf(std::vector<unsigned char> const& serial)
{
    std::uint64_t time = 0;
    for (int i = 19; i >= 12; --i)
        time = (time << 8) | serial[static_cast<std::size_t>(i)];
    return time;
}

std::vector<std::string> purposesOf(X509* cert)
{
    EkuPtr usage(static_cast<EXTENDED_KEY_USAGE*>(
        X509_get_ext_d2i(cert, NID_ext_key_usage, nullptr, nullptr)));
    std::vector<std::string> names;
    for (int i = 0; usage && i < sk_ASN1_OBJECT_num(usage.get()); ++i)
        names.push_back(OBJ_nid2sn(OBJ_obj2nid(sk_ASN1_OBJECT_value(usage.get(), i))));
    return names;
}

std::string hexOf(std::vector<unsigned char> const& bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (unsigned char byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 0x0F];
    }
    return text;
}

CommandResult runOpenssl(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), "openssl");
    return runCommand(arguments);
}

class CertificateAuthority : public testing::Test {
protected:
    Pki pki;
    std::string file(std::string const& name) const { return pki.dir().file(name); }

    std::string newRequest(std::string const& name)
    {
        std::string keyPath = generateKey(file(name + ".key"));
        std::string csrPath = file(name + ".csr");
        writeRequest(keyPath, csrPath, name);
        return csrPath;
    }

    int issue(std::string const& out, std::string const& csr, const char* group = "developer")
    {
        return make_certificate(out.c_str(), csr.c_str(), pki.ca().keyPath.c_str(),
                                pki.ca().certPath.c_str(), group);
    }

    // make_certificate with the given messages expected and no output file.
    void expectRefused(std::string const& csr, std::string const& caKey, std::string const& caCert,
                       std::string const& expectedErrors, const char* group = "developer")
    {
        std::string out = file("refused.pem");
        std::string errors = stderrOf([&] {
            EXPECT_EQ(-1, make_certificate(out.c_str(), csr.c_str(), caKey.c_str(), caCert.c_str(),
                                           group));
        });
        EXPECT_EQ(expectedErrors, errors);
        EXPECT_FALSE(fileExists(out));
    }
};

// ---------------------------------------------------------------------------
// The CA certificate

TEST_F(CertificateAuthority, CaCertificateFields)
{
    X509Ptr ca = loadCertificate(pki.ca().certPath);
    EXPECT_EQ(2, X509_get_version(ca.get()));
    EXPECT_EQ("sealkeep test CA", commonNameOf(X509_get_subject_name(ca.get())));
    EXPECT_EQ(0, X509_NAME_cmp(X509_get_subject_name(ca.get()), X509_get_issuer_name(ca.get())));
    EXPECT_EQ(1, X509_NAME_entry_count(X509_get_subject_name(ca.get())));
    EXPECT_EQ(V_ASN1_UTF8STRING, ASN1_STRING_type(X509_NAME_ENTRY_get_data(
                                     X509_NAME_get_entry(X509_get_subject_name(ca.get()), 0))));

    PkeyPtr key = loadKey(pki.ca().keyPath);
    EXPECT_EQ(1, X509_verify(ca.get(), key.get()));
    EXPECT_EQ(1, EVP_PKEY_eq(key.get(), X509_get0_pubkey(ca.get())));
    EXPECT_EQ(OBJ_txt2nid("1.2.643.7.1.1.3.2"), X509_get_signature_nid(ca.get()));
}

TEST_F(CertificateAuthority, CaCertificateExtensionsInOrder)
{
    X509Ptr ca = loadCertificate(pki.ca().certPath);
    EXPECT_EQ((std::vector<int>{NID_basic_constraints, NID_key_usage, NID_subject_key_identifier}),
              extensionNids(ca.get()));
    EXPECT_EQ((std::vector<int>{1, 1, 0}), extensionCriticality(ca.get()));

    BASIC_CONSTRAINTS* constraints = static_cast<BASIC_CONSTRAINTS*>(
        X509_get_ext_d2i(ca.get(), NID_basic_constraints, nullptr, nullptr));
    ASSERT_NE(constraints, nullptr);
    EXPECT_TRUE(constraints->ca);
    EXPECT_EQ(nullptr, constraints->pathlen);
    BASIC_CONSTRAINTS_free(constraints);

    EXPECT_EQ(static_cast<uint32_t>(KU_KEY_CERT_SIGN | KU_CRL_SIGN), X509_get_key_usage(ca.get()));
}

TEST_F(CertificateAuthority, ValidityIs8760DaysFromNow)
{
    X509Ptr ca = loadCertificate(pki.ca().certPath);
    int days = 0, seconds = 0;
    ASSERT_EQ(1, ASN1_TIME_diff(&days, &seconds, X509_get0_notBefore(ca.get()),
                                X509_get0_notAfter(ca.get())));
    EXPECT_EQ(8760, days);
    EXPECT_EQ(0, seconds);
    EXPECT_EQ(validitySeconds, 8760L * 24 * 3600);
    ASSERT_EQ(1, ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notBefore(ca.get())));
    EXPECT_EQ(0, days);
    EXPECT_LE(seconds, 0);
    EXPECT_GT(seconds, -120);
}

TEST_F(CertificateAuthority, CaKeyIdIsTheDigestOfItsPublicKey)
{
    X509Ptr ca = loadCertificate(pki.ca().certPath);
    std::string keyId = taken(certificate_get_keyid(ca.get()));
    int length = i2d_PUBKEY(X509_get0_pubkey(ca.get()), nullptr);
    ASSERT_GT(length, 0);
    std::vector<unsigned char> der(static_cast<std::size_t>(length));
    unsigned char* cursor = der.data();
    i2d_PUBKEY(X509_get0_pubkey(ca.get()), &cursor);
    std::vector<unsigned char> digest(32);
    unsigned int digestLength = 0;
    ASSERT_EQ(1, EVP_Digest(der.data(), der.size(), digest.data(), &digestLength,
                            EVP_get_digestbyname("md_gost12_256"), nullptr));
    EXPECT_EQ(32u, digestLength);
    EXPECT_EQ(hexOf(digest), keyId);
}

TEST_F(CertificateAuthority, CaCertificateOfA512BitKey)
{
    std::string key = generateKey(file("big.key"), 512, "A");
    std::string out = file("big.pem");
    ASSERT_EQ(0, make_ca_certificate(out.c_str(), key.c_str(), "big CA"));
    X509Ptr ca = loadCertificate(out);
    EXPECT_EQ(OBJ_txt2nid("1.2.643.7.1.1.3.3"), X509_get_signature_nid(ca.get()));
    EXPECT_EQ(64u, taken(certificate_get_keyid(ca.get())).size());
}

// ---------------------------------------------------------------------------
// Serial numbers

TEST_F(CertificateAuthority, SerialsDifferArePositiveAndEndWithTheIssueTime)
{
    std::string first = file("first.pem"), second = file("second.pem");
    std::uint64_t before = nanosecondsNow();
    ASSERT_EQ(0, make_ca_certificate(first.c_str(), pki.ca().keyPath.c_str(), "first"));
    ASSERT_EQ(0, make_ca_certificate(second.c_str(), pki.ca().keyPath.c_str(), "second"));
    std::uint64_t after = nanosecondsNow();

    X509Ptr a = loadCertificate(first), b = loadCertificate(second);
    std::vector<unsigned char> serialA = serialBytes(a.get()), serialB = serialBytes(b.get());
    EXPECT_NE(serialA, serialB);
    EXPECT_NE(std::vector<unsigned char>(serialA.begin(), serialA.begin() + 12),
              std::vector<unsigned char>(serialB.begin(), serialB.begin() + 12));
    for (auto const* serial : {&serialA, &serialB}) {
        EXPECT_EQ(0, (*serial)[0] & 0x80);
        EXPECT_GE(issueTimeOf(*serial), before);
        EXPECT_LE(issueTimeOf(*serial), after);
    }
    EXPECT_LT(issueTimeOf(serialA), issueTimeOf(serialB));
}

TEST_F(CertificateAuthority, SignerSerialsDifferToo)
{
    std::string csr = newRequest("twice");
    ASSERT_EQ(0, issue(file("one.pem"), csr));
    ASSERT_EQ(0, issue(file("two.pem"), csr));
    X509Ptr one = loadCertificate(file("one.pem")), two = loadCertificate(file("two.pem"));
    EXPECT_NE(
        0, ASN1_INTEGER_cmp(X509_get0_serialNumber(one.get()), X509_get0_serialNumber(two.get())));
    EXPECT_FALSE(serialBytes(one.get()).empty());
}

// ---------------------------------------------------------------------------
// Signer certificates

TEST_F(CertificateAuthority, SignerCertificateExtensionsInOrder)
{
    Identity signer = pki.issue("antivirus", "developer:antivirus");
    X509Ptr cert = loadCertificate(signer.certPath);
    EXPECT_EQ(
        (std::vector<int>{NID_key_usage, NID_subject_key_identifier, NID_authority_key_identifier,
                          NID_ext_key_usage, certificateGroupNid()}),
        extensionNids(cert.get()));
    EXPECT_EQ((std::vector<int>{1, 0, 0, 1, 0}), extensionCriticality(cert.get()));
    EXPECT_EQ(static_cast<uint32_t>(KU_DIGITAL_SIGNATURE), X509_get_key_usage(cert.get()));
    EXPECT_EQ((std::vector<std::string>{"emailProtection", "packageSigning"}),
              purposesOf(cert.get()));
    EXPECT_EQ("developer:antivirus", taken(certificate_get_group(cert.get())));
}

TEST_F(CertificateAuthority, SignerCertificateNamesKeysAndSignature)
{
    X509Ptr cert = loadCertificate(pki.developer().certPath);
    X509Ptr ca = loadCertificate(pki.ca().certPath);
    EXPECT_EQ(2, X509_get_version(cert.get()));
    EXPECT_EQ("developer", commonNameOf(X509_get_subject_name(cert.get())));
    EXPECT_EQ(0, X509_NAME_cmp(X509_get_subject_name(ca.get()), X509_get_issuer_name(cert.get())));
    EXPECT_EQ(1, X509_verify(cert.get(), X509_get0_pubkey(ca.get())));
    PkeyPtr key = loadKey(pki.developer().keyPath);
    EXPECT_EQ(1, EVP_PKEY_eq(key.get(), X509_get0_pubkey(cert.get())));

    const ASN1_OCTET_STRING* caKeyId = X509_get0_subject_key_id(ca.get());
    const ASN1_OCTET_STRING* authorityKeyId = X509_get0_authority_key_id(cert.get());
    ASSERT_NE(caKeyId, nullptr);
    ASSERT_NE(authorityKeyId, nullptr);
    EXPECT_EQ(0, ASN1_OCTET_STRING_cmp(caKeyId, authorityKeyId));

    int days = 0, seconds = 0;
    ASSERT_EQ(1, ASN1_TIME_diff(&days, &seconds, X509_get0_notBefore(cert.get()),
                                X509_get0_notAfter(cert.get())));
    EXPECT_EQ(8760, days);
    EXPECT_EQ(0, seconds);
}

TEST_F(CertificateAuthority, SignerKeyIdIsTheDigestOfTheRequestKey)
{
    X509Ptr cert = loadCertificate(pki.developer().certPath);
    CommandResult digest = runShell("openssl pkey -engine gost -in '" + pki.developer().keyPath +
                                    "' -pubout -outform DER 2>/dev/null"
                                    " | openssl dgst -engine gost -md_gost12_256 -r 2>/dev/null");
    ASSERT_EQ(0, digest.exitCode) << digest.errors;
    ASSERT_GE(digest.output.size(), 64u);
    EXPECT_EQ(digest.output.substr(0, 64), taken(certificate_get_keyid(cert.get())));
}

TEST_F(CertificateAuthority, SubjectIsCopiedFromTheRequestButItsExtensionsAreNot)
{
    std::string keyPath = generateKey(file("rich.key"));
    PkeyPtr key = loadKey(keyPath);
    X509ReqPtr request(X509_REQ_new());
    X509_NAME* name = X509_REQ_get_subject_name(request.get());
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>("Example"), -1, -1, 0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>("rich"), -1, -1, 0);
    X509_REQ_set_pubkey(request.get(), key.get());
    STACK_OF(X509_EXTENSION)* wanted = sk_X509_EXTENSION_new_null();
    X509V3_CTX context{};
    X509V3_set_ctx(&context, nullptr, nullptr, request.get(), nullptr, 0);
    sk_X509_EXTENSION_push(
        wanted, X509V3_EXT_conf_nid(nullptr, &context, NID_basic_constraints, "critical,CA:TRUE"));
    X509_REQ_add_extensions(request.get(), wanted);
    sk_X509_EXTENSION_pop_free(wanted, X509_EXTENSION_free);
    ASSERT_GT(X509_REQ_sign(request.get(), key.get(), EVP_get_digestbyname("md_gost12_256")), 0);
    std::string csr = file("rich.csr");
    {
        FilePtr out(fopen(csr.c_str(), "wb"));
        ASSERT_EQ(1, PEM_write_X509_REQ(out.get(), request.get()));
    }

    ASSERT_EQ(0, issue(file("rich.pem"), csr));
    X509Ptr cert = loadCertificate(file("rich.pem"));
    EXPECT_EQ(0, X509_NAME_cmp(name, X509_get_subject_name(cert.get())));
    EXPECT_EQ(-1, X509_get_ext_by_NID(cert.get(), NID_basic_constraints, -1));
}

TEST_F(CertificateAuthority, WithoutGroupTextThereIsNoGroupAndNoPackageSigning)
{
    Identity plain = pki.issue("plain", nullptr);
    X509Ptr cert = loadCertificate(plain.certPath);
    EXPECT_EQ((std::vector<int>{NID_key_usage, NID_subject_key_identifier,
                                NID_authority_key_identifier, NID_ext_key_usage}),
              extensionNids(cert.get()));
    EXPECT_EQ((std::vector<std::string>{"emailProtection"}), purposesOf(cert.get()));
    std::string errors =
        stderrOf([&] { EXPECT_EQ("<null>", taken(certificate_get_group(cert.get()))); });
    EXPECT_EQ("Package signing not allowed (there is no corresponding extended key usage)\n",
              errors);
}

TEST_F(CertificateAuthority, GroupTextIsStoredUnvalidated)
{
    Identity odd = pki.issue("odd", "nonsense:whatever");
    X509Ptr cert = loadCertificate(odd.certPath);
    EXPECT_EQ("nonsense:whatever", taken(certificate_get_group(cert.get())));
}

TEST_F(CertificateAuthority, GroupTextThatWouldBeReadAsADirectiveIsRefused)
{
    std::string csr = newRequest("directive");
    for (const char* group : {"critical,developer", "DER:0500", "ASN1:NULL"}) {
        expectRefused(csr, pki.ca().keyPath, pki.ca().certPath,
                      "Could not allocate new X509 extension\nCertificate issuing failed\n", group);
    }
}

// ---------------------------------------------------------------------------
// make_ca_certificate failures

TEST_F(CertificateAuthority, CommonNameOf256BytesIsTooLong)
{
    std::string out = file("long.pem");
    std::string name(256, 'n');
    std::string errors = stderrOf([&] {
        EXPECT_EQ(-1, make_ca_certificate(out.c_str(), pki.ca().keyPath.c_str(), name.c_str()));
    });
    EXPECT_EQ("Common name is too long (max len is 255, got 256)\nCA certificate issuing failed\n",
              errors);
    EXPECT_TRUE(fileExists(out));
    EXPECT_EQ(0, fileSize(out));
}

TEST_F(CertificateAuthority, CommonNameOf255BytesIsAccepted)
{
    std::string out = file("longest.pem");
    std::string name(255, 'n');
    ASSERT_EQ(0, make_ca_certificate(out.c_str(), pki.ca().keyPath.c_str(), name.c_str()));
    X509Ptr ca = loadCertificate(out);
    EXPECT_EQ(name, taken(certificate_get_subject(ca.get())));
}

TEST_F(CertificateAuthority, CommonNameIsStoredAsUtf8)
{
    std::string out = file("utf8.pem");
    const char* name = "\xD0\xA3\xD0\xA6 \xE2\x9C\x93";  // "УЦ ✓"
    ASSERT_EQ(0, make_ca_certificate(out.c_str(), pki.ca().keyPath.c_str(), name));
    X509Ptr ca = loadCertificate(out);
    EXPECT_EQ(name, taken(certificate_get_subject(ca.get())));
}

TEST_F(CertificateAuthority, CommonNameThatIsNotUtf8OrEmptyIsRefused)
{
    for (const char* name : {"\xFF\xFE", ""}) {
        std::string out = file("bad-name.pem");
        std::string errors = stderrOf([&] {
            EXPECT_EQ(-1, make_ca_certificate(out.c_str(), pki.ca().keyPath.c_str(), name));
        });
        EXPECT_EQ("CA certificate issuing failed\n", errors);
    }
}

TEST_F(CertificateAuthority, MissingCaKeyFileCreatesNoOutput)
{
    std::string out = file("ca2.pem");
    std::string errors = stderrOf(
        [&] { EXPECT_EQ(-1, make_ca_certificate(out.c_str(), file("absent.key").c_str(), "x")); });
    EXPECT_EQ("No such file or directory\n", errors);
    EXPECT_FALSE(fileExists(out));
}

TEST_F(CertificateAuthority, UnwritableCaOutputIsReported)
{
    std::string errors = stderrOf([&] {
        EXPECT_EQ(-1, make_ca_certificate(file("no/such/dir.pem").c_str(), pki.ca().keyPath.c_str(),
                                          "x"));
    });
    EXPECT_EQ("No such file or directory\n", errors);
}

TEST_F(CertificateAuthority, UnreadableCaKeyLeavesAnEmptyOutputFile)
{
    std::string key = file("garbage.key");
    writeText(key, "garbage\n");
    std::string out = file("ca2.pem");
    std::string errors =
        stderrOf([&] { EXPECT_EQ(-1, make_ca_certificate(out.c_str(), key.c_str(), "x")); });
    EXPECT_EQ("Could not read private key (wrong passphrase?)\n", errors);
    EXPECT_TRUE(fileExists(out));
    EXPECT_EQ(0, fileSize(out));
}

TEST_F(CertificateAuthority, ExistingCaOutputIsTruncatedEvenOnFailure)
{
    std::string out = file("previous.pem");
    writeText(out, "previous contents\n");
    std::string errors = stderrOf([&] {
        EXPECT_EQ(-1, make_ca_certificate(out.c_str(), pki.ca().keyPath.c_str(),
                                          std::string(300, 'x').c_str()));
    });
    EXPECT_EQ("Common name is too long (max len is 255, got 300)\nCA certificate issuing failed\n",
              errors);
    EXPECT_EQ(0, fileSize(out));
}

TEST_F(CertificateAuthority, NullArgumentsAreRefused)
{
    std::string out = file("null.pem");
    std::string errors = stderrOf([&] {
        EXPECT_EQ(-1, make_ca_certificate(out.c_str(), pki.ca().keyPath.c_str(), nullptr));
        EXPECT_EQ(-1, make_ca_certificate(out.c_str(), nullptr, "x"));
        EXPECT_EQ(-1, make_certificate(out.c_str(), nullptr, pki.ca().keyPath.c_str(),
                                       pki.ca().certPath.c_str(), nullptr));
    });
    EXPECT_EQ(
        "CA certificate issuing failed\nInvalid argument\n"
        "Could not open CSR file: Invalid argument\n",
        errors);
}

// A child process whose files may not grow beyond a few bytes, so that
// writing the certificate fails.
ChildResult runWithTinyFileLimit(std::function<int()> const& body)
{
    return runInChild(
        [&] {
            signal(SIGXFSZ, SIG_IGN);
            rlimit limit{16, 16};
            setrlimit(RLIMIT_FSIZE, &limit);
            return body() == -1 ? 0 : 1;
        },
        60000);
}

TEST_F(CertificateAuthority, FailedCaWriteKeepsTheOutputFile)
{
    std::string out = file("partial-ca.pem");
    ChildResult child = runWithTinyFileLimit(
        [&] { return make_ca_certificate(out.c_str(), pki.ca().keyPath.c_str(), "x"); });
    EXPECT_EQ(0, child.exitCode);
    EXPECT_EQ("Could not save certificate\n", child.errors);
    EXPECT_TRUE(fileExists(out));
}

// ---------------------------------------------------------------------------
// make_certificate failures

TEST_F(CertificateAuthority, MissingInputFilesAreReportedInOrder)
{
    std::string csr = newRequest("someone");
    std::string absent = file("absent");
    expectRefused(absent, absent, absent, "Could not open CSR file: No such file or directory\n");
    expectRefused(csr, absent, absent, "Could not open key file: No such file or directory\n");
    expectRefused(csr, pki.ca().keyPath, absent,
                  "Could not open CA certificate file: No such file or directory\n");
}

TEST_F(CertificateAuthority, UnreadableInputsAreReportedInOrder)
{
    std::string csr = newRequest("someone");
    std::string garbage = file("garbage");
    writeText(garbage, "garbage\n");
    expectRefused(garbage, garbage, garbage, "Could not read private key (wrong passphrase?)\n");
    expectRefused(garbage, pki.ca().keyPath, garbage, "Could not parse CSR from PEM\n");
    expectRefused(csr, pki.ca().keyPath, garbage, "Could not read PEM CA certificate\n");
}

TEST_F(CertificateAuthority, RequestSignedByAnotherKeyIsRefused)
{
    PkeyPtr claimed = loadKey(generateKey(file("claimed.key")));
    PkeyPtr signer = loadKey(generateKey(file("signer.key")));
    X509ReqPtr request(X509_REQ_new());
    X509_NAME_add_entry_by_txt(X509_REQ_get_subject_name(request.get()), "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>("forged"), -1, -1, 0);
    X509_REQ_set_pubkey(request.get(), claimed.get());
    ASSERT_GT(X509_REQ_sign(request.get(), signer.get(), EVP_get_digestbyname("md_gost12_256")), 0);
    std::string csr = file("forged.csr");
    {
        FilePtr out(fopen(csr.c_str(), "wb"));
        ASSERT_EQ(1, PEM_write_X509_REQ(out.get(), request.get()));
    }
    expectRefused(csr, pki.ca().keyPath, pki.ca().certPath, "CSR signature verification failed\n");
}

// Makes the key an algorithm no one knows, so that it cannot be decoded.
void makeKeyUndecodable(X509_PUBKEY* key)
{
    unsigned char* bits = static_cast<unsigned char*>(OPENSSL_malloc(4));
    memset(bits, 0x5A, 4);
    ASSERT_EQ(
        1, X509_PUBKEY_set0_param(key, OBJ_txt2obj("1.2.3.4.5", 1), V_ASN1_NULL, nullptr, bits, 4));
}

TEST_F(CertificateAuthority, RequestWithUndecodableKeyIsInvalid)
{
    PkeyPtr key = loadKey(generateKey(file("odd.key")));
    X509ReqPtr request(X509_REQ_new());
    X509_REQ_set_pubkey(request.get(), key.get());
    makeKeyUndecodable(X509_REQ_get_X509_PUBKEY(request.get()));
    ASSERT_GT(X509_REQ_sign(request.get(), key.get(), EVP_get_digestbyname("md_gost12_256")), 0);
    std::string csr = file("odd.csr");
    {
        FilePtr out(fopen(csr.c_str(), "wb"));
        ASSERT_EQ(1, PEM_write_X509_REQ(out.get(), request.get()));
    }
    expectRefused(csr, pki.ca().keyPath, pki.ca().certPath, "CSR is invalid\n");
}

TEST_F(CertificateAuthority, CaCertificateWithUndecodableKeyIsInvalid)
{
    PkeyPtr key = loadKey(pki.ca().keyPath);
    X509Ptr ca = loadCertificate(pki.ca().certPath);
    makeKeyUndecodable(X509_get_X509_PUBKEY(ca.get()));
    signCertificate(ca.get(), key.get());
    std::string odd = file("odd-ca.pem");
    saveCertificate(ca.get(), odd);
    expectRefused(newRequest("someone"), pki.ca().keyPath, odd, "CA certificate is invalid\n");
}

TEST_F(CertificateAuthority, TamperedCaCertificateIsRefused)
{
    X509Ptr ca = loadCertificate(pki.ca().certPath);
    // Re-signing with another key keeps the certificate well-formed but breaks
    // its self-signature.
    PkeyPtr intruder = loadKey(generateKey(file("intruder.key")));
    signCertificate(ca.get(), intruder.get());
    std::string tampered = file("tampered-ca.pem");
    saveCertificate(ca.get(), tampered);
    expectRefused(newRequest("someone"), pki.ca().keyPath, tampered,
                  "CA certificate signature verification failed\n");
}

TEST_F(CertificateAuthority, CaWithoutSubjectKeyIdentifierCannotIssue)
{
    PkeyPtr key = loadKey(pki.ca().keyPath);
    X509Ptr bare = makeBareCertificate(key.get(), "bare CA");
    addExtension(bare.get(), NID_basic_constraints, "critical,CA:TRUE");
    signCertificate(bare.get(), key.get());
    std::string bareCa = file("bare-ca.pem");
    saveCertificate(bare.get(), bareCa);
    expectRefused(newRequest("someone"), pki.ca().keyPath, bareCa,
                  "Could not allocate new X509 extension\nCertificate issuing failed\n");
}

TEST_F(CertificateAuthority, UnwritableSignerOutputIsReported)
{
    std::string csr = newRequest("someone");
    std::string errors = stderrOf([&] { EXPECT_EQ(-1, issue(file("no/such/dir.pem"), csr)); });
    EXPECT_EQ("Could not open resulting certificate file: No such file or directory\n", errors);
}

TEST_F(CertificateAuthority, FailedSignerWriteRemovesTheOutputFile)
{
    std::string csr = newRequest("someone");
    std::string out = file("partial.pem");
    ChildResult child = runWithTinyFileLimit([&] { return issue(out, csr); });
    EXPECT_EQ(0, child.exitCode);
    EXPECT_EQ("Could not save resulting certificate file\n", child.errors);
    EXPECT_FALSE(fileExists(out));
}

// ---------------------------------------------------------------------------
// The openssl command-line tool

TEST_F(CertificateAuthority, OpensslVerifiesTheIssuedChain)
{
    CommandResult result = runOpenssl(
        {"verify", "-engine", "gost", "-CAfile", pki.ca().certPath, pki.developer().certPath});
    EXPECT_EQ(0, result.exitCode) << result.output << result.errors;
    EXPECT_NE(std::string::npos, result.output.find(": OK"));
}

TEST_F(CertificateAuthority, OpensslVerifiesAChainFromA512BitCa)
{
    std::string caKey = generateKey(file("big.key"), 512, "A");
    std::string caCert = file("big.pem");
    ASSERT_EQ(0, make_ca_certificate(caCert.c_str(), caKey.c_str(), "big CA"));
    std::string out = file("small.pem");
    ASSERT_EQ(0, make_certificate(out.c_str(), newRequest("small").c_str(), caKey.c_str(),
                                  caCert.c_str(), "client"));
    CommandResult result = runOpenssl({"verify", "-engine", "gost", "-CAfile", caCert, out});
    EXPECT_EQ(0, result.exitCode) << result.output << result.errors;
}

TEST_F(CertificateAuthority, OpensslShowsGroupTextAnd32ByteKeyIdentifier)
{
    Identity signer = pki.issue("mdm", "developer:mdm");
    CommandResult result =
        runOpenssl({"x509", "-engine", "gost", "-text", "-noout", "-in", signer.certPath});
    ASSERT_EQ(0, result.exitCode) << result.errors;
    EXPECT_NE(std::string::npos, result.output.find("developer:mdm"));

    X509Ptr cert = loadCertificate(signer.certPath);
    std::string keyId = taken(certificate_get_keyid(cert.get()));
    std::string colonSeparated;
    for (std::size_t i = 0; i < keyId.size(); i += 2) {
        colonSeparated += (i ? ":" : "");
        for (char c : keyId.substr(i, 2))
            colonSeparated += static_cast<char>(toupper(c));
    }
    EXPECT_EQ(32u * 3 - 1, colonSeparated.size());
    std::size_t heading = result.output.find("X509v3 Subject Key Identifier:");
    ASSERT_NE(std::string::npos, heading);
    EXPECT_NE(std::string::npos, result.output.find(colonSeparated, heading));
}

TEST_F(CertificateAuthority, AcceptsKeyAndRequestMadeByOpenssl)
{
    std::string key = file("tool.key"), csr = file("tool.csr"), out = file("tool.pem");
    CommandResult made = runOpenssl({"genpkey", "-engine", "gost", "-algorithm", "gost2012_256",
                                     "-pkeyopt", "paramset:A", "-out", key});
    ASSERT_EQ(0, made.exitCode) << made.errors;
    made =
        runOpenssl({"req", "-engine", "gost", "-new", "-key", key, "-subj", "/CN=x", "-out", csr});
    ASSERT_EQ(0, made.exitCode) << made.errors;

    ASSERT_EQ(0, issue(out, csr, "seclab"));
    X509Ptr cert = loadCertificate(out);
    EXPECT_EQ("x", taken(certificate_get_subject(cert.get())));
    EXPECT_EQ("seclab", taken(certificate_get_group(cert.get())));
    CommandResult verified =
        runOpenssl({"verify", "-engine", "gost", "-CAfile", pki.ca().certPath, out});
    EXPECT_EQ(0, verified.exitCode) << verified.output << verified.errors;
}

TEST_F(CertificateAuthority, IssuesForAKeyMadeByOpensslAsCaKey)
{
    std::string key = file("toolca.key"), out = file("toolca.pem");
    CommandResult made = runOpenssl({"genpkey", "-engine", "gost", "-algorithm", "gost2012_256",
                                     "-pkeyopt", "paramset:TCA", "-out", key});
    ASSERT_EQ(0, made.exitCode) << made.errors;
    ASSERT_EQ(0, make_ca_certificate(out.c_str(), key.c_str(), "tool CA"));
    CommandResult verified = runOpenssl({"verify", "-engine", "gost", "-CAfile", out, out});
    EXPECT_EQ(0, verified.exitCode) << verified.output << verified.errors;
}

}  // namespace
}  // namespace sealkeep::test

namespace sealkeep::test {
namespace {

// ---------------------------------------------------------------------------
// Issuing with a key the caller holds

TEST_F(CertificateAuthority, WithAKeyHeldByTheCallerTheSameCertificatesAreIssued)
{
    PkeyPtr caKey = loadKey(pki.ca().keyPath);
    std::string ca = file("held-ca.pem");
    ASSERT_EQ(0, make_ca_certificate_with_key(ca.c_str(), caKey.get(), "held CA"));
    X509Ptr caCert = loadCertificate(ca);
    EXPECT_EQ("held CA", commonNameOf(X509_get_subject_name(caCert.get())));
    EXPECT_EQ(1, X509_check_private_key(caCert.get(), caKey.get()));
    EXPECT_EQ(1, X509_verify(caCert.get(), caKey.get()));

    std::string key = generateKey(file("held-signer.key"));
    writeRequest(key, file("held-signer.csr"), "held signer");
    std::string out = file("held-signer.pem");
    ASSERT_EQ(0, make_certificate_with_key(out.c_str(), file("held-signer.csr").c_str(), caKey.get(), ca.c_str(),
                                           "developer:mdm"));
    X509Ptr cert = loadCertificate(out);
    EXPECT_EQ(1, X509_verify(cert.get(), X509_get0_pubkey(caCert.get())));
    EXPECT_EQ("developer:mdm", taken(certificate_get_group(cert.get())));
    // The key stays the caller's and usable.
    EXPECT_EQ(1, X509_check_private_key(caCert.get(), caKey.get()));
}

TEST_F(CertificateAuthority, WithoutAKeyNothingIsIssued)
{
    std::string ca = file("keyless-ca.pem");
    std::string errors = stderrOf([&] { EXPECT_EQ(-1, make_ca_certificate_with_key(ca.c_str(), nullptr, "none")); });
    EXPECT_EQ("Could not read private key (wrong passphrase?)\n", errors);

    std::string key = generateKey(file("keyless-signer.key"));
    writeRequest(key, file("keyless-signer.csr"), "keyless signer");
    std::string out = file("keyless-signer.pem");
    errors = stderrOf([&] {
        EXPECT_EQ(-1, make_certificate_with_key(out.c_str(), file("keyless-signer.csr").c_str(), nullptr,
                                                pki.ca().certPath.c_str(), "developer"));
    });
    EXPECT_EQ("Could not read private key (wrong passphrase?)\n", errors);
    EXPECT_FALSE(fileExists(out));
}

}  // namespace
}  // namespace sealkeep::test
