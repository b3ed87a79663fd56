#include "MorvanePlatform/UserFolders.h"

#include "Support/Pinned.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <optional>
#include <string>

namespace morvane {
namespace {

using testing::ScopedVariable;

TEST(UserFolders, HomeAndTemporaryFolderComeFromTheEnvironment) {
    ScopedVariable home("HOME", "/home/jane");
    EXPECT_EQ(UserFolders::system().applicationSupport(), "/home/jane/Library/Application Support");
    {
        ScopedVariable tmp("TMPDIR", "/var/tmp/jane");
        EXPECT_EQ(UserFolders::system().temporary(), "/var/tmp/jane");
    }
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
