#include "support/blocks.hpp"

#include <sealkeep/file_with_cmses.hpp>

namespace sealkeep::test {

namespace {

void appendLe32(Bytes& out, std::uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        out.push_back(static_cast<unsigned char>(value >> (8 * i)));
}

}  // namespace

Bytes makeHeader(unsigned version, std::uint64_t length)
{
    Bytes out;
    if (version < 2) {
        for (int i = 0; i < 8; ++i)
            out.push_back(static_cast<unsigned char>(length >> (8 * i)));
        appendLe32(out, PackageSignatures::CmsHeader::legacyTrailerMagic);
    } else {
        appendLe32(out, static_cast<std::uint32_t>(length));
        appendLe32(out, version);
        appendLe32(out, PackageSignatures::CmsHeader::trailerMagic);
    }
    return out;
}

Bytes makeBlock(Bytes const& cms, unsigned version)
{
    Bytes out;
    if (version == 3) {
        appendLe32(out, PackageSignatures::CmsHeader::skippableFrameMagic);
        appendLe32(out, static_cast<std::uint32_t>(cms.size() + 12));
    }
    out.insert(out.end(), cms.begin(), cms.end());
    Bytes header = makeHeader(version, cms.size());
    out.insert(out.end(), header.begin(), header.end());
    return out;
}

}  // namespace sealkeep::test
