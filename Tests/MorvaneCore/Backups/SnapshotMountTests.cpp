#include "MorvaneCore/Backups/SnapshotMount.h"

#include "MorvaneCore/Shared/Errors.h"
#include "Support/ErrorText.h"
#include "Support/Fakes.h"

#include <gtest/gtest.h>

namespace morvane {
namespace {

namespace fs = std::filesystem;

constexpr const char* localSnapshot = "com.apple.TimeMachine.2024-03-01-101500.local";
constexpr const char* dataVolume = "/System/Volumes/Data";

class SnapshotMountTest : public ::testing::Test {
protected:
    void SetUp() override { volumes->devices[dataVolume] = "/dev/disk3s5"; }
    // Whatever a test left mounted goes while the recording launcher is still installed.
    void TearDown() override { SnapshotMount::unmountAll(); }

    testing::TemporaryUser user;
    testing::Installed<testing::RecordingToolLauncher> tools;
    testing::Installed<testing::FakeVolumes> volumes;
};

// Borrowed only from the same device.
TEST_F(SnapshotMountTest, BorrowsASnapshotTheSystemHasMountedAndNeverUnmountsIt) {
    tools->answer("/sbin/mount", {0, testing::recordedOutput("tools/mount.txt")});

    const auto mount = SnapshotMount::create(localSnapshot, dataVolume);
    // The first line with the prefix has no " (" and is skipped; the next is read up to its
    // last " (", keeping the brackets of the folder name.
    EXPECT_EQ(mount->mountPoint(), "/Volumes/com.apple.TimeMachine.localsnapshots/Backups.backupdb/Jane (Work) (2)/"
                                   "2024-03-01-101500/Data");
    EXPECT_FALSE(mount->mounted());

    mount->unmount();
    SnapshotMount::unmountAll();
    EXPECT_EQ(tools->commandLines(), std::vector<std::string>{"/sbin/mount"});

    volumes->devices[dataVolume] = "/dev/disk9s9";
    EXPECT_EQ(SnapshotMount::existingMount(localSnapshot, dataVolume), std::nullopt);
    // A volume whose device can't be told: the mount list isn't even read.
    EXPECT_EQ(SnapshotMount::existingMount(localSnapshot, "/Volumes/Unknown"), std::nullopt);
    EXPECT_EQ(tools->count("/sbin/mount"), 2u);

    volumes->devices["/Volumes/Backup Disk (2)"] = "/dev/disk5s1";
    EXPECT_EQ(
        SnapshotMount::existingMount("com.apple.TimeMachine.2024-02-26-093012.backup", "/Volumes/Backup Disk (2)"),
        fs::path("/Volumes/.timemachine/4C3A2B1D-9E8F-4A7B-B6C5-D4E3F2A1B0C9/2024-02-26-093012.backup"));
}

// The command that mounts and the folder it mounts in, the catalogue's tests check.
TEST_F(SnapshotMountTest, UnmountAllSweepsUpWhatTheProcessStillHolds) {
    SnapshotMount::unmountAll();
    EXPECT_TRUE(tools->commandLines().empty());

    tools->answerPrefix("/sbin/mount_apfs ", {0, ""});
    // umount fails: the object counts as unmounted all the same, and nothing is retried.
    tools->answerPrefix("/sbin/umount ", {1, "umount: busy"});
    const auto first = SnapshotMount::create(localSnapshot, dataVolume);
    const auto second = SnapshotMount::create("com.apple.TimeMachine.2024-03-02-101500.local", dataVolume);

    SnapshotMount::unmountAll();
    EXPECT_EQ(tools->count("/sbin/umount "), 2u);
    EXPECT_FALSE(first->mounted());
    EXPECT_FALSE(second->mounted());
    SnapshotMount::unmountAll();
    first->unmount();
    EXPECT_EQ(tools->count("/sbin/umount "), 2u);
}

TEST_F(SnapshotMountTest, AFailedMountLeavesNoFolderAndSaysWhy) {
    tools->answerPrefix("/sbin/mount_apfs ", {75, "mount_apfs: volume could not be mounted: Resource busy\n\n"});
    EXPECT_EQ(testing::errorText<RestoreError>([] { SnapshotMount::create(localSnapshot, dataVolume); }),
              std::string("Couldn't mount snapshot ") + localSnapshot +
                  ": mount_apfs: volume could not be mounted: Resource busy");
    EXPECT_TRUE(fs::is_empty(user.temporary()));
    SnapshotMount::unmountAll();
    EXPECT_EQ(tools->count("/sbin/umount"), 0u);

    // A folder that can't be created is the platform's error, and nothing is mounted.
    testing::Installed<testing::FakeUserFolders> folders(user.home(), user.root().write("not-a-folder"));
    EXPECT_THROW(SnapshotMount::create(localSnapshot, dataVolume), PlatformError);
    EXPECT_EQ(tools->count("/sbin/mount_apfs"), 1u);
}

} // namespace
} // namespace morvane
