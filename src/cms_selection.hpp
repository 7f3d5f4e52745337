// Internal: the answers of a Cms for the bytes it holds now, and which
// signature of a file's list is the developer's or the client's, without
// copying it.
//
// The public accessors of Cms keep their first answer even after assign();
// the library's decisions must not follow such an answer, nor fill those
// caches as a side effect that would change what the caller sees later.
// These answers are cached in the object until its bytes are replaced, so
// repeated decisions on the same bytes decode them once.
#ifndef SEALKEEP_SRC_CMS_SELECTION_HPP
#define SEALKEEP_SRC_CMS_SELECTION_HPP

#include <memory>
#include <optional>
#include <vector>

#include <sealkeep/cms.hpp>

typedef struct CMS_ContentInfo_st CMS_ContentInfo;

namespace PackageSignatures {

struct CmsAccess {
    // The parse of the bytes held now; null when they do not decode.
    static std::shared_ptr<CMS_ContentInfo> parsedNow(Cms const& cms);
    static std::shared_ptr<Certificate> certificateNow(Cms const& cms);
    static std::shared_ptr<RotationChain> rotationChainNow(Cms const& cms);
    // A copy made by the copy constructor, without a file table loaded from
    // former bytes.
    static std::optional<Cms> currentCopy(Cms const& cms);
};

// The first signature of the list when its signer is a developer; null
// otherwise. The pointer is into cmses.
Cms const* developerCmsIn(std::vector<Cms> const& cmses);
// The last signature of the list when its signer is a client; null otherwise.
Cms const* clientCmsIn(std::vector<Cms> const& cmses);

}  // namespace PackageSignatures

#endif
