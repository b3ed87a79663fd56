#include "MorvanePlatform/Volumes.h"

#include <fstream>
#include <gtest/gtest.h>
#include <mntent.h>
#include <string>

namespace morvane {
namespace {

// The mount source of "/" as the mount table lists it last.
std::string rootSource() {
    std::string source;
    FILE* table = ::setmntent("/proc/self/mounts", "r");
    while (const mntent* entry = ::getmntent(table)) {
        if (std::string(entry->mnt_dir) == "/") source = entry->mnt_fsname;
    }
    ::endmntent(table);
    return source;
}

TEST(Volumes, GivesTheSourceOfTheFileSystemHoldingAPathOrNothing) {
    const auto root = Volumes::system().deviceOf("/");
    ASSERT_TRUE(root.has_value());
    EXPECT_EQ(*root, rootSource());

    // /proc is a mount of its own: the longest matching mount point wins.
    EXPECT_EQ(Volumes::system().deviceOf("/proc/self"), std::optional<std::string>("proc"));
    // Nothing for a missing path.
    EXPECT_EQ(Volumes::system().deviceOf("/no/such/volume"), std::nullopt);
    EXPECT_EQ(Volumes::system().deviceOf("/System/Volumes/Data"), std::nullopt);
}

} // namespace
} // namespace morvane
