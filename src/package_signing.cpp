// FileWithCmses::sign: adds one signature to a package. It places the
// signer in the signature stack (optionally replacing an earlier signature),
// signs the range as it will stand after any cut, and only then writes: the
// package is replaced whole by a new version (a copy made in the same pass
// that digests the range), so that it is at every instant either as it was
// or as signed. All of it under the package's write lock.
#include <cerrno>
#include <cstring>
#include <iostream>
#include <optional>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sealkeep/file_with_cmses.hpp>
#include <sealkeep/sealkeep.h>

#include "common/background_copy.hpp"
#include "common/chunked_io.hpp"
#include "common/ossl_ptr.hpp"
#include "file_with_cmses_impl.hpp"
#include "package_rewrite.hpp"
#include "package_signing.hpp"
#include "signature_stack.hpp"
#include "signed_file_layout.hpp"
#include "tk26sig/cms_sign.hpp"

namespace PackageSignatures {

Group groupOf(X509* certificate)
{
    sealkeep::MallocPtr text(certificate_get_group(certificate));
    return groupFromString(text.get());
}

namespace {

using GBytesPtr = std::unique_ptr<unsigned char, sealkeep::Deleter<g_free>>;

void appendLittleEndian32(std::vector<unsigned char>& out, std::uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        out.push_back(static_cast<unsigned char>(value >> (8 * i)));
}

}  // namespace

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

namespace {

// The group of the signer of the block at location; empty when its CMS does
// not decode or names no signer, so that it never matches a signer's group.
std::optional<Group> signerGroupOf(FILE* file, CmsLocation const& location)
{
    auto certificate = readCms(file, location).certificate();
    if (!certificate || !certificate->get())
        return std::nullopt;
    return certificate->group();
}

}  // namespace

// Only the newest block is ever read, and each block at most once: a
// replacement compares its signer, and the third position asks who signed
// below it. Asking elsewhere, or twice, would print again for a block whose
// CMS does not decode.
SigningPlan planSigning(FILE* file, Group group, bool replace)
{
    SigningPlan plan;
    auto locations = locateCmses(file);
    std::optional<std::size_t> readIndex;
    std::optional<Group> readGroup;
    auto groupOfBlock = [&](std::size_t index) {
        if (readIndex != index) {
            readGroup = signerGroupOf(file, locations[index]);
            readIndex = index;
        }
        return readGroup;
    };
    if (replace && !locations.empty()) {
        if (groupOfBlock(locations.size() - 1) == group) {
            plan.cut = cutOffsetOf(locations.back());
            locations.pop_back();
        } else if (group == Group::Developer) {
            plan.cut = cutBeforeEveryBlock(file);
            locations.clear();
        }
    }
    if (locations.size() >= maxSignatures)
        return plan;
    const Group newest = locations.size() == 2 ? groupOfBlock(1).value_or(Group::None) : Group::None;
    plan.allowed = mayTakeNextPosition(group, locations.size(), newest);
    plan.position = locations.size();
    plan.rangeBegin = locations.empty() ? 0 : locations.back().begin;
    return plan;
}

bool FileWithCmses::maySign(Group group, bool replace) const
{
    return planSigning(impl_->file, group, replace).allowed;
}

std::int64_t sizeOf(int fd)
{
    struct stat status {};
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode))
        return -1;
    return status.st_size;
}

bool openForWriting(int fd)
{
    const int flags = fcntl(fd, F_GETFL);
    return flags != -1 && (flags & O_ACCMODE) != O_RDONLY;
}

bool fitsInOneBlock(std::size_t derLength)
{
    // A longer block would not be found by the scan again: the file would
    // carry a signature that no reader sees.
    if (derLength > static_cast<std::size_t>(maxCmsLength)) {
        std::cerr << "Signature of " << derLength << " bytes is larger than the limit of " << maxCmsLength
                  << " bytes for one block" << std::endl;
        return false;
    }
    return true;
}

namespace {

// What the signer signs with; none of it is kept.
struct Signer {
    X509* certificate;
    EVP_PKEY* key;
    EVP_PKEY* taKey;
    unsigned int taAlgorithm;
    stack_st_ProofOfRotation* rotationChain;
    bool skippableFrame;
    bool signFiles;
};

// The whole block for a signature over range; empty when signing fails or
// the signature does not fit in one block.
std::vector<unsigned char> signedBlock(sealkeep::SignedRange const& range, Signer const& signer)
{
    std::size_t derLength = 0;
    GBytesPtr der(sealkeep::signRange(range, signer.signFiles, signer.key, signer.taKey, signer.taAlgorithm,
                                      signer.certificate, signer.rotationChain, &derLength));
    if (!der)
        return {};
    if (!fitsInOneBlock(derLength))
        return {};
    return makeBlock(der.get(), derLength, signer.skippableFrame);
}

// A new version of the package: [0, end) copied, the signed range
// [rangeBegin, end) digested from the copy as it is made, then the block.
// Returns the new version's descriptor, or -1.
int signIntoNewVersion(std::string const& path, int fd, std::int64_t rangeBegin, std::int64_t end,
                       Signer const& signer)
{
    // errno of the step that failed; a signing failure has printed its own.
    auto cannotWrite = [&path] {
        std::cerr << "sealkeep: cannot write a new version of " << path << " beside it: " << strerror(errno)
                  << std::endl;
        return -1;
    };
    auto rewrite = PackageRewrite::begin(path, fd);
    if (!rewrite)
        return cannotWrite();
    // The kept bytes are copied on another processor while this one digests
    // the range from the copy, behind it; the payload walk reads the package.
    std::vector<unsigned char> block;
    {
        sealkeep::BackgroundCopy copy(fd, rewrite->fd(), end);
        errno = 0;
        block = signedBlock(sealkeep::SignedRange::ofFile(fd, rangeBegin, static_cast<std::size_t>(end - rangeBegin),
                                                          &copy),
                            signer);
        // A digest that could not read the copy fails the signing: the
        // copy's error is the answer then. A signing that failed for its own
        // reason (printed) stops the copy here.
        if (block.empty())
            return copy.unfailed() ? -1 : cannotWrite();
        if (!copy.finish())
            return cannotWrite();
    }
    return commitWithBlock(*rewrite, path, end, block);
}

}  // namespace

int commitWithBlock(PackageRewrite& rewrite, std::string const& path, std::int64_t end,
                    std::vector<unsigned char> const& block)
{
    auto cannotWrite = [&path] {
        std::cerr << "sealkeep: cannot write a new version of " << path << " beside it: " << strerror(errno)
                  << std::endl;
        return -1;
    };
    // The new version holds exactly the kept bytes before its block, or a
    // short read or copy went unnoticed.
    struct stat status {};
    if (fstat(rewrite.fd(), &status) != 0 || status.st_size != end) {
        if (errno == 0)
            errno = EIO;
        return cannotWrite();
    }
    if (!rewrite.append(block.data(), block.size()))
        return cannotWrite();
    int signedFd = rewrite.commit();
    if (signedFd < 0) {
        std::cerr << "sealkeep: cannot put the new version of " << path << " in place: " << strerror(errno)
                  << std::endl;
    } else if (!rewrite.durable()) {
        std::cerr << "sealkeep: the new version of " << path
                  << " is in place, but its directory could not be synced: " << strerror(errno) << std::endl;
    }
    return signedFd;
}

bool appendInPlace(int fd, std::optional<long> cut, std::int64_t end, std::vector<unsigned char> const& block)
{
    if (block.empty() || (cut && ftruncate(fd, *cut) != 0))
        return false;
    if (lseek(fd, end, SEEK_SET) != end || !sealkeep::writeInPieces(fd, block.data(), block.size())) {
        if (ftruncate(fd, end) != 0) {
            // Nothing more can be done: the error is the caller's answer.
        }
        return false;
    }
    return fsync(fd) == 0;
}

FILE* streamOfNewVersion(int signedFd, std::string const& path, bool relock)
{
    // The object follows the package to its new version (already locked);
    // should that fail, it reopens the path, which names the new version.
    FILE* stream = fdopen(signedFd, "r+");
    if (!stream) {
        close(signedFd);
        stream = fopen(path.c_str(), "r+e");
        if (stream && relock)
            flock(fileno(stream), LOCK_EX);
    }
    return stream;
}

namespace {

// Without a path: sign first, then cut and append in place, undoing a
// partial append.
bool signInPlace(int fd, std::optional<long> cut, std::int64_t rangeBegin, std::int64_t end, Signer const& signer)
{
    return appendInPlace(
        fd, cut, end,
        signedBlock(sealkeep::SignedRange::ofFile(fd, rangeBegin, static_cast<std::size_t>(end - rangeBegin)), signer));
}

}  // namespace

bool FileWithCmses::sign(X509* certificate, EVP_PKEY* key, EVP_PKEY* taKey, unsigned int taAlgorithm,
                         stack_st_ProofOfRotation* rotationChain, bool replace, bool skippableFrame,
                         bool signFiles)
{
    if (!certificate || !key)
        return false;
    WriteLockScope lock(*this);
    const std::int64_t size = lock.held() ? sizeOf(fd()) : -1;
    if (size <= 0 || !openForWriting(fd()))
        return false;
    const SigningPlan plan = planSigning(impl_->file, groupOf(certificate), replace);
    if (!plan.allowed)
        return false;
    // The first signature covers the whole package; a later one the newest
    // kept block's CMS onwards; both end where the cut will end the file.
    const std::int64_t end = plan.cut ? *plan.cut : size;
    if (end <= plan.rangeBegin)
        return false;
    const Signer signer{certificate, key, taKey, taAlgorithm, rotationChain, skippableFrame, signFiles};
    if (impl_->path.empty())
        return signInPlace(fd(), plan.cut, plan.rangeBegin, end, signer);

    const int signedFd = signIntoNewVersion(impl_->path, fd(), plan.rangeBegin, end, signer);
    if (signedFd < 0)
        return false;
    FILE* stream = streamOfNewVersion(signedFd, impl_->path, impl_->locked && !lock.takenHere());
    if (stream)
        impl_->replaceStream(stream);
    return true;
}

}  // namespace PackageSignatures
