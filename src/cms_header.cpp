// CmsHeader: the 12 bytes that end every signature block, in the legacy
// 64-bit-length form (version 1) or the 32-bit form (versions 2 and 3).
#include <sealkeep/file_with_cmses.hpp>

namespace PackageSignatures {

namespace {

constexpr long headerSize = 12;

std::uint64_t readLittleEndian(unsigned char const* p, int width)
{
    std::uint64_t value = 0;
    for (int i = width - 1; i >= 0; --i)
        value = (value << 8) | p[i];
    return value;
}

void appendLittleEndian(std::vector<unsigned char>& out, std::uint64_t value, int width)
{
    for (int i = 0; i < width; ++i)
        out.push_back(static_cast<unsigned char>(value >> (8 * i)));
}

}  // namespace

CmsHeader::CmsHeader() : version(0), length(0) {}

CmsHeader::CmsHeader(unsigned int version, long length) : version(version), length(length) {}

std::optional<CmsHeader> CmsHeader::read(unsigned char const* data, long size)
{
    if (size < headerSize)
        return std::nullopt;
    unsigned char const* header = data + size - headerSize;
    auto magic = static_cast<std::uint32_t>(readLittleEndian(header + 8, 4));
    if (magic == legacyTrailerMagic)
        return CmsHeader(1, static_cast<long>(readLittleEndian(header, 8)));
    if (magic == trailerMagic)
        return CmsHeader(static_cast<unsigned int>(readLittleEndian(header + 4, 4)),
                         static_cast<long>(readLittleEndian(header, 4)));
    return std::nullopt;
}

std::size_t CmsHeader::size() const
{
    return headerSize;
}

std::vector<unsigned char> CmsHeader::serialize() const
{
    std::vector<unsigned char> out;
    out.reserve(headerSize);
    if (version < 2) {
        appendLittleEndian(out, static_cast<std::uint64_t>(length), 8);
        appendLittleEndian(out, legacyTrailerMagic, 4);
    } else {
        appendLittleEndian(out, static_cast<std::uint64_t>(length) & 0xFFFFFFFFu, 4);
        appendLittleEndian(out, version, 4);
        appendLittleEndian(out, trailerMagic, 4);
    }
    return out;
}

}  // namespace PackageSignatures
