// Fuzzes a whole signed file: the backward scan, listing the blocks as Cms
// objects with every lazily parsed answer, verification of the stack, and
// removing blocks.
#include <sys/mman.h>
#include <unistd.h>

#include <sealkeep/sealkeep.hpp>

#include "fuzz_input.hpp"

using namespace PackageSignatures;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    sealkeep::fuzz::ClearErrorsOnExit clearErrors;
    int fd = memfd_create("signed-file", 0);
    if (fd < 0)
        return 0;
    if (write(fd, data, size) != static_cast<ssize_t>(size)) {
        close(fd);
        return 0;
    }
    FileWithCmses file(fdopen(fd, "r+"));

    // A file shorter than the RPM lead is never asked: reading it would wait
    // for bytes forever, by design.
    if (size >= 4)
        file.isRpmPackage();
    for (auto const& cms : file.cmses()) {
        cms.signature();
        auto certificate = cms.certificate();
        certificate->keyId();
        certificate->toDer();
        cms.rotationChain()->previousKeyids();
        cms.fileSignature(0);
        cms.trustletSignature(0);
        Cms copy(cms);
        copy.fileSignature(1);
    }
    file.verifyCmses(sealkeep::fuzz::caPath().c_str());
    file.deleteCmses(true);
    file.cmses();
    file.deleteCmses(false);
    return 0;
}
