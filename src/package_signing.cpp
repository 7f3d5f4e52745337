// FileWithCmses::sign: adds one signature to an open package file. It places
// the signer in the signature stack (optionally replacing an earlier
// signature), signs the right range with cms_sign and appends the block.
//
// There is no rollback: a replacement cut stays when signing then fails, and
// an interrupted append leaves a partial block that the scan will not accept.
#include <sys/stat.h>
#include <unistd.h>

#include <sealkeep/file_with_cmses.hpp>
#include <sealkeep/sealkeep.h>

#include "common/chunked_io.hpp"
#include "common/ossl_ptr.hpp"
#include "signature_stack.hpp"
#include "signed_file_layout.hpp"
#include "tk26sig/cms_sign.hpp"

namespace PackageSignatures {

namespace {

using GBytesPtr = std::unique_ptr<unsigned char, sealkeep::Deleter<g_free>>;

Group groupOf(X509* certificate)
{
    sealkeep::MallocPtr text(certificate_get_group(certificate));
    return groupFromString(text.get());
}

void appendLittleEndian32(std::vector<unsigned char>& out, std::uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        out.push_back(static_cast<unsigned char>(value >> (8 * i)));
}

// [skippable-frame prefix] + DER + header, as the scan expects to find it.
std::vector<unsigned char> makeBlock(unsigned char const* der, std::size_t length, bool skippableFrame)
{
    CmsHeader header(skippableFrame ? 3 : 2, static_cast<long>(length));
    std::vector<unsigned char> serializedHeader = header.serialize();
    std::vector<unsigned char> block;
    block.reserve(frameHeaderSize + length + serializedHeader.size());
    if (skippableFrame) {
        appendLittleEndian32(block, CmsHeader::skippableFrameMagic);
        appendLittleEndian32(block, static_cast<std::uint32_t>(serializedHeader.size() + length));
    }
    block.insert(block.end(), der, der + length);
    block.insert(block.end(), serializedHeader.begin(), serializedHeader.end());
    return block;
}

}  // namespace

bool FileWithCmses::sign(X509* certificate, EVP_PKEY* key, EVP_PKEY* taKey, unsigned int taAlgorithm,
                         stack_st_ProofOfRotation* rotationChain, bool replace, bool skippableFrame,
                         bool signFiles)
{
    if (!certificate || !key)
        return false;
    const Group group = groupOf(certificate);

    auto locations = locateCmses(file_);
    std::vector<Cms> present = readCmses(file_, locations);

    if (replace && !locations.empty()) {
        if (present.back().certificate()->group() == group) {
            if (ftruncate(fd(), cutOffsetOf(locations.back())) != 0)
                return false;
            locations.pop_back();
            present.pop_back();
        } else if (group == Group::Developer) {
            if (ftruncate(fd(), cutOffsetOf(locations.front())) != 0)
                return false;
            locations.clear();
            present.clear();
        }
    }
    if (locations.size() >= maxSignatures)
        return false;
    // Only the third position asks who signed below it; asking elsewhere
    // would print for a block whose CMS does not decode.
    Group newest = Group::None;
    if (present.size() == 2 && present.back().certificate())
        newest = present.back().certificate()->group();
    if (!mayTakeNextPosition(group, present.size(), newest))
        return false;

    // The first signature covers the whole file; a later one the last block's
    // CMS onwards. The range is read from the file in pieces, never mapped or
    // held whole, so signing a large package takes no more memory than a
    // small one.
    struct stat status {};
    if (fstat(fd(), &status) != 0 || status.st_size <= 0)
        return false;
    const std::int64_t rangeBegin = locations.empty() ? 0 : locations.back().begin;
    std::size_t derLength = 0;
    GBytesPtr der(sealkeep::signRange(
        sealkeep::SignedRange::ofFile(fd(), rangeBegin,
                                      static_cast<std::size_t>(status.st_size - rangeBegin)),
        signFiles, key, taKey, taAlgorithm, certificate, rotationChain, &derLength));
    if (!der)
        return false;
    std::vector<unsigned char> block = makeBlock(der.get(), derLength, skippableFrame);
    der.reset();

    fseek(file_, 0, SEEK_END);
    return sealkeep::writeInPieces(fd(), block.data(), block.size());
}

}  // namespace PackageSignatures
