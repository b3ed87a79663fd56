#include "MorvanePlatform/Error.h"
#include "MorvanePlatform/Files.h"
#include "MorvanePlatform/Trash.h"
#include "MorvanePlatform/UserDefaults.h"
#include "Support/Fakes.h"

#include <cstdlib>
#include <gtest/gtest.h>

namespace morvane {
namespace {

namespace fs = std::filesystem;

class DesktopServicesTest : public ::testing::Test {
protected:
    testing::TemporaryUser user;
    testing::Installed<testing::FakeBundle> bundle{user.home() / "Tool", std::string("com.example.tool")};
};

TEST_F(DesktopServicesTest, TrashedItemsKeepWhereTheyCameFromAndNeverOverwriteEachOther) {
    const auto folder = user.home() / "My Files";
    files::createDirectories(folder);
    const auto trash = user.home() / ".local/share/Trash";
    for (const auto* content : {"first", "second"}) {
        files::write(folder / "notes.txt", content);
        Trash::system().trashItem(folder / "notes.txt");
        EXPECT_FALSE(fs::exists(folder / "notes.txt"));
    }
    EXPECT_EQ(files::read(trash / "files/notes.txt"), "first");
    EXPECT_EQ(files::read(trash / "files/notes.2.txt"), "second");
    const auto info = files::read(trash / "info/notes.2.txt.trashinfo");
    EXPECT_TRUE(info.starts_with("[Trash Info]\nPath=" + user.home().string() + "/My%20Files/notes.txt\nDeletionDate="))
        << info;

    // A folder goes whole; a missing item is an error and leaves no info file behind.
    files::createDirectories(folder / "sub");
    Trash::system().trashItem(folder);
    EXPECT_TRUE(fs::is_directory(trash / "files/My Files/sub"));
    EXPECT_THROW(Trash::system().trashItem(user.home() / "missing"), PlatformError);
    EXPECT_FALSE(fs::exists(trash / "info/missing.trashinfo"));

    const auto dataHome = user.home() / "data";
    testing::ScopedVariable variable("XDG_DATA_HOME", dataHome.c_str());
    files::write(user.home() / "a", "a");
    EXPECT_EQ(Trash::system().trashItem(user.home() / "a"), dataHome / "Trash/files/a");
}

TEST_F(DesktopServicesTest, DefaultsLiveInTheBundlesPreferencesFile) {
    auto& defaults = UserDefaults::system();
    EXPECT_FALSE(defaults.boolForKey("iCloudBackup"));
    defaults.setBool("iCloudBackup", true);
    defaults.setString("iCloudBackupError", "No space left");
    const auto file = user.home() / "Library/Preferences/com.example.tool.plist";
    EXPECT_EQ(UserDefaults::fileOf("com.example.tool"), file);
    ASSERT_TRUE(fs::exists(file));
    EXPECT_NE(files::read(file).find("<key>iCloudBackup</key>"), std::string::npos);
    EXPECT_EQ(defaults.boolForKey("iCloudBackup"), true);
    EXPECT_EQ(defaults.stringForKey("iCloudBackupError"), "No space left");
    EXPECT_FALSE(defaults.stringForKey("iCloudBackup")); // a value of another type reads as none

    defaults.removeObjectForKey("iCloudBackupError");
    EXPECT_FALSE(defaults.stringForKey("iCloudBackupError"));
    EXPECT_EQ(defaults.boolForKey("iCloudBackup"), true);

    defaults.removePersistentDomain("com.example.tool");
    EXPECT_FALSE(fs::exists(file));
    EXPECT_FALSE(defaults.boolForKey("iCloudBackup"));

    // A damaged file reads as empty and is replaced on the next write.
    files::write(file, "<plist><dict><key>x</key>");
    EXPECT_FALSE(defaults.boolForKey("x"));
    defaults.setBool("y", false);
    EXPECT_EQ(defaults.boolForKey("y"), false);
}

} // namespace
} // namespace morvane
