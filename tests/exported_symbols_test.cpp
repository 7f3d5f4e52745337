// What the shared library exports: its SONAME, every function of the flat
// interface unmangled, the PackageSignatures classes, and nothing else.
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>

#include "support/process.hpp"

namespace {

using sealkeep::test::runCommand;

const std::set<std::string> flatInterface = {
    "FileSignature_free", "FileSignature_index", "FileSignature_it", "FileSignature_new", "FileSignature_value",
    "FileSignatures_count", "FileSignatures_free", "FileSignatures_get0_at", "FileSignatures_it",
    "FileSignatures_new", "PEM_read_ProofOfRotationChain", "PEM_read_bio_ProofOfRotationChain",
    "PEM_write_ProofOfRotationChain", "PEM_write_bio_ProofOfRotationChain", "ProofOfRotationChain_count",
    "ProofOfRotationChain_free", "ProofOfRotationChain_get0_at", "ProofOfRotationChain_it",
    "ProofOfRotationChain_read", "ProofOfRotationChain_verify", "ProofOfRotationSignedAttrs_free",
    "ProofOfRotationSignedAttrs_it", "ProofOfRotationSignedAttrs_new", "ProofOfRotation_create",
    "ProofOfRotation_free", "ProofOfRotation_get0_new_cert", "ProofOfRotation_get0_old_cert", "ProofOfRotation_it",
    "ProofOfRotation_new", "ProofOfRotation_verify", "certificate_get_group", "certificate_get_keyid",
    "certificate_get_subject", "certificate_read", "certificate_store_read", "certificate_verify", "cms_from_der",
    "cms_get_certificate", "cms_get_file_signatures", "cms_get_rotation_chain", "cms_get_signature", "cms_sign",
    "cms_sign_digest",
    "cms_verify", "d2i_FileSignature", "d2i_FileSignatures", "d2i_ProofOfRotation", "d2i_ProofOfRotationChain",
    "d2i_ProofOfRotationSignedAttrs", "i2d_FileSignature", "i2d_FileSignatures", "i2d_ProofOfRotation",
    "i2d_ProofOfRotationChain", "i2d_ProofOfRotationSignedAttrs", "make_ca_certificate", "make_ca_certificate_with_key", "make_certificate",
    "make_certificate_with_key",
    "make_proof_of_rotation_chain", "private_key_read", "is_fi_ta", "rpmfi_ta_shdr",
};

std::set<std::string> definedDynamicSymbols(bool demangle)
{
    std::vector<std::string> argv{"nm", "-D", "--defined-only", "--format=just-symbols"};
    if (demangle)
        argv.push_back("-C");
    argv.push_back(SEALKEEP_LIBRARY);
    auto result = runCommand(argv);
    EXPECT_EQ(0, result.exitCode) << result.errors;
    std::set<std::string> symbols;
    std::istringstream lines(result.output);
    for (std::string line; std::getline(lines, line);)
        symbols.insert(line);
    return symbols;
}

TEST(ExportedSymbols, TheSonameIsLibsealkeepSo3)
{
    auto result = runCommand({"readelf", "-d", SEALKEEP_LIBRARY});
    ASSERT_EQ(0, result.exitCode) << result.errors;
    EXPECT_NE(std::string::npos, result.output.find("Library soname: [libsealkeep.so.3]")) << result.output;
}

TEST(ExportedSymbols, EveryFlatFunctionIsExportedUnmangled)
{
    auto symbols = definedDynamicSymbols(false);
    for (auto const& name : flatInterface)
        EXPECT_TRUE(symbols.count(name)) << name;
}

TEST(ExportedSymbols, NothingElseIsExported)
{
    // C++ symbols must belong to the class interface; the version script
    // keeps standard-library instantiations local.
    for (auto const& symbol : definedDynamicSymbols(false)) {
        bool mangled = symbol.rfind("_Z", 0) == 0;
        if (mangled)
            EXPECT_NE(std::string::npos, symbol.find("17PackageSignatures")) << symbol;
        else
            EXPECT_TRUE(flatInterface.count(symbol)) << symbol;
    }
}

TEST(ExportedSymbols, TheClassInterfaceIsExported)
{
    auto symbols = definedDynamicSymbols(true);
    for (const char* expected :
         {"PackageSignatures::FileWithCmses::verifyCmses(char const*)", "PackageSignatures::Cms::certificate() const",
          "PackageSignatures::Certificate::fromDer(unsigned char const*, unsigned long)",
          "PackageSignatures::RotationChain::previousKeyids[abi:cxx11]() const", "PackageSignatures::groupFromString(char const*)",
          "PackageSignatures::Database::isDeveloperModeEnabled() const", "PackageSignatures::defaultCaPath[abi:cxx11]()",
          "PackageSignatures::Database::checkPackage(std::basic_string_view<char, std::char_traits<char> >, "
          "std::vector<PackageSignatures::Cms, std::allocator<PackageSignatures::Cms> > const&, bool)",
          "PackageSignatures::Database::insertPackage(std::basic_string_view<char, std::char_traits<char> >, "
          "std::vector<PackageSignatures::Cms, std::allocator<PackageSignatures::Cms> > const&)",
          "PackageSignatures::Certificate::isSystemDeveloperCertificate() const",
          "PackageSignatures::FileWithCmses::verificationReport(char const*)",
          "PackageSignatures::reasonName(PackageSignatures::VerificationReason)",
          "PackageSignatures::reasonText(PackageSignatures::VerificationReason)",
          "PackageSignatures::reasonExitStatus(PackageSignatures::VerificationReason)",
          "PackageSignatures::verificationReasons()",
          "PackageSignatures::VerificationReport::blocks() const",
          "PackageSignatures::BlockVerification::sha256Fingerprint[abi:cxx11]() const",
          "PackageSignatures::BlockVerification::previousKeyIds[abi:cxx11]() const"})
        EXPECT_TRUE(symbols.count(expected)) << expected;
}

}  // namespace
