// Writes seed corpora for the fuzz targets from real material: a CA file,
// signed files with one to three blocks, each block's CMS, and rotation
// chains.
//
//   make_fuzz_seeds OUTDIR
// creates OUTDIR/ca.pem, OUTDIR/signed_file/, OUTDIR/cms/, OUTDIR/rotation_chain/.
#include <cstdio>
#include <string>

#include <glib.h>
#include <sealkeep/sealkeep.hpp>

#include "support/files.hpp"
#include "support/pki.hpp"
#include "support/signing.hpp"

using namespace sealkeep::test;

int main(int argc, char** argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: make_fuzz_seeds OUTDIR\n");
        return 2;
    }
    const std::string out = argv[1];
    for (const char* sub : {"signed_file", "cms", "rotation_chain"})
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
    return 0;
}
