// Package surgery for tests: the lead, the two headers and the payload.
#include "support/rpm_surgery.hpp"

#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

#include <openssl/sha.h>

namespace sealkeep::test {

namespace {

constexpr std::size_t leadSize = 96;
constexpr std::size_t introSize = 16;  // magic, reserved, entry count, data size
constexpr std::size_t entrySize = 16;  // tag, type, offset, count
constexpr std::uint32_t int16Type = 3;
constexpr std::uint32_t int32Type = 4;
constexpr std::uint32_t sha1HeaderTag = 269;
constexpr std::uint32_t sha256HeaderTag = 273;

std::uint32_t bigEndian32(Bytes const& bytes, std::size_t at)
{
    if (at + 4 > bytes.size())
        throw std::runtime_error("rpm surgery: read past the end");
    return static_cast<std::uint32_t>(bytes[at]) << 24 | static_cast<std::uint32_t>(bytes[at + 1]) << 16 |
           static_cast<std::uint32_t>(bytes[at + 2]) << 8 | bytes[at + 3];
}

std::uint32_t bigEndian16(Bytes const& bytes, std::size_t at)
{
    if (at + 2 > bytes.size())
        throw std::runtime_error("rpm surgery: read past the end");
    return static_cast<std::uint32_t>(bytes[at]) << 8 | bytes[at + 1];
}

struct Entry {
    std::uint32_t type;
    std::size_t data;  // offset of the value within the header blob
    std::uint32_t count;
};

// The entry of tag in the header blob starting at header[0].
Entry findEntry(Bytes const& header, std::uint32_t tag)
{
    const std::uint32_t entries = bigEndian32(header, 8);
    const std::size_t dataStart = introSize + entrySize * entries;
    for (std::uint32_t i = 0; i < entries; ++i) {
        const std::size_t at = introSize + entrySize * i;
        if (bigEndian32(header, at) == tag)
            return {bigEndian32(header, at + 4), dataStart + bigEndian32(header, at + 8),
                    bigEndian32(header, at + 12)};
    }
    throw std::runtime_error("rpm surgery: no tag " + std::to_string(tag));
}

// Length of the header blob that starts at package[at].
std::size_t headerLength(Bytes const& package, std::size_t at)
{
    Bytes intro(package.begin() + static_cast<long>(at), package.begin() + static_cast<long>(at + introSize));
    return introSize + entrySize * bigEndian32(intro, 8) + bigEndian32(intro, 12);
}

std::string hex(const unsigned char* bytes, std::size_t length)
{
    std::string text;
    char pair[3];
    for (std::size_t i = 0; i < length; ++i) {
        std::snprintf(pair, sizeof pair, "%02x", bytes[i]);
        text += pair;
    }
    return text;
}

void replaceDigestText(Bytes& signature, std::uint32_t tag, std::string const& text)
{
    const Entry entry = findEntry(signature, tag);
    if (entry.data + text.size() >= signature.size())
        throw std::runtime_error("rpm surgery: digest text out of range");
    std::memcpy(&signature[entry.data], text.data(), text.size());
}

}  // namespace

RpmParts splitRpm(Bytes const& package)
{
    if (package.size() < leadSize + introSize)
        throw std::runtime_error("rpm surgery: too short for a package");
    const std::size_t signatureLength = headerLength(package, leadSize);
    const std::size_t headerStart = leadSize + signatureLength + (8 - signatureLength % 8) % 8;
    if (headerStart + introSize > package.size())
        throw std::runtime_error("rpm surgery: no main header");
    const std::size_t payloadStart = headerStart + headerLength(package, headerStart);
    if (payloadStart > package.size())
        throw std::runtime_error("rpm surgery: main header cut short");
    auto at = [&](std::size_t offset) { return package.begin() + static_cast<long>(offset); };
    return {Bytes(at(0), at(leadSize)), Bytes(at(leadSize), at(headerStart)), Bytes(at(headerStart), at(payloadStart)),
            Bytes(at(payloadStart), package.end())};
}

Bytes joinRpm(RpmParts parts)
{
    unsigned char sha1[SHA_DIGEST_LENGTH];
    unsigned char sha256[SHA256_DIGEST_LENGTH];
    SHA1(parts.header.data(), parts.header.size(), sha1);
    SHA256(parts.header.data(), parts.header.size(), sha256);
    replaceDigestText(parts.signature, sha1HeaderTag, hex(sha1, sizeof sha1));
    replaceDigestText(parts.signature, sha256HeaderTag, hex(sha256, sizeof sha256));
    return concat({parts.lead, parts.signature, parts.header, parts.payload});
}

std::vector<std::uint32_t> headerIntegers(Bytes const& header, std::uint32_t tag)
{
    const Entry entry = findEntry(header, tag);
    std::vector<std::uint32_t> values;
    for (std::uint32_t i = 0; i < entry.count; ++i) {
        if (entry.type == int32Type)
            values.push_back(bigEndian32(header, entry.data + 4 * i));
        else if (entry.type == int16Type)
            values.push_back(bigEndian16(header, entry.data + 2 * i));
        else
            throw std::runtime_error("rpm surgery: not an integer array");
    }
    return values;
}

void setHeaderInt32(Bytes& header, std::uint32_t tag, std::size_t element, std::uint32_t value)
{
    const Entry entry = findEntry(header, tag);
    if (entry.type != int32Type || element >= entry.count)
        throw std::runtime_error("rpm surgery: no such INT32 element");
    for (int i = 0; i < 4; ++i)
        header[entry.data + 4 * element + static_cast<std::size_t>(i)] =
            static_cast<unsigned char>(value >> (24 - 8 * i));
}

}  // namespace sealkeep::test
