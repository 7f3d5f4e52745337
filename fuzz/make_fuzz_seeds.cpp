// Writes seed corpora for the fuzz targets from real material: a CA file,
// signed files with one to three blocks, each block's CMS, rotation
// chains, and RPM packages (trusted applications, hard links, every payload
// compressor).
//
//   make_fuzz_seeds OUTDIR
// creates OUTDIR/ca.pem, OUTDIR/signed_file/, OUTDIR/cms/, OUTDIR/rotation_chain/,
// OUTDIR/package_signing/.
#include <cstdio>
#include <string>

#include <glib.h>
#include <sealkeep/sealkeep.hpp>

#include "support/files.hpp"
#include "support/pki.hpp"
#include "support/rpm_builder.hpp"
#include "support/signing.hpp"

using namespace sealkeep::test;

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
    for (const char* sub : {"signed_file", "cms", "rotation_chain", "package_signing"})
        g_mkdir_with_parents((out + "/" + sub).c_str(), 0755);

    Pki pki;
    writeFile(out + "/ca.pem", readFile(pki.ca().certPath));

    std::string chainPath = pki.dir().file("chain.pem");
    Identity next = pki.issue("rotated developer", "developer");
    make_proof_of_rotation_chain(chainPath.c_str(), nullptr, pki.developer().certPath.c_str(),
                                 pki.developer().keyPath.c_str(), next.certPath.c_str(), next.keyPath.c_str());
    ProofOfRotationChain* chain = ProofOfRotationChain_read(chainPath.c_str());
    unsigned char* der = nullptr;
    int length = i2d_ProofOfRotationChain(chain, &der);
    writeFile(out + "/rotation_chain/one", Bytes(der, der + length));
    OPENSSL_free(der);

    std::string path = pki.dir().file("package");
    writeFile(path, patternBytes(300));
    SignOptions withChain = framed();
    withChain.chain = chain;
    signFile(path, next, withChain);
    writeFile(out + "/signed_file/developer", readFile(path));
    signFile(path, pki.seclab());
    writeFile(out + "/signed_file/developer-seclab", readFile(path));
    signFile(path, pki.client(), framed());
    writeFile(out + "/signed_file/developer-seclab-client", readFile(path));
    ProofOfRotationChain_free(chain);

    auto file = PackageSignatures::FileWithCmses::fromPath(path.c_str(), "r");
    int i = 0;
    for (auto const& cms : file->cmses())
        writeFile(out + "/cms/block" + std::to_string(i++), cms.data());
    writePackageSeeds(pki.dir().path(), out + "/package_signing");
    return 0;
}
