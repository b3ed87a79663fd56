#include "MorvaneCore/Backups/BackupSource.h"

#include "Support/Fakes.h"

#include <gtest/gtest.h>
#include <unordered_set>

namespace morvane {
namespace {

using Kind = BackupSource::Kind;

// The ids of the other kinds are read in the catalogue's tests.
TEST(BackupSource, IdentityIsTheIdAlone) {
    EXPECT_EQ(BackupSource(Kind::icsArchive("/a/cals"), {}).id(), "ics:/a/cals");
    const BackupSource dated(Kind::file("/a/db"), Date{100}, true);
    const BackupSource undated(Kind::file("/a/db"), std::nullopt);
    EXPECT_EQ(dated, undated);
    EXPECT_EQ(std::hash<BackupSource>()(dated), std::hash<BackupSource>()(undated));

    // iCloud copies of one path from two Macs: one source, two kinds.
    const BackupSource fromIMac(Kind::iCloudSnapshot("/c/x.calsnap", "iMac"), {});
    const BackupSource fromLaptop(Kind::iCloudSnapshot("/c/x.calsnap", "MacBook"), {});
    EXPECT_EQ(fromIMac, fromLaptop);
    EXPECT_NE(fromIMac.kind, fromLaptop.kind);
    EXPECT_NE(std::hash<Kind>()(fromIMac.kind), std::hash<Kind>()(fromLaptop.kind));

    // The same path in two stores, or spelt two ways, is two sources.
    EXPECT_NE(BackupSource(Kind::appSnapshot("/x"), {}), BackupSource(Kind::timeMachineImport("/x"), {}));
    EXPECT_NE(BackupSource(Kind::file("/a/b"), {}), BackupSource(Kind::file("/a//b"), {}));

    std::unordered_set<BackupSource> set{dated, undated, fromIMac, fromLaptop};
    EXPECT_EQ(set.size(), 2u);
}

// The date, and the id of an undated backup, are the titles `morvane backups` shows.
TEST(BackupSource, TitleOfAPickedFileOrArchiveIsItsName) {
    EXPECT_EQ(BackupSource(Kind::file("/Users/jane/Desktop/Calendar.sqlitedb"), {}).title(), "Calendar.sqlitedb");
    EXPECT_EQ(BackupSource(Kind::icsArchive("/Users/jane/Old Calendars/"), {}).title(), "Old Calendars");
    EXPECT_EQ(BackupSource(Kind::appSnapshot("/s/x.calsnap"), {}).title(), "app:/s/x.calsnap");
}

TEST(BackupSource, SubtitleNamesTheKindAndWhereItIs) {
    testing::Installed<testing::FakeUserFolders> folders("/Users/jane", "/tmp");

    // The home folder is not abbreviated for Time Machine paths.
    EXPECT_EQ(BackupSource(Kind::timeMachine("/Users/jane/Backups/2024-03-01-101500"), {}).subtitle(),
              "Time Machine \u00B7 /Users/jane/Backups");
    EXPECT_EQ(BackupSource(Kind::file("/Users/jane/Desktop/Calendar.sqlitedb"), {}).subtitle(),
              "~/Desktop/Calendar.sqlitedb");
    EXPECT_EQ(BackupSource(Kind::icsArchive("/Users/jane/Exports/Work"), {}).subtitle(),
              ".ics archive \u00B7 ~/Exports");
    EXPECT_EQ(BackupSource(Kind::timeMachineImport("/x"), {}).subtitle(), "Time Machine (via the helper)");
}

} // namespace
} // namespace morvane
