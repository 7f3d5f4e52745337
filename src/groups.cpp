// Groups and subgroups and their text forms. A certificate's group extension
// holds "group" or "group:subgroup"; a group alone means the regular subgroup.
#include <sealkeep/groups.hpp>

#include <sstream>
#include <string>
#include <unordered_map>
#include <vector>

namespace PackageSignatures {
namespace {

// Splits at every ':' the way lines are read with ':' as the line end: "a::b"
// gives "a", "" and "b", a trailing ':' adds no empty piece, and the empty
// text gives no piece at all.
std::vector<std::string> piecesOf(const char* text)
{
    std::vector<std::string> pieces;
    std::istringstream stream(text);
    for (std::string piece; std::getline(stream, piece, ':');)
        pieces.push_back(piece);
    return pieces;
}

}  // namespace

std::string groupToString(Group group)
{
    switch (group) {
    case Group::Developer:
        return "developer";
    case Group::Seclab:
        return "seclab";
    case Group::Client:
        return "client";
    default:
        return "";
    }
}

std::string subgroupToString(Subgroup subgroup)
{
    switch (subgroup) {
    case Subgroup::Regular:
        return "regular";
    case Subgroup::Antivirus:
        return "antivirus";
    case Subgroup::Extended:
        return "extended";
    case Subgroup::Mdm:
        return "mdm";
    case Subgroup::Auth:
        return "auth";
    case Subgroup::Market:
        return "market";
    case Subgroup::SystemApp:
        return "systemapp";
    case Subgroup::SubstituteComponent:
        return "substitutecomponent";
    default:
        return "<unknown>";
    }
}

Group groupFromString(const char* text)
{
    static const std::unordered_map<std::string, Group> groups{
        {"developer", Group::Developer},
        {"seclab", Group::Seclab},
        {"client", Group::Client},
    };
    if (!text)
        return Group::None;
    std::vector<std::string> pieces = piecesOf(text);
    if (pieces.empty())
        return Group::None;
    auto found = groups.find(pieces[0]);
    return found == groups.end() ? Group::None : found->second;
}

Subgroup subgroupFromString(const char* text)
{
    // "regular" is deliberately absent: a certificate is regular by naming no
    // subgroup, so an explicit "regular" is not a valid subgroup text.
    static const std::unordered_map<std::string, Subgroup> subgroups{
        {"antivirus", Subgroup::Antivirus},
        {"extended", Subgroup::Extended},
        {"mdm", Subgroup::Mdm},
        {"auth", Subgroup::Auth},
        {"market", Subgroup::Market},
        {"systemapp", Subgroup::SystemApp},
        {"substitutecomponent", Subgroup::SubstituteComponent},
    };
    if (!text)
        return Subgroup::None;
    std::vector<std::string> pieces = piecesOf(text);
    if (pieces.size() < 2)
        return Subgroup::Regular;
    auto found = subgroups.find(pieces[1]);
    return found == subgroups.end() ? Subgroup::None : found->second;
}

}  // namespace PackageSignatures
