// Internal: which signature of a file's list is the developer's or the
// client's, without copying it. The library's own callers hold on to the
// caller's element, whose parsed certificate and rotation chain stay cached
// from one call to the next.
#ifndef SEALKEEP_SRC_CMS_SELECTION_HPP
#define SEALKEEP_SRC_CMS_SELECTION_HPP

#include <vector>

#include <sealkeep/cms.hpp>

namespace PackageSignatures {

// The first signature of the list when its signer is a developer; null
// otherwise. The pointer is into cmses.
Cms const* developerCmsIn(std::vector<Cms> const& cmses);
// The last signature of the list when its signer is a client; null otherwise.
Cms const* clientCmsIn(std::vector<Cms> const& cmses);

}  // namespace PackageSignatures

#endif
