// Signing in three steps: the plan of a signature made where the package is,
// the CMS made from the plan where the key is, and the CMS attached where the
// package is. Each step uses the pieces of FileWithCmses::sign: the same
// stack rule, payload walk, signed attributes, block and write.
#include <sealkeep/detached_signing.hpp>

#include <cerrno>
#include <cstring>
#include <iostream>

#include <openssl/cms.h>
#include <openssl/x509.h>
#include <unistd.h>

#include <sealkeep/file_with_cmses.hpp>
#include <sealkeep/sealkeep.h>

#include "common/chunked_io.hpp"
#include "common/digests.hpp"
#include "common/ossl_ptr.hpp"
#include "file_with_cmses_impl.hpp"
#include "package_rewrite.hpp"
#include "package_signing.hpp"
#include "signed_file_layout.hpp"
#include "tk26sig/cms_sign.hpp"
#include "tk26sig/payload_walk.hpp"

namespace PackageSignatures {
namespace {

using Bytes = std::vector<unsigned char>;
using GBytesPtr = std::unique_ptr<unsigned char, sealkeep::Deleter<g_free>>;

// The digests of [0, begin), [begin, end) and [end, size) of fd, in one
// pass of pread in pieces; a file that ends early fails.
struct RangeDigests {
    Bytes preceding, covered, cut;
};

std::optional<RangeDigests> digestRanges(int fd, const EVP_MD* md, std::int64_t begin, std::int64_t end,
                                         std::int64_t size)
{
    RangeDigests out;
    auto digest = [&](std::int64_t from, std::int64_t to, Bytes& result) {
        sealkeep::MdCtxPtr ctx(EVP_MD_CTX_new());
        if (!ctx || !EVP_DigestInit_ex(ctx.get(), md, nullptr))
            return false;
        unsigned char piece[sealkeep::ioPieceSize];
        for (std::int64_t at = from; at < to;) {
            const auto wanted = static_cast<std::size_t>(std::min<std::int64_t>(to - at, sizeof piece));
            const ssize_t got = pread(fd, piece, wanted, at);
            if (got < 0 && errno == EINTR)
                continue;
            if (got <= 0 || !EVP_DigestUpdate(ctx.get(), piece, static_cast<std::size_t>(got)))
                return false;
            at += got;
        }
        unsigned char value[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        if (!EVP_DigestFinal_ex(ctx.get(), value, &length))
            return false;
        result.assign(value, value + length);
        return true;
    };
    if (!digest(0, begin, out.preceding) || !digest(begin, end, out.covered) || !digest(end, size, out.cut))
        return std::nullopt;
    return out;
}

bool startsWithRpmLead(int fd)
{
    static constexpr unsigned char leadMagic[] = {0xED, 0xAB, 0xEE, 0xDB};
    unsigned char head[sizeof leadMagic];
    return pread(fd, head, sizeof head, 0) == static_cast<ssize_t>(sizeof head) &&
           std::memcmp(head, leadMagic, sizeof head) == 0;
}

// The payload digests of the package's first end bytes. With a cut pending,
// they are read from a copy of those bytes, as sign() signs the copy: the
// payload walk reads a whole file.
std::optional<sealkeep::PayloadDigests> payloadDigests(int fd, std::int64_t end, std::int64_t size,
                                                       const EVP_MD* md, TrustedApplicationKeyShape taKey)
{
    sealkeep::TaHashing ta{taKey.signatureSize != 0, taKey.algorithm, taKey.signatureSize};
    if (end == size)
        return sealkeep::digestPayloadFiles(fd, md, ta);
    sealkeep::FilePtr copy(tmpfile());
    if (!copy || !sealkeep::appendFileRange(fd, 0, end, fileno(copy.get()))) {
        std::cerr << "sealkeep: cannot copy the package to a temporary file: " << strerror(errno) << std::endl;
        return std::nullopt;
    }
    return sealkeep::digestPayloadFiles(fileno(copy.get()), md, ta);
}

void storeFileDigests(sealkeep::PayloadDigests const& digests, SignaturePlan& plan)
{
    for (auto const& file : digests.ima)
        plan.files.push_back({std::vector<std::int32_t>(file.names.begin(), file.names.end()), file.digest});
    for (auto const& ta : digests.ta) {
        TrustedApplicationDigest entry;
        entry.index = ta.index;
        entry.uuid = ta.uuid;
        entry.imageSize = ta.imageSize;
        entry.hash = ta.hash;
        plan.trustedApplications.push_back(entry);
    }
}

sealkeep::PayloadDigests payloadDigestsOf(SignaturePlan const& plan)
{
    sealkeep::PayloadDigests digests;
    for (auto const& file : plan.files)
        digests.ima.push_back({std::vector<int>(file.indexes.begin(), file.indexes.end()), file.digest});
    for (auto const& ta : plan.trustedApplications)
        digests.ta.push_back({ta.index, ta.uuid, ta.imageSize, ta.hash});
    return digests;
}

// The CMS's single signer and the message digest it signs; empty when the
// bytes are no such CMS or its signature over the signed attributes does not
// verify with the certificate it carries.
struct SignedDigest {
    sealkeep::CmsPtr cms;
    X509* certificate = nullptr;  // borrowed from cms
    int digestNid = 0;
    Bytes messageDigest;
};

std::optional<SignedDigest> signedDigestOf(Bytes const& der)
{
    if (der.empty() || der.size() > static_cast<std::size_t>(maxCmsLength))
        return std::nullopt;
    SignedDigest out;
    const unsigned char* in = der.data();
    out.cms.reset(d2i_CMS_ContentInfo(nullptr, &in, static_cast<long>(der.size())));
    if (!out.cms || in != der.data() + der.size() || OBJ_obj2nid(CMS_get0_type(out.cms.get())) != NID_pkcs7_signed)
        return std::nullopt;
    STACK_OF(CMS_SignerInfo)* signers = CMS_get0_SignerInfos(out.cms.get());
    if (!signers || sk_CMS_SignerInfo_num(signers) != 1)
        return std::nullopt;
    // The signer's certificate among those the CMS carries, by its identifier.
    if (CMS_set1_signers_certs(out.cms.get(), nullptr, 0) < 0)
        return std::nullopt;
    CMS_SignerInfo* signer = sk_CMS_SignerInfo_value(signers, 0);
    CMS_SignerInfo_get0_algs(signer, nullptr, &out.certificate, nullptr, nullptr);
    X509_ALGOR* digestAlgorithm = nullptr;
    CMS_SignerInfo_get0_algs(signer, nullptr, nullptr, &digestAlgorithm, nullptr);
    if (!out.certificate || !digestAlgorithm || CMS_SignerInfo_verify(signer) != 1)
        return std::nullopt;
    const ASN1_OBJECT* algorithm = nullptr;
    X509_ALGOR_get0(&algorithm, nullptr, nullptr, digestAlgorithm);
    out.digestNid = OBJ_obj2nid(algorithm);
    auto* digest = static_cast<ASN1_OCTET_STRING*>(CMS_signed_get0_data_by_OBJ(
        signer, OBJ_nid2obj(NID_pkcs9_messageDigest), -3, V_ASN1_OCTET_STRING));
    if (!digest)
        return std::nullopt;
    out.messageDigest.assign(ASN1_STRING_get0_data(digest), ASN1_STRING_get0_data(digest) + ASN1_STRING_length(digest));
    return out;
}

}  // namespace

std::optional<SignaturePlan> FileWithCmses::planSignature(X509* certificate, bool replace, bool signFiles,
                                                          TrustedApplicationKeyShape taKey)
{
    if (!certificate)
        return std::nullopt;
    WriteLockScope lock(*this);
    const std::int64_t size = lock.held() ? sizeOf(fd()) : -1;
    if (size <= 0)
        return std::nullopt;
    const SigningPlan placed = planSigning(impl_->file, groupOf(certificate), replace);
    const std::int64_t end = placed.cut ? *placed.cut : size;
    if (!placed.allowed || end <= placed.rangeBegin)
        return std::nullopt;
    const EVP_MD* md = sealkeep::defaultDigestOfKey(X509_get0_pubkey(certificate));
    if (!md)
        return std::nullopt;
    std::optional<RangeDigests> digests = digestRanges(fd(), md, placed.rangeBegin, end, size);
    if (!digests) {
        std::cerr << "sealkeep: cannot read the package: " << strerror(errno ? errno : EIO) << std::endl;
        return std::nullopt;
    }
    SignaturePlan plan;
    plan.position = static_cast<std::uint32_t>(placed.position);
    plan.replace = replace;
    plan.fileSize = size;
    plan.coveredBegin = placed.rangeBegin;
    plan.coveredEnd = end;
    plan.digestNid = EVP_MD_type(md);
    plan.precedingDigest = std::move(digests->preceding);
    plan.coveredDigest = std::move(digests->covered);
    plan.cutDigest = std::move(digests->cut);
    // Per-file signatures arise where sign() makes them: a range that is a
    // whole RPM package from its start.
    if (signFiles && placed.rangeBegin == 0 && end >= 4 && startsWithRpmLead(fd())) {
        std::optional<sealkeep::PayloadDigests> files = payloadDigests(fd(), end, size, md, taKey);
        if (!files)
            return std::nullopt;
        plan.fileSignatures = true;
        plan.trustedApplicationKey = taKey;
        storeFileDigests(*files, plan);
    }
    return plan;
}

std::vector<unsigned char> signSignaturePlan(SignaturePlan const& plan, X509* certificate, EVP_PKEY* key,
                                             EVP_PKEY* taKey, stack_st_ProofOfRotation* rotationChain)
{
    if (!certificate || !key)
        return {};
    const EVP_MD* md = sealkeep::defaultDigestOfKey(key);
    if (!md)
        return {};
    if (EVP_MD_type(md) != plan.digestNid) {
        std::cerr << "sealkeep: the key signs with " << OBJ_nid2sn(EVP_MD_type(md)) << ", the plan was made for "
                  << (OBJ_nid2sn(plan.digestNid) ? OBJ_nid2sn(plan.digestNid) : "an unknown digest") << std::endl;
        return {};
    }
    std::optional<sealkeep::PayloadSignatures> tables;
    if (plan.fileSignatures) {
        tables = sealkeep::signPayloadDigests(payloadDigestsOf(plan), key, md, certificate, taKey,
                                              plan.trustedApplicationKey.algorithm,
                                              plan.trustedApplicationKey.signatureSize);
        if (!tables) {
            fprintf(stderr, "Could not sign files in package\n");
            return {};
        }
    }
    std::size_t derLength = 0;
    GBytesPtr der(sealkeep::signDigest(plan.coveredDigest.data(), plan.coveredDigest.size(),
                                       tables ? tables->ima.get() : nullptr, tables ? tables->ta.get() : nullptr,
                                       key, certificate, rotationChain, &derLength));
    if (!der || !fitsInOneBlock(derLength))
        return {};
    return std::vector<unsigned char>(der.get(), der.get() + derLength);
}

AttachResult FileWithCmses::attach(std::vector<unsigned char> const& cms, SignaturePlan const& plan,
                                   bool skippableFrame)
{
    std::optional<SignedDigest> signedDigest = signedDigestOf(cms);
    if (!signedDigest)
        return AttachResult::NotASignature;
    if (signedDigest->digestNid != plan.digestNid || signedDigest->messageDigest != plan.coveredDigest)
        return AttachResult::NotForThisPlan;
    WriteLockScope lock(*this);
    const std::int64_t size = lock.held() ? sizeOf(fd()) : -1;
    if (size <= 0 || !openForWriting(fd())) {
        std::cerr << "sealkeep: cannot write " << (impl_->path.empty() ? "the package" : impl_->path) << std::endl;
        return AttachResult::WriteFailed;
    }
    const SigningPlan placed = planSigning(impl_->file, groupOf(signedDigest->certificate), plan.replace);
    if (!placed.allowed)
        return AttachResult::PositionTaken;
    const std::int64_t end = placed.cut ? *placed.cut : size;
    if (placed.position != plan.position)
        return AttachResult::StackChanged;
    if (size != plan.fileSize || placed.rangeBegin != plan.coveredBegin || end != plan.coveredEnd)
        return AttachResult::PackageChanged;
    const EVP_MD* md = EVP_get_digestbynid(plan.digestNid);
    std::optional<RangeDigests> digests = md ? digestRanges(fd(), md, plan.coveredBegin, end, size) : std::nullopt;
    if (!digests)
        return AttachResult::PackageChanged;
    if (digests->covered != signedDigest->messageDigest)
        return AttachResult::RangeChanged;
    if (digests->preceding != plan.precedingDigest || digests->cut != plan.cutDigest)
        return AttachResult::PackageChanged;

    const std::vector<unsigned char> block = makeBlock(cms.data(), cms.size(), skippableFrame);
    if (impl_->path.empty())
        return appendInPlace(fd(), placed.cut, end, block) ? AttachResult::Attached : AttachResult::WriteFailed;
    auto rewrite = PackageRewrite::begin(impl_->path, fd());
    errno = 0;
    if (!rewrite || !rewrite->copyFrom(fd(), 0, end)) {
        std::cerr << "sealkeep: cannot write a new version of " << impl_->path << " beside it: " << strerror(errno)
                  << std::endl;
        return AttachResult::WriteFailed;
    }
    const int signedFd = commitWithBlock(*rewrite, impl_->path, end, block);
    if (signedFd < 0)
        return AttachResult::WriteFailed;
    if (FILE* stream = streamOfNewVersion(signedFd, impl_->path, impl_->locked && !lock.takenHere()))
        impl_->replaceStream(stream);
    return AttachResult::Attached;
}

char const* attachResultName(AttachResult result)
{
    switch (result) {
    case AttachResult::Attached:
        return "attached";
    case AttachResult::NotASignature:
        return "not_a_signature";
    case AttachResult::NotForThisPlan:
        return "not_for_this_plan";
    case AttachResult::PositionTaken:
        return "position_taken";
    case AttachResult::StackChanged:
        return "stack_changed";
    case AttachResult::PackageChanged:
        return "package_changed";
    case AttachResult::RangeChanged:
        return "range_changed";
    case AttachResult::WriteFailed:
        return "write_failed";
    }
    return "unknown";
}

}  // namespace PackageSignatures
