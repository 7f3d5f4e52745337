// Fuzzes verifyCmses on stacks whose older blocks are intact: the input is
// appended to a package that carries a valid developer signature (the file
// named by $SEALKEEP_FUZZ_STACK, written by make_fuzz_seeds), so a mutated
// newer block that still verifies leads the check on to the developer block,
// and the position rule and countersigned ranges are reached.
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <vector>

#include <sealkeep/sealkeep.hpp>

#include "fuzz_input.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    sealkeep::fuzz::ClearErrorsOnExit clearErrors;
    static const std::vector<unsigned char> prefix = [] {
        const char* path = getenv("SEALKEEP_FUZZ_STACK");
        std::ifstream file(path ? path : "", std::ios::binary);
        return std::vector<unsigned char>(std::istreambuf_iterator<char>(file), {});
    }();
    std::vector<unsigned char> contents(prefix);
    contents.insert(contents.end(), data, data + size);
    sealkeep::fuzz::InputFile input(contents.data(), contents.size());
    if (!input.valid())
        return 0;
    auto file = PackageSignatures::FileWithCmses::fromPath(input.path(), "r");
    if (file) {
        file->verifyCmses(sealkeep::fuzz::caPath().c_str());
        for (auto const& cms : file->cmses())
            cms.certificate()->group();
    }
    return 0;
}
