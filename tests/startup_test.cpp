// What loading the library sets up: the private object identifiers, the
// certificate-group extension alias, and the GOST engine as default; and what
// start-up prints when the engine cannot be found.
#include <gtest/gtest.h>

#include <openssl/engine.h>
#include <openssl/objects.h>
#include <openssl/x509v3.h>

#include <sealkeep/sealkeep.h>

#include "support/process.hpp"

namespace {

using sealkeep::test::runCommand;

struct PrivateObject {
    const char* oid;
    const char* shortName;
    const char* longName;
};

const PrivateObject privateObjects[] = {
    {"1.2.999.4.17.1.1.1", "packageSigning", "Package Signing Extended Key Usage"},
    {"1.2.999.4.17.1.2.1", "certificateGroup", "Certificate Group"},
    {"1.2.999.4.17.1.3.1", "packageFileSignatures", "Package File Signatures"},
    {"1.2.999.4.17.1.3.2", "rotationChain", "Key Rotation Chain"},
    {"1.2.999.4.17.1.3.3", "packageTrustletSignatures", "Package Trustlet Signatures"},
};

TEST(Startup, RegistersThePrivateObjectIdentifiers)
{
    for (auto const& object : privateObjects) {
        int nid = OBJ_txt2nid(object.oid);
        ASSERT_NE(NID_undef, nid) << object.oid;
        EXPECT_STREQ(object.shortName, OBJ_nid2sn(nid));
        EXPECT_STREQ(object.longName, OBJ_nid2ln(nid));
        EXPECT_EQ(nid, OBJ_sn2nid(object.shortName));
    }
}

TEST(Startup, CertificateGroupExtensionIsAnIa5StringAliasOfNetscapeComment)
{
    int nid = OBJ_sn2nid("certificateGroup");
    ASSERT_NE(NID_undef, nid);
    ASSERT_NE(nullptr, X509V3_EXT_get_nid(nid));

    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, nullptr, nid, "developer:mdm");
    ASSERT_NE(nullptr, extension);
    EXPECT_FALSE(X509_EXTENSION_get_critical(extension));
    auto* decoded = static_cast<ASN1_IA5STRING*>(X509V3_EXT_d2i(extension));
    ASSERT_NE(nullptr, decoded);
    EXPECT_EQ(V_ASN1_IA5STRING, ASN1_STRING_type(decoded));
    EXPECT_EQ("developer:mdm",
              std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(decoded)),
                          static_cast<size_t>(ASN1_STRING_length(decoded))));
    ASN1_IA5STRING_free(decoded);
    X509_EXTENSION_free(extension);
}

TEST(Startup, GostEngineIsTheDefaultForGostAlgorithms)
{
    ENGINE* digestEngine = ENGINE_get_digest_engine(982);
    ASSERT_NE(nullptr, digestEngine);
    EXPECT_STREQ("gost", ENGINE_get_id(digestEngine));
    ENGINE_finish(digestEngine);

    ENGINE* keyEngine = ENGINE_get_pkey_meth_engine(979);
    ASSERT_NE(nullptr, keyEngine);
    EXPECT_STREQ("gost", ENGINE_get_id(keyEngine));
    ENGINE_finish(keyEngine);

    EXPECT_NE(nullptr, EVP_get_digestbyname(OBJ_nid2sn(982)));
}

TEST(Startup, LoadingPrintsNothingWhenTheEngineIsThere)
{
    auto result = runCommand({SEALKEEP_PROBE});
    EXPECT_EQ(0, result.exitCode);
    EXPECT_EQ("usable\n", result.output);
    EXPECT_EQ("", result.errors);
}

TEST(Startup, WithoutTheGostEngineLoadingPrintsOneLineAndTheLibraryStaysUsable)
{
    auto result = runCommand({SEALKEEP_PROBE}, {"OPENSSL_ENGINES=/nonexistent/engines"});
    EXPECT_EQ(0, result.exitCode);
    EXPECT_EQ("usable\n", result.output);
    EXPECT_EQ("The 'gost' engine isn't available\n", result.errors);
}

}  // namespace
