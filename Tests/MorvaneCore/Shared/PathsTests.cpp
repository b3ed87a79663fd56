#include "MorvaneCore/Shared/Paths.h"

#include "Support/Fakes.h"

#include <gtest/gtest.h>

namespace morvane {
namespace {

TEST(Paths, LastComponentAndItsRemovalIgnoreTrailingSlashes) {
    EXPECT_EQ(paths::lastComponent("/Volumes/Backup/2024-03-01-101500/"), "2024-03-01-101500");
    EXPECT_EQ(paths::lastComponent("/"), "/");
    EXPECT_EQ(paths::lastComponent("name.ics"), "name.ics");
    EXPECT_EQ(paths::deletingLastComponent("/Volumes/Backup/2024/"), "/Volumes/Backup");
    EXPECT_EQ(paths::deletingLastComponent("/Volumes"), "/");
    EXPECT_EQ(paths::deletingLastComponent("/"), "/");
    EXPECT_EQ(paths::deletingLastComponent("relative"), "");
    EXPECT_EQ(paths::deletingLastComponent("a//b"), "a");
}

TEST(Paths, TildeStandsForTheHomeFolderOnlyAsAWholeComponent) {
    testing::Installed<testing::FakeUserFolders> folders("/Users/jane/", "/tmp", "jane");

    EXPECT_EQ(paths::expandingTilde("~"), "/Users/jane");
    EXPECT_EQ(paths::expandingTilde("~/Calendars"), "/Users/jane/Calendars");
    EXPECT_EQ(paths::expandingTilde("~jane/x"), "/Users/jane/x");
    EXPECT_EQ(paths::expandingTilde("~nobody-known/x"), "~nobody-known/x");
    EXPECT_EQ(paths::expandingTilde("/a/~/b"), "/a/~/b");

    EXPECT_EQ(paths::abbreviatingWithTilde("/Users/jane/Desktop/cal.ics"), "~/Desktop/cal.ics");
    EXPECT_EQ(paths::abbreviatingWithTilde("/Users/jane"), "~");
    EXPECT_EQ(paths::abbreviatingWithTilde("/Users/janet/x"), "/Users/janet/x");
    EXPECT_EQ(paths::abbreviatingWithTilde("/Volumes/x"), "/Volumes/x");
}

} // namespace
} // namespace morvane
