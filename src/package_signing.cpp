// FileWithCmses::sign: adds one signature to an open package file. It places
// the signer in the signature stack (optionally replacing an earlier
// signature), signs the right range with cms_sign and appends the block.
//
// There is no rollback: a replacement cut stays when signing then fails, and
// an interrupted append leaves a partial block that the scan will not accept.
// Callers that must leave a refused package as it was ask maySign first.
#include <iostream>
#include <optional>

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

// What signing a signer of some group does to the file as it is now.
struct SigningPlan {
    std::optional<long> cut;      // where a replacement truncates the file first
    bool allowed = false;         // whether the signer then takes the next position
    std::int64_t rangeBegin = 0;  // the first byte the new signature covers
};

// The group of the signer of the block at location; empty when its CMS does
// not decode or names no signer, so that it never matches a signer's group.
std::optional<Group> signerGroupOf(FILE* file, CmsLocation const& location)
{
    auto certificate = readCms(file, location).certificate();
    if (!certificate || !certificate->get())
        return std::nullopt;
    return certificate->group();
}

// Only the newest block is ever read: a replacement compares its signer,
// and the third position asks who signed below it. Asking elsewhere would
// print for a block whose CMS does not decode.
SigningPlan planSigning(FILE* file, Group group, bool replace)
{
    SigningPlan plan;
    auto locations = locateCmses(file);
    if (replace && !locations.empty()) {
        if (signerGroupOf(file, locations.back()) == group) {
            plan.cut = cutOffsetOf(locations.back());
            locations.pop_back();
        } else if (group == Group::Developer) {
            plan.cut = cutBeforeEveryBlock(file);
            locations.clear();
        }
    }
    if (locations.size() >= maxSignatures)
        return plan;
    const Group newest =
        locations.size() == 2 ? signerGroupOf(file, locations.back()).value_or(Group::None) : Group::None;
    plan.allowed = mayTakeNextPosition(group, locations.size(), newest);
    plan.rangeBegin = locations.empty() ? 0 : locations.back().begin;
    return plan;
}

}  // namespace

bool FileWithCmses::maySign(Group group, bool replace) const
{
    return planSigning(file_, group, replace).allowed;
}

bool FileWithCmses::sign(X509* certificate, EVP_PKEY* key, EVP_PKEY* taKey, unsigned int taAlgorithm,
                         stack_st_ProofOfRotation* rotationChain, bool replace, bool skippableFrame,
                         bool signFiles)
{
    if (!certificate || !key)
        return false;
    const SigningPlan plan = planSigning(file_, groupOf(certificate), replace);
    if (plan.cut && ftruncate(fd(), *plan.cut) != 0)
        return false;
    if (!plan.allowed)
        return false;

    // The first signature covers the whole file; a later one the last block's
    // CMS onwards. The range is read from the file in pieces, never mapped or
    // held whole, so signing a large package takes no more memory than a
    // small one.
    struct stat status {};
    if (fstat(fd(), &status) != 0 || status.st_size <= 0)
        return false;
    std::size_t derLength = 0;
    GBytesPtr der(sealkeep::signRange(
        sealkeep::SignedRange::ofFile(fd(), plan.rangeBegin,
                                      static_cast<std::size_t>(status.st_size - plan.rangeBegin)),
        signFiles, key, taKey, taAlgorithm, certificate, rotationChain, &derLength));
    if (!der)
        return false;
    // A longer block would not be found by the scan again: the file would
    // carry a signature that no reader sees.
    if (derLength > static_cast<std::size_t>(maxCmsLength)) {
        std::cerr << "Signature of " << derLength << " bytes is larger than the limit of "
                  << maxCmsLength << " bytes for one block" << std::endl;
        return false;
    }
    std::vector<unsigned char> block = makeBlock(der.get(), derLength, skippableFrame);
    der.reset();

    fseek(file_, 0, SEEK_END);
    return sealkeep::writeInPieces(fd(), block.data(), block.size());
}

}  // namespace PackageSignatures
