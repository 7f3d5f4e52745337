// Writes seed corpora for the fuzz targets from real material: a CA file and
// its key, signed files with one to three blocks, each block's CMS alone and
// with the bytes it covers, rotation chains in DER and PEM, certificates,
// keys, a certificate request, and RPM packages (trusted applications, hard
// links, every payload compressor).
//
//   make_fuzz_seeds OUTDIR
// creates OUTDIR/ca.pem, OUTDIR/ca.key, OUTDIR/stack-prefix (a package with a
// valid developer signature) and one directory of seeds per target.
#include <cstdint>
#include <cstdio>
#include <string>

#include <glib.h>
#include <sealkeep/sealkeep.hpp>

#include "common/digests.hpp"
#include "signed_file_layout.hpp"
#include "support/cms_builder.hpp"
#include "support/files.hpp"
#include "support/pki.hpp"
#include "support/rpm_builder.hpp"
#include "support/signing.hpp"

using namespace sealkeep::test;

namespace {

Bytes afterPrefix(Bytes const& whole, Bytes const& prefix)
{
    return Bytes(whole.begin() + static_cast<long>(prefix.size()), whole.end());
}

// [4-byte big-endian length of der][der][covered], the input of cms_verify_fuzz.
Bytes verifyInput(Bytes const& der, Bytes const& covered)
{
    auto n = static_cast<std::uint32_t>(der.size());
    Bytes input{static_cast<unsigned char>(n >> 24), static_cast<unsigned char>(n >> 16),
                static_cast<unsigned char>(n >> 8), static_cast<unsigned char>(n)};
    return concat({input, der, covered});
}

void writeCmsVerifySeeds(std::string const& out, Pki& pki, std::string const& path)
{
    const Bytes signedFile = readFile(path);
    FILE* stream = fopen(path.c_str(), "r");
    auto locations = PackageSignatures::locateCmses(stream);
    fclose(stream);
    auto bytes = [&](std::int64_t begin, std::int64_t end) {
        return Bytes(signedFile.begin() + begin, signedFile.begin() + end);
    };
    // The first block covers the package (its frame prefix excluded), each
    // later one the previous CMS and its header.
    Bytes package = bytes(0, locations[0].begin - 8);
    writeFile(out + "/cms_verify/developer", verifyInput(bytes(locations[0].begin, locations[0].end), package));
    for (std::size_t i = 1; i < locations.size(); ++i)
        writeFile(out + "/cms_verify/countersignature" + std::to_string(i),
                  verifyInput(bytes(locations[i].begin, locations[i].end),
                              bytes(locations[i - 1].begin, locations[i - 1].end + 12)));

    // Attached signatures carry the digest of the covered bytes; one of them
    // a digest of the wrong length.
    LoadedSigner developer = loadSigner(pki.developer());
    auto digest = sealkeep::gostDigestOf(package.data(), package.size());
    writeFile(out + "/cms_verify/attached", verifyInput(attachedCms(*digest, developer.borrowed()), package));
    writeFile(out + "/cms_verify/attached-long",
              verifyInput(attachedCms(concat({*digest, *digest}), developer.borrowed()), package));
}

void writeCertificateSeeds(std::string const& out, Pki& pki)
{
    X509* certificate = certificate_read(pki.developer().certPath.c_str());
    unsigned char* der = nullptr;
    int length = i2d_X509(certificate, &der);
    writeFile(out + "/certificate/developer", Bytes(der, der + length));
    OPENSSL_free(der);
    X509_free(certificate);

    writeFile(out + "/pem_readers/certificate", readFile(pki.developer().certPath));
    writeFile(out + "/pem_readers/ca", readFile(pki.ca().certPath));
    writeFile(out + "/pem_readers/key", readFile(pki.developer().keyPath));

    std::string csrPath = pki.dir().file("request.csr");
    writeRequest(pki.developer().keyPath, csrPath, "fuzzed request");
    writeFile(out + "/certificate_request/request", readFile(csrPath));
}

}  // namespace

// Small packages that reach every branch of the payload walk.
static void writePackageSeeds(std::string const& work, std::string const& outDir)
{
    const std::vector<PayloadEntry> entries = {
        regularFile("/usr/lib/optee_armtz/8aaaf200-2450-11e4-abe2-0002a5d5c51b.ta", "trusted application"),
        regularFile("/usr/lib/optee_armtz/8aaaf200-2450-11e4-abe20002a5d5c51b.ta", ""),
        regularFile("/usr/lib/optee_armtz/readme.txt", "not a TA"),
        regularFile("/usr/share/seed/a", "one content, three names"),
        hardLink("/usr/share/seed/b", "/usr/share/seed/a"),
        hardLink("/usr/share/seed/c", "/usr/share/seed/a"),
        regularFile("/usr/share/seed/empty", ""),
        directory("/usr/share/seed/dir"),
        symbolicLink("/usr/share/seed/link", "a"),
    };
    for (const char* compressor : {"gzip", "zstd", "xz", "bzip2"}) {
        std::string name = std::string("seed-") + compressor;
        writeFile(outDir + "/" + name, readFile(buildRpm(work, name, entries, compressor)));
    }
    writeFile(outDir + "/hello-ta", readFile(buildRpm(work, "seed-hello", {regularFile("/usr/lib/optee_armtz/hello.ta", "x")})));
    writeFile(outDir + "/no-files", readFile(buildRpm(work, "seed-empty", {})));
}

int main(int argc, char** argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: make_fuzz_seeds OUTDIR\n");
        return 2;
    }
    const std::string out = argv[1];
    for (const char* sub : {"signed_file", "cms", "rotation_chain", "cms_verify", "signature_stack",
                            "rotation_chain_pem", "certificate", "pem_readers", "certificate_request", "package_signing"})
        g_mkdir_with_parents((out + "/" + sub).c_str(), 0755);

    Pki pki;
    writeFile(out + "/ca.pem", readFile(pki.ca().certPath));
    writeFile(out + "/ca.key", readFile(pki.ca().keyPath));
    writeCertificateSeeds(out, pki);

    std::string chainPath = pki.dir().file("chain.pem");
    Identity next = pki.issue("rotated developer", "developer");
    make_proof_of_rotation_chain(chainPath.c_str(), nullptr, pki.developer().certPath.c_str(),
                                 pki.developer().keyPath.c_str(), next.certPath.c_str(), next.keyPath.c_str());
    ProofOfRotationChain* chain = ProofOfRotationChain_read(chainPath.c_str());
    unsigned char* der = nullptr;
    int length = i2d_ProofOfRotationChain(chain, &der);
    writeFile(out + "/rotation_chain/one", Bytes(der, der + length));
    writeFile(out + "/rotation_chain_pem/one", readFile(chainPath));
    OPENSSL_free(der);

    std::string path = pki.dir().file("package");
    writeFile(path, patternBytes(300));
    SignOptions withChain = framed();
    withChain.chain = chain;
    signFile(path, next, withChain);
    const Bytes developerSigned = readFile(path);
    writeFile(out + "/signed_file/developer", developerSigned);
    writeFile(out + "/stack-prefix", developerSigned);
    signFile(path, pki.seclab());
    writeFile(out + "/signed_file/developer-seclab", readFile(path));
    writeFile(out + "/signature_stack/seclab", afterPrefix(readFile(path), developerSigned));
    signFile(path, pki.client(), framed());
    writeFile(out + "/signed_file/developer-seclab-client", readFile(path));
    writeFile(out + "/signature_stack/seclab-client", afterPrefix(readFile(path), developerSigned));
    ProofOfRotationChain_free(chain);

    auto file = PackageSignatures::FileWithCmses::fromPath(path.c_str(), "r");
    int i = 0;
    for (auto const& cms : file->cmses())
        writeFile(out + "/cms/block" + std::to_string(i++), cms.data());
    writeCmsVerifySeeds(out, pki, path);
    writePackageSeeds(pki.dir().path(), out + "/package_signing");
    return 0;
}
