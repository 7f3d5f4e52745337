#include <gtest/gtest.h>
#include <sealkeep/sealkeep.hpp>
TEST(Smoke, Loads) { EXPECT_EQ(12u, PackageSignatures::CmsHeader().size()); }
