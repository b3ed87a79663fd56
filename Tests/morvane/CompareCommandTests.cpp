#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/Database/CalendarDatabase.h"
#include "MorvaneCore/Shared/Compression.h"
#include "MorvanePlatform/EventKit.h"
#include "MorvanePlatform/Files.h"
#include "RunCommandLine.h"
#include "Support/CalendarDatabaseBuilder.h"
#include "Support/Fakes.h"
#include "Support/Pinned.h"
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

class CompareCommandTest : public ::testing::Test {
protected:
    testing::TemporaryUser user;
    testing::Installed<testing::FixedClock> clock{utc(2024, 6, 1, 12)};
};

TEST_F(CompareCommandTest, ShowsEachDifferenceSinceARestorePointAsTextAndJSONAndTouchesNothing) {
    EKEventStore store;
    auto dentist = testing::saveEvent(store, "Dentist", utc(2024, 6, 3, 16), utc(2024, 6, 3, 17));
    auto review = testing::saveEvent(store, "Review", utc(2024, 6, 4, 16), utc(2024, 6, 4, 17));
    auto choir = testing::saveEvent(store, "Choir", utc(2024, 6, 5, 2), utc(2024, 6, 5, 4), testing::pinnedZone,
                                    testing::repeating(EKRecurrenceFrequency::weekly, 6));

    auto edited = testing::occurrenceAt(store, *choir, utc(2024, 6, 19, 2));
    edited->location = "Hall A";
    store.saveEvent(*edited, EKSpan::thisEvent, true);

    // The earlier state as a restore point, named by its id in the list of backups.
    const auto id = testing::restorePoint();
    ASSERT_TRUE(id.starts_with("app:")) << id;
    const fs::path restorePoint = id.substr(4);

    store.removeEvent(*dentist, EKSpan::thisEvent, true);
    review->title = "Quarterly review";
    store.saveEvent(*review, EKSpan::thisEvent, true);
    store.removeEvent(*testing::occurrenceAt(store, *choir, utc(2024, 6, 12, 2)), EKSpan::thisEvent, true);
    edited = testing::occurrenceAt(store, *choir, utc(2024, 6, 19, 2));
    edited->location = "Hall B";
    store.saveEvent(*edited, EKSpan::thisEvent, true);

    const auto backupBytes = files::read(restorePoint);
    const auto liveBytes = files::read(BackupLocator::liveDBPath());

    const auto text = testing::runCommandLine({"compare", id.c_str()});
    ASSERT_EQ(text.status, 0) << text.err;
    EXPECT_THAT(text.out,
                HasSubstr("4 events in the backup: 1 missing, 0 restored before, 1 changed, 2 occurrence changes."));
    EXPECT_THAT(text.out, HasSubstr("\nMissing\n  [1] Dentist  2024-06-03 09:00  Calendar (On My Mac)\n"));
    EXPECT_THAT(text.out, HasSubstr("\nChanged\n  [2] Review  2024-06-04 09:00  Calendar (On My Mac)\n"
                                    "      title: backup Review / now Quarterly review\n"));
    EXPECT_THAT(text.out,
                HasSubstr("\nOccurrences\n  2024-06-11 19:00  deleted  [3] Choir\n"
                          "  2024-06-18 19:00  edited  [3] Choir\n      location: backup Hall A / now Hall B\n"));

    const auto json = testing::runCommandLine({"compare", id.c_str(), "--json"});
    ASSERT_EQ(json.status, 0) << json.err;
    const auto document = nlohmann::json::parse(json.out);
    EXPECT_TRUE(holds(document, {{"backupEventCount", 4}, {"seriesSkipped", 0}}));
    ASSERT_EQ(document["missing"].size(), 1u);
    EXPECT_TRUE(holds(
        document["missing"][0],
        {{"title", "Dentist"}, {"start", "2024-06-03T16:00:00Z"}, {"detachedOccurrences", nlohmann::json::array()}}));
    EXPECT_EQ(document["changed"][0]["changes"][0],
              (nlohmann::json{{"field", "title"}, {"old", "Review"}, {"new", "Quarterly review"}}));
    const auto& deleted = document["occurrenceChanges"][0];
    EXPECT_TRUE(holds(deleted, {{"kind", "deleted"},
                                {"originalDate", "2024-06-12T02:00:00Z"},
                                {"id", "3@" + std::to_string(deleted["occurrenceKey"].get<std::int64_t>())},
                                {"backupDetached", nullptr}}));
    EXPECT_EQ(document["occurrenceChanges"][1]["kind"], "edited");

    EXPECT_EQ(files::read(restorePoint), backupBytes);
    EXPECT_EQ(files::read(BackupLocator::liveDBPath()), liveBytes);
    EXPECT_TRUE(BackupLocator::stagedFolders().empty());
}

TEST_F(CompareCommandTest, BadBackupsGiveOneLineOrTheComparisonTheyAllow) {
    testing::saveEvent(*std::make_shared<EKEventStore>(), "Today", utc(2024, 6, 3, 16), utc(2024, 6, 3, 17));

    // No occurrence cache, and rows without title or dates: compared as far as they go.
    const auto old = user.home() / "old" / "Calendar.sqlitedb";
    fs::create_directories(old.parent_path());
    {
        testing::CalendarDatabaseBuilder builder(old);
        const auto calendar = builder.addCalendar({.store = builder.addStore({})});
        builder.addItem({.calendar = calendar, .summary = nullptr, .start = nullptr, .end = nullptr});
        builder.addItem({.calendar = calendar, .summary = "Weekly", .hasRecurrences = std::int64_t{1}});
    }
    const auto oldBytes = files::read(old);
    const auto result = testing::runCommandLine({"compare", old.c_str()});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("2 events in the backup: 2 missing"));
    EXPECT_THAT(result.out, HasSubstr("This backup has no occurrence cache"));
    EXPECT_EQ(files::read(old), oldBytes);

    const auto damaged = user.home() / "2024-01-01-000000.calsnap";
    files::write(damaged, "not a restore point");
    for (const auto* backup : {damaged.c_str(), "tm:/Volumes/Nowhere/Backups.backupdb"}) {
        const auto failed = testing::runCommandLine({"compare", backup});
        EXPECT_EQ(failed.status, 1) << backup;
        EXPECT_TRUE(failed.out.empty());
        EXPECT_EQ(std::count(failed.err.begin(), failed.err.end(), '\n'), 1) << failed.err;
    }
    EXPECT_EQ(files::read(damaged), "not a restore point");
    EXPECT_TRUE(BackupLocator::stagedFolders().empty());
}

} // namespace
} // namespace morvane
