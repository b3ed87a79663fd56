#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/Database/CalendarDatabase.h"
#include "MorvanePlatform/EventKit.h"
#include "MorvanePlatform/Files.h"
#include "RunCommandLine.h"
#include "Support/Fakes.h"
#include "Support/Pinned.h"
#include "Support/SavedEvents.h"
#include "Support/UTC.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sqlite3.h>

namespace morvane {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::HasSubstr;
using testing::holds;
using testing::restorePoint;
using testing::runCommandLine;
using testing::utc;

class RestoreCommandTest : public ::testing::Test {
protected:
    static std::string liveFingerprint() {
        const auto copy = BackupLocator::stageCopy(BackupLocator::liveDBPath());
        return CalendarDatabase(copy.file()).contentFingerprint();
    }

    testing::TemporaryUser user;
    testing::Installed<testing::FixedClock> clock{utc(2024, 6, 1, 12)};
    EKEventStore store;
};

TEST_F(RestoreCommandTest, ASeriesComesBackWithItsDeletedAndEditedOccurrencesAndOnlyOnce) {
    // Weekly in Berlin across its change to summer time on 31 March.
    auto choir = testing::saveEvent(store, "Choir", utc(2024, 3, 14, 17), utc(2024, 3, 14, 18), "Europe/Berlin",
                                    testing::repeating(EKRecurrenceFrequency::weekly, 6));
    store.removeEvent(*testing::occurrenceAt(store, *choir, utc(2024, 3, 21, 17)), EKSpan::thisEvent, true);
    store.removeEvent(*testing::occurrenceAt(store, *choir, utc(2024, 4, 11, 16)), EKSpan::thisEvent, true);
    auto moved = testing::occurrenceAt(store, *choir, utc(2024, 4, 4, 16));
    moved->location = "Hall B";
    moved->startDate = utc(2024, 4, 4, 17);
    moved->endDate = utc(2024, 4, 4, 18);
    store.saveEvent(*moved, EKSpan::thisEvent, true);
    testing::saveEvent(store, "Dentist", utc(2024, 6, 3, 16), utc(2024, 6, 3, 17));
    const auto before =
        json::parse(runCommandLine({"events", "--from", "2024-03-01", "--to", "2024-05-01", "--json"}).out);

    const auto backup = restorePoint();
    store.removeEvent(*choir, EKSpan::futureEvents, true);
    const auto missing = json::parse(runCommandLine({"compare", backup.c_str(), "--json"}).out)["missing"];
    ASSERT_EQ(missing.size(), 1u) << missing;
    const auto id = std::to_string(missing[0]["id"].get<std::int64_t>());

    // Every row of the backup asked for: the edited occurrence and an id it doesn't have give no plan.
    const auto plan = runCommandLine({"plan", backup.c_str(), "1", "2", "3", "99", "--json"});
    ASSERT_EQ(plan.status, 0) << plan.err;
    EXPECT_THAT(plan.err, HasSubstr("Ignored (not an event of this backup, or an edited occurrence, not a series): "));
    EXPECT_THAT(plan.err, HasSubstr(", 99\n"));
    const auto plans = json::parse(plan.out);
    ASSERT_EQ(plans.size(), 2u);
    EXPECT_TRUE(holds(plans[0], {{"id", std::stoll(id)},
                                 {"title", "Choir"},
                                 {"startText", "2024-03-14 10:00"},
                                 {"targetName", "Calendar (On My Mac)"},
                                 {"recurrence", "FREQ=WEEKLY;COUNT=6"},
                                 {"deletedOccurrences", 2},
                                 {"editedOccurrences", 1},
                                 {"problems", json::array()}}));
    EXPECT_TRUE(holds(plans[1], {{"title", "Dentist"}, {"problems", {"Still exists."}}}));
    const auto dentistID = std::to_string(plans[1]["id"].get<std::int64_t>());

    // No terminal to ask and no --yes: nothing is written.
    const auto untouched = liveFingerprint();
    const auto refused = runCommandLine({"restore", backup.c_str(), id.c_str()});
    EXPECT_EQ(refused.status, 2);
    EXPECT_THAT(refused.err, HasSubstr("pass --yes"));
    EXPECT_EQ(liveFingerprint(), untouched);

    const auto restored = runCommandLine({"restore", backup.c_str(), id.c_str(), dentistID.c_str(), "--yes"});
    ASSERT_EQ(restored.status, 0) << restored.err;
    EXPECT_THAT(restored.out, HasSubstr("[" + id + "] Choir: Restored\n"));
    EXPECT_THAT(restored.out, HasSubstr("] Dentist: Skipped\n    Still exists.\n"));

    // The live calendars show what they showed before; the restorer's own tests check the rows.
    const auto after =
        json::parse(runCommandLine({"events", "--from", "2024-03-01", "--to", "2024-05-01", "--json"}).out);
    ASSERT_EQ(after.size(), before.size()) << after;
    for (size_t i = 0; i < after.size(); ++i) {
        for (const auto* field : {"title", "start", "end", "occurrenceKey", "isDetached", "timeZone"})
            EXPECT_EQ(after[i][field], before[i][field]) << i << " " << field;
    }
    EXPECT_EQ(json::parse(runCommandLine({"compare", backup.c_str(), "--json"}).out)["missing"], json::array());
    const auto again = runCommandLine({"restore", backup.c_str(), id.c_str(), "--yes", "--json"});
    ASSERT_EQ(again.status, 0) << again.err;
    const auto document = json::parse(again.out);
    EXPECT_EQ(document["outcomes"], json::array());
    EXPECT_EQ(document["skipped"][0]["problems"],
              json::array({"An event with the same title and start already exists (restored before?)."}));
    EXPECT_TRUE(BackupLocator::stagedFolders().size() <= 1u);
}

// An unknown --into and a calendar locked by another writer write nothing; the backup stays as it was.
TEST_F(RestoreCommandTest, IntoNamesACalendarByLabelAndALockedCalendarFailsTheEventClearly) {
    const auto dentist = testing::saveEvent(store, "Dentist", utc(2024, 6, 3, 16), utc(2024, 6, 3, 17));
    const auto backup = restorePoint();
    store.removeEvent(*dentist, EKSpan::thisEvent, true);
    const auto backupBytes = files::read(backup.substr(backup.find(':') + 1));

    const auto unknown = runCommandLine({"restore", backup.c_str(), "1", "--into", "Nowhere", "--yes"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_THAT(unknown.err,
                HasSubstr("  Calendar (On My Mac)  " + store.defaultCalendarForNewEvents()->calendarIdentifier));

    sqlite3* writer = nullptr;
    ASSERT_EQ(sqlite3_open(BackupLocator::liveDBPath().c_str(), &writer), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(writer, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    const auto locked = runCommandLine({"restore", backup.c_str(), "1", "--yes"});
    sqlite3_exec(writer, "ROLLBACK", nullptr, nullptr, nullptr);
    sqlite3_close(writer);
    EXPECT_EQ(locked.status, 1);
    EXPECT_THAT(locked.out, HasSubstr("[1] Dentist: Failed: "));
    EXPECT_THAT(locked.out, HasSubstr("locked"));
    EXPECT_EQ(files::read(backup.substr(backup.find(':') + 1)), backupBytes);

    const auto restored =
        runCommandLine({"restore", backup.c_str(), "1", "--into", "Calendar (On My Mac)", "--yes", "--json"});
    ASSERT_EQ(restored.status, 0) << restored.err;
    EXPECT_EQ(json::parse(restored.out)["outcomes"], json::parse(R"([{"id": 1, "title": "Dentist", "succeeded": true,
        "message": null, "differences": []}])"));
}

TEST_F(RestoreCommandTest, TheTimelineShowsALostOccurrenceThatRestoreBringsBack) {
    const auto walk = testing::saveEvent(store, "Walk", utc(2024, 6, 3, 15), utc(2024, 6, 3, 16), testing::pinnedZone,
                                         testing::repeating(EKRecurrenceFrequency::daily, 3));
    const auto backup = restorePoint();
    store.removeEvent(*testing::occurrenceAt(store, *walk, utc(2024, 6, 4, 15)), EKSpan::thisEvent, true);

    const auto page = user.home() / "week.html";
    const auto before = runCommandLine(
        {"timeline", backup.c_str(), "--from", "2024-06-03", "--to", "2024-06-06", "--html", page.c_str()});
    ASSERT_EQ(before.status, 0) << before.err;
    EXPECT_THAT(before.out, HasSubstr("2 unchanged, 1 deleted, 0 changed (0 moved), 0 added\nThe page is in " +
                                      page.string() + ".\n"));
    EXPECT_EQ(std::filesystem::status(page).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    EXPECT_THAT(files::read(page), HasSubstr("data-state=\"deleted\""));
    const auto items = json::parse(
        runCommandLine({"timeline", backup.c_str(), "--from", "2024-06-03", "--to", "2024-06-06", "--json"}).out);
    std::string lost;
    for (const auto& item : items) {
        if (item["state"] == "deleted") {
            lost = item["id"];
            EXPECT_TRUE(item["restoreID"].is_null());
        }
    }
    ASSERT_FALSE(lost.empty()) << items;

    const auto restored = runCommandLine({"restore", backup.c_str(), "--occurrence", lost.c_str(), "--yes"});
    EXPECT_EQ(restored.status, 0) << restored.out << restored.err;
    const auto after = runCommandLine({"timeline", backup.c_str(), "--from", "2024-06-03", "--to", "2024-06-06"});
    EXPECT_THAT(after.out, HasSubstr("3 unchanged, 0 deleted"));
    EXPECT_EQ(runCommandLine({"restore", backup.c_str(), "--occurrence", "nobody", "--yes"}).status, 1);
}

TEST_F(RestoreCommandTest, TheTimelineRefusesARangeBackwardsOrOverTenYears) {
    for (const auto& [from, to] : std::vector<std::pair<const char*, const char*>>{
             {"2024-06-05", "2024-06-03"}, {"2014-01-01", "2024-01-02"}, {"soon", "2024-01-02"}}) {
        SCOPED_TRACE(from);
        EXPECT_EQ(runCommandLine({"timeline", "x", "--from", from, "--to", to}).status, 2);
    }
    EXPECT_EQ(runCommandLine({"restore", "x", "1", "--occurrence", "a|1", "--yes"}).status, 2);
}

} // namespace
} // namespace morvane
