#include "MorvaneCore/Backups/BackupCache.h"
#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/SnapshotStore/CalendarArchive.h"
#include "MorvanePlatform/EventKit.h"
#include "MorvanePlatform/Files.h"
#include "RunCommandLine.h"
#include "Support/Fakes.h"
#include "Support/SavedEvents.h"
#include "Support/UTC.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace morvane {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::holds;
using testing::utc;

class SearchAndStorageCommandsTest : public ::testing::Test {
protected:
    testing::TemporaryUser user;
    testing::Installed<testing::FixedClock> clock{utc(2024, 6, 1, 12)};
};

TEST_F(SearchAndStorageCommandsTest, SearchFindsADeletedEventInTheRestorePointsAndTheListCountsWhatWasLostSince) {
    EKEventStore store;
    auto dentist = testing::saveEvent(store, "Dentist Dr. Berg", utc(2024, 6, 3, 16), utc(2024, 6, 3, 17));
    testing::saveEvent(store, "Review", utc(2024, 6, 4, 16), utc(2024, 6, 4, 17));
    ASSERT_EQ(testing::runCommandLine({"snapshot", "--quiet"}).status, 0);
    clock->set(utc(2024, 6, 2, 12));
    store.removeEvent(*dentist, EKSpan::thisEvent, true);
    ASSERT_EQ(testing::runCommandLine({"snapshot", "--quiet"}).status, 0);

    const auto text = testing::runCommandLine({"search", "DENTIST", "dr.", "--no-time-machine"});
    ASSERT_EQ(text.status, 0) << text.err;
    const auto archive = CalendarArchive::shared();
    const auto id = archive->fileURL(archive->entries().back());
    EXPECT_EQ(text.out, "Dentist Dr. Berg  2024-06-03 09:00  Calendar (On My Mac)  in 1 backup  gone  morvane compare "
                        "'app:" +
                            id.string() + "'\n")
        << text.out;
    EXPECT_TRUE(text.err.empty()) << "no progress line off a terminal";

    const auto json = testing::runCommandLine({"search", "review", "--no-time-machine", "--json"});
    ASSERT_EQ(json.status, 0) << json.err;
    const auto document = nlohmann::json::parse(json.out);
    EXPECT_TRUE(holds(document, {{"searched", 2}, {"total", 2}, {"unreadable", nlohmann::json::array()}}));
    ASSERT_EQ(document["results"].size(), 1u);
    const auto& result = document["results"][0];
    EXPECT_TRUE(holds(result, {{"backupCount", 2}, {"existsNow", true}, {"id", result["entry"]["uid"]}}));
    EXPECT_TRUE(holds(result["entry"], {{"start", "2024-06-04T16:00:00Z"}, {"location", nullptr}}));
    EXPECT_EQ(result["source"]["kind"], "appSnapshot");

    const auto listed = testing::runCommandLine({"backups", "--summaries", "--no-time-machine"});
    ASSERT_EQ(listed.status, 0) << listed.err;
    const auto newline = listed.out.find('\n');
    EXPECT_TRUE(listed.out.substr(0, newline).ends_with("  0 deleted, 0 changed since")) << listed.out;
    EXPECT_TRUE(listed.out.substr(newline).ends_with("  1 deleted, 0 changed since\n")) << listed.out;

    const auto none = testing::runCommandLine({"search", "piano", "--no-time-machine"});
    EXPECT_EQ(none.out, "No event in 2 backups holds \"piano\".\n");
    const auto blank = testing::runCommandLine({"search", " ", "--no-time-machine"});
    EXPECT_EQ(blank.status, 2);
    EXPECT_EQ(blank.err, "morvane: give a word to search for.\n");
}

TEST_F(SearchAndStorageCommandsTest, StorageMeasuresAndUninstallRemovesOnlyWhatItIsToldAndNeverTheCalendars) {
    testing::saveEvent(*std::make_shared<EKEventStore>(), "Dentist", utc(2024, 6, 3, 16), utc(2024, 6, 3, 17));
    ASSERT_EQ(testing::runCommandLine({"snapshot", "--quiet"}).status, 0);
    files::createDirectories(BackupCache::shared().directory());
    files::write(BackupCache::shared().directory() / "copy.calsnap", "c");
    const auto live = files::read(BackupLocator::liveDBPath());

    const auto measured = testing::runCommandLine({"storage", "--json"});
    ASSERT_EQ(measured.status, 0) << measured.err;
    // What each number counts, the uninstaller's tests check.
    EXPECT_EQ(nlohmann::json::parse(measured.out)["snapshots"], 1);
    const auto text = testing::runCommandLine({"storage"});
    EXPECT_THAT(text.out, HasSubstr("Restore points: 1 restore point, "));

    const auto unconfirmed = testing::runCommandLine({"uninstall"});
    EXPECT_EQ(unconfirmed.status, 2) << "no terminal to ask on";
    EXPECT_TRUE(fs::exists(BackupCache::shared().directory()));

    const auto cacheOnly = testing::runCommandLine({"uninstall", "--yes"});
    ASSERT_EQ(cacheOnly.status, 0) << cacheOnly.err;
    EXPECT_TRUE(fs::exists(CalendarArchive::shared()->directory()));

    const auto everything = testing::runCommandLine({"uninstall", "--restore-points", "--yes"});
    ASSERT_EQ(everything.status, 0) << everything.err;
    EXPECT_THAT(everything.out, HasSubstr("Restore points: 1 restore point"));
    EXPECT_FALSE(fs::exists(CalendarArchive::shared()->directory().parent_path()));
    EXPECT_EQ(files::read(BackupLocator::liveDBPath()), live);
}

} // namespace
} // namespace morvane
