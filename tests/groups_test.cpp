// Groups and subgroups: their texts and the parsing of a certificate's group
// extension text.
#include <gtest/gtest.h>

#include <sealkeep/groups.hpp>

namespace {

using PackageSignatures::Group;
using PackageSignatures::GroupFlag;
using PackageSignatures::Subgroup;
using PackageSignatures::groupFromString;
using PackageSignatures::groupToString;
using PackageSignatures::subgroupFromString;
using PackageSignatures::subgroupToString;

TEST(Groups, EnumerationValuesAreFixed)
{
    EXPECT_EQ(0u, static_cast<unsigned>(Group::None));
    EXPECT_EQ(1u, static_cast<unsigned>(Group::Developer));
    EXPECT_EQ(2u, static_cast<unsigned>(Group::Seclab));
    EXPECT_EQ(3u, static_cast<unsigned>(Group::Client));
    EXPECT_EQ(1u, static_cast<unsigned>(Subgroup::Regular));
    EXPECT_EQ(8u, static_cast<unsigned>(Subgroup::SubstituteComponent));
    EXPECT_EQ(1u, static_cast<unsigned>(GroupFlag::Developer));
    EXPECT_EQ(2u, static_cast<unsigned>(GroupFlag::Seclab));
    EXPECT_EQ(4u, static_cast<unsigned>(GroupFlag::Client));
    EXPECT_EQ(4u, sizeof(Group));
    EXPECT_EQ(4u, sizeof(Subgroup));
}

TEST(Groups, GroupTexts)
{
    EXPECT_EQ("developer", groupToString(Group::Developer));
    EXPECT_EQ("seclab", groupToString(Group::Seclab));
    EXPECT_EQ("client", groupToString(Group::Client));
    EXPECT_EQ("", groupToString(Group::None));
    EXPECT_EQ("", groupToString(static_cast<Group>(7)));
}

TEST(Groups, SubgroupTexts)
{
    const char* expected[] = {"<unknown>", "regular", "antivirus", "extended", "mdm",
                              "auth",      "market",  "systemapp", "substitutecomponent"};
    for (unsigned value = 0; value < 9; ++value)
        EXPECT_EQ(expected[value], subgroupToString(static_cast<Subgroup>(value))) << value;
    EXPECT_EQ("<unknown>", subgroupToString(static_cast<Subgroup>(9)));
}

TEST(Groups, TextsRoundTrip)
{
    for (Group group : {Group::Developer, Group::Seclab, Group::Client})
        EXPECT_EQ(group, groupFromString(groupToString(group).c_str()));
    for (unsigned value = 2; value <= 8; ++value) {
        auto subgroup = static_cast<Subgroup>(value);
        EXPECT_EQ(subgroup, subgroupFromString(("client:" + subgroupToString(subgroup)).c_str()));
    }
}

TEST(Groups, GroupAndSubgroupOfOneText)
{
    EXPECT_EQ(Group::Developer, groupFromString("developer:antivirus"));
    EXPECT_EQ(Subgroup::Antivirus, subgroupFromString("developer:antivirus"));
}

TEST(Groups, GroupNamesAreCaseSensitive)
{
    EXPECT_EQ(Group::None, groupFromString("Developer"));
    EXPECT_EQ(Subgroup::None, subgroupFromString("developer:MDM"));
}

TEST(Groups, EmptyOrNullTextHasNoGroup)
{
    EXPECT_EQ(Group::None, groupFromString(""));
    EXPECT_EQ(Group::None, groupFromString(nullptr));
    EXPECT_EQ(Group::None, groupFromString(":mdm"));
    EXPECT_EQ(Group::None, groupFromString("nonsense"));
}

TEST(Groups, TextWithoutSubgroupIsRegular)
{
    EXPECT_EQ(Subgroup::Regular, subgroupFromString("seclab"));
    EXPECT_EQ(Subgroup::Regular, subgroupFromString("seclab:"));
    EXPECT_EQ(Subgroup::Regular, subgroupFromString(""));
    EXPECT_EQ(Group::Seclab, groupFromString("seclab:"));
}

TEST(Groups, ExplicitRegularIsNotASubgroupText)
{
    EXPECT_EQ(Subgroup::None, subgroupFromString("seclab:regular"));
}

TEST(Groups, NullTextHasNoSubgroup)
{
    EXPECT_EQ(Subgroup::None, subgroupFromString(nullptr));
}

TEST(Groups, SubgroupIgnoresTheGroupPiece)
{
    EXPECT_EQ(Subgroup::Mdm, subgroupFromString(":mdm"));
    EXPECT_EQ(Subgroup::Mdm, subgroupFromString("nonsense:mdm"));
}

TEST(Groups, EmptyPieceBetweenColonsIsTheSubgroup)
{
    EXPECT_EQ(Subgroup::None, subgroupFromString("client::mdm"));
    EXPECT_EQ(Group::Client, groupFromString("client::mdm"));
}

TEST(Groups, PiecesAfterTheSubgroupAreIgnored)
{
    EXPECT_EQ(Subgroup::Market, subgroupFromString("client:market:extra"));
    EXPECT_EQ(Subgroup::Market, subgroupFromString("client:market:"));
}

TEST(Groups, SurroundingSpaceIsNotTrimmed)
{
    EXPECT_EQ(Group::None, groupFromString(" developer"));
    EXPECT_EQ(Subgroup::None, subgroupFromString("developer: mdm"));
}

}  // namespace
