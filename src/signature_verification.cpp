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
#include <sealkeep/file_with_cmses.hpp>
#include <sealkeep/sealkeep.h>

#include "cms_verify_content.hpp"
#include "common/ossl_ptr.hpp"
#include "common/streaming_bio.hpp"
#include "file_with_cmses_impl.hpp"
#include "signature_stack.hpp"
#include "signed_file_layout.hpp"
#include "signer_facts.hpp"
#include "signer_validity.hpp"
#include "verification_report_record.hpp"

namespace PackageSignatures {

namespace {

VerificationReason reasonOf(sealkeep::CmsCheck check)
{
    switch (check) {
    case sealkeep::CmsCheck::Passed:
        return VerificationReason::Ok;
    case sealkeep::CmsCheck::Malformed:
        return VerificationReason::CmsMalformed;
    case sealkeep::CmsCheck::CertificateChain:
        return VerificationReason::CertificateChainNotTrusted;
    case sealkeep::CmsCheck::ContentDigest:
        return VerificationReason::ContentDigestMismatch;
    case sealkeep::CmsCheck::Signature:
        return VerificationReason::SignatureInvalid;
    case sealkeep::CmsCheck::RotationInvalid:
        return VerificationReason::RotationChainInvalid;
    case sealkeep::CmsCheck::RotationNotAtSigner:
        return VerificationReason::RotationChainNotAtSigner;
    }
    return VerificationReason::CmsMalformed;
}

// A certificate that chains to the CA but is outside its validity period is
// named as such: the CA is not to blame for it.
VerificationReason chainReason(CMS_ContentInfo* cms, X509_STORE* store)
{
    switch (sealkeep::signerChainTime(cms, store)) {
    case sealkeep::ChainTime::Expired:
        return VerificationReason::CertificateExpired;
    case sealkeep::ChainTime::NotYetValid:
        return VerificationReason::CertificateNotYetValid;
    case sealkeep::ChainTime::Other:
        break;
    }
    return VerificationReason::CertificateChainNotTrusted;
}

}  // namespace

bool FileWithCmses::verifyCmses(char const* caPath)
{
    return verificationReport(caPath).verified();
}

// The one walk behind verifyCmses and the report: newest block first, each
// over its covered bytes, then its signer's position; the first refusal ends it.
VerificationReport FileWithCmses::verificationReport(char const* caPath)
{
    VerificationReport result;
    ReportAccess::ReportRecord& report = ReportAccess::of(result);
    auto refuse = [&](VerificationReason reason) {
        report.reason = reason;
        if (!report.blocks.empty())
            ReportAccess::of(report.blocks.back()).reason = reason;
        return result;
    };
    // A CA file that yields no certificate (a key, DER, garbage) trusts
    // nothing: that is the CA file's fault, not any signer's.
    sealkeep::X509StorePtr store(certificate_store_read(caPath));
    if (!store || sk_X509_OBJECT_num(X509_STORE_get0_objects(store.get())) == 0)
        return refuse(VerificationReason::UnreadableCa);
    auto locations = locateCmses(impl_->file);
    report.signatures = locations.size();
    if (locations.empty())
        return refuse(VerificationReason::NoSignatures);
    if (locations.size() > maxSignatures)
        return refuse(VerificationReason::TooManySignatures);

    for (std::size_t i = locations.size(); i-- > 0;) {
        auto range = coveredRange(impl_->file, locations, i);
        report.blocks.emplace_back();
        ReportAccess::BlockRecord& block = ReportAccess::of(report.blocks.back());
        block.index = i;
        block.coveredBegin = range ? range->begin : 0;
        block.coveredEnd = range ? range->end : 0;
        if (!range)
            return refuse(VerificationReason::CmsMalformed);
        Cms cms(readFileRangeWithin(impl_->file, locations[i].begin, locations[i].end));
        CMS_ContentInfo* parsed = cms.parsed();
        if (!parsed)
            return refuse(VerificationReason::CmsMalformed);
        // From the CMS just read, before it is judged: a refused block still
        // names who it claims signed it.
        block.signer = signerFactsOf(parsed);
        sealkeep::BioPtr covered(sealkeep::bioOverFileRange(fd(), range->begin, range->end));
        sealkeep::CmsCheck check = sealkeep::checkCmsContent(covered.get(), parsed, store.get());
        if (check == sealkeep::CmsCheck::CertificateChain)
            return refuse(chainReason(parsed, store.get()));
        if (check != sealkeep::CmsCheck::Passed)
            return refuse(reasonOf(check));
        // The position rule judges the group as the library's readers see
        // it, messages included, as verifyCmses always did.
        auto certificate = cms.certificate();
        if (!groupAllowedAt(i, certificate ? certificate->group() : Group::None))
            return refuse(VerificationReason::GroupNotAllowed);
    }
    report.verified = true;
    return result;
}

}  // namespace PackageSignatures
