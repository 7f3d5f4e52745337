// FileWithCmses::verifyCmses: verifies every signature of a file, newest
// first, each over the bytes it covers, and checks that each signer's group
// may stand at its position of the stack.
//
// The first signature covers the package. A later legacy (version 1)
// signature covers everything before it; a later version-2 or version-3
// signature covers only the previous signature's CMS and header, so each
// countersigns the one before it. A block's own frame prefix is never
// covered; whether a block is framed is decided by the bytes in front of it.
//
// The covered bytes are streamed from the file with pread into the checks:
// nothing is mapped or copied, so a package of any size verifies in a few
// kilobytes of buffers, and a file cut short meanwhile fails cleanly.
#include <optional>

#include <sealkeep/file_with_cmses.hpp>
#include <sealkeep/sealkeep.h>

#include "cms_verify_content.hpp"
#include "common/ossl_ptr.hpp"
#include "common/streaming_bio.hpp"
#include "signature_stack.hpp"
#include "signed_file_layout.hpp"

namespace PackageSignatures {

namespace {

struct ByteRange {
    std::int64_t begin;
    std::int64_t end;
};

// Where the covered bytes of block i end: before its frame prefix when the
// four bytes 8 before its CMS are the skippable-frame magic.
std::optional<std::int64_t> coveredEnd(FILE* file, CmsLocation const& loc)
{
    // No frame prefix fits in front of a block this close to the start (a
    // version-2 signature of a tiny file), and the test would read before
    // the start of the file.
    if (loc.begin < frameHeaderSize)
        return loc.begin;
    static const std::vector<unsigned char> frameMagic{0x50, 0x2A, 0x4D, 0x18};
    auto bytes = readFileRangeWithin(file, loc.begin - frameHeaderSize, loc.begin - frameHeaderSize + 4);
    if (bytes.empty() || bytes == frameMagic)
        return loc.begin - frameHeaderSize;
    return loc.begin;
}

std::optional<ByteRange> coveredRange(FILE* file, std::vector<CmsLocation> const& locations, std::size_t i)
{
    auto end = coveredEnd(file, locations[i]);
    if (!end)
        return std::nullopt;
    if (i == 0 || locations[i].header.version == 1)
        return ByteRange{0, *end};
    if (locations[i].header.version == 2 || locations[i].header.version == 3)
        return ByteRange{locations[i - 1].begin, *end};
    return std::nullopt;
}

}  // namespace

bool groupAllowedAt(std::size_t position, Group group)
{
    switch (position) {
    case 0:
        return group == Group::Developer;
    case 1:
        return group == Group::Seclab || group == Group::Client;
    case 2:
        return group == Group::Client;
    default:
        return false;
    }
}

bool FileWithCmses::verifyCmses(char const* caPath)
{
    sealkeep::X509StorePtr store(certificate_store_read(caPath));
    if (!store)
        return false;
    auto locations = locateCmses(file_);
    if (locations.empty() || locations.size() > maxSignatures)
        return false;

    for (std::size_t i = locations.size(); i-- > 0;) {
        auto range = coveredRange(file_, locations, i);
        if (!range)
            return false;
        Cms cms(readFileRangeWithin(file_, locations[i].begin, locations[i].end));
        CMS_ContentInfo* parsed = cms.parsed();
        if (!parsed)
            return false;
        sealkeep::BioPtr covered(sealkeep::bioOverFileRange(fd(), range->begin, range->end));
        if (!sealkeep::verifyCmsContent(covered.get(), parsed, store.get()))
            return false;
        if (!groupAllowedAt(i, cms.certificate()->group()))
            return false;
    }
    return true;
}

}  // namespace PackageSignatures
