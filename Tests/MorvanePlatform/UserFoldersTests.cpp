#include "MorvanePlatform/UserFolders.h"

#include "Support/Pinned.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <optional>
#include <string>

namespace morvane {
namespace {

using testing::ScopedVariable;

// HOME and TMPDIR themselves are what the program started by the restore point tests runs in.
TEST(UserFolders, TheTemporaryFolderFallsBackToTmp) {
    ScopedVariable tmp("TMPDIR", nullptr);
    EXPECT_EQ(UserFolders::system().temporary(), "/tmp");
}

TEST(UserFolders, HomeFallsBackToThePasswordDatabase) {
    ScopedVariable home("HOME", nullptr);
    EXPECT_FALSE(UserFolders::system().home().empty());
    const auto own = UserFolders::system().homeOf(UserFolders::system().userName());
    ASSERT_TRUE(own.has_value());
    EXPECT_EQ(UserFolders::system().home(), *own);
    EXPECT_EQ(UserFolders::system().homeOf("no-such-user-here"), std::nullopt);
}

} // namespace
} // namespace morvane
