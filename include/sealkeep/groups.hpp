// Certificate groups (who signed) and subgroups (what kind of software), and
// their text forms as carried in a certificate's group extension
// ("group" or "group:subgroup").
#ifndef SEALKEEP_GROUPS_HPP
#define SEALKEEP_GROUPS_HPP

#include <cstdint>
#include <map>
#include <string>

#include <sealkeep/export.hpp>

namespace PackageSignatures {

enum class Group : std::uint32_t {
    None = 0,  // no group, or one this library does not know
    Developer = 1,
    Seclab = 2,
    Client = 3,
};

enum class Subgroup : std::uint32_t {
    None = 0,  // the subgroup text did not parse
    Regular = 1,
    Antivirus = 2,
    Extended = 3,
    Mdm = 4,
    Auth = 5,
    Market = 6,
    SystemApp = 7,
    SubstituteComponent = 8,
};

// One bit per group, so that a set of groups fits in an unsigned integer.
enum class GroupFlag : std::uint32_t {
    Developer = 1,
    Seclab = 2,
    Client = 4,
};

// "developer", "seclab", "client"; the empty string for anything else.
SEALKEEP_EXPORT std::string groupToString(Group group);
// "regular" ... "substitutecomponent"; "<unknown>" for anything else.
SEALKEEP_EXPORT std::string subgroupToString(Subgroup subgroup);
// The group named before the first ':' of text (case-sensitive); None for a
// null, empty or unknown text.
SEALKEEP_EXPORT Group groupFromString(const char* text);
// The subgroup named after the first ':' of text. A text without a subgroup
// means Regular; an unknown subgroup (including an explicit "regular") None.
SEALKEEP_EXPORT Subgroup subgroupFromString(const char* text);

}  // namespace PackageSignatures

#endif
