#include "MorvaneCore/SnapshotStore/CalendarArchive.h"

#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/LiveCalendars/CurrentEvents.h"
#include "MorvaneCore/Shared/DateFormatting.h"
#include "MorvaneCore/Shared/Errors.h"
#include "MorvanePlatform/Accounts.h"
#include "MorvanePlatform/Files.h"
#include "Support/CalendarDatabaseBuilder.h"
#include "Support/ErrorText.h"
#include "Support/Fakes.h"
#include "Support/Mapped.h"
#include "Support/SavedEvents.h"
#include "Support/UTC.h"

#include <fstream>
#include <gtest/gtest.h>

namespace morvane {
namespace {

namespace fs = std::filesystem;
using Case = CalendarArchive::SnapshotResult::Case;
using Entry = CalendarArchive::Entry;
using testing::utc;

constexpr double day = 86400.0;

Date at(const char* stamp) { return *dates::parseStamp(stamp); }
Date ago(Date now, double days) { return {now.seconds - days * day}; }

TEST(RetentionTest, KeepsEveryPointThenTheNewestOfEachWeekThenOfEachMonth) {
    // Friday 15 August 2025, noon in the pinned zone; no clock change within the last 30 days.
    const auto august = at("2025-08-15-120000");
    const auto february = at("2026-02-09-120000");
    struct Point {
        Date date;
        bool kept;
    };
    const struct {
        const char* name;
        Date now;
        std::vector<Point> points;
    } cases[] = {
        // A point at exactly 30.0 days is of the first tier and takes no week from the older one.
        {"30.0 days", august, {{ago(august, 30.0), true}, {ago(august, 30.25), true}}},
        {"just over 30 days", august, {{ago(august, 30.001), true}, {ago(august, 30.25), false}}},
        // At exactly 182.0 days the week decides, so the month is still free for the older one.
        {"182.0 days", august, {{ago(august, 182.0), true}, {ago(august, 182.25), true}}},
        {"just over 182 days", august, {{ago(august, 182.001), true}, {ago(august, 182.25), false}}},
        {"730.0 days", august, {{ago(august, 730.0), true}}},
        {"the only point, older than two years", august, {{ago(august, 730.001), false}}},
        // Wednesday 31 December 2025 and Friday 2 January 2026 are of one ISO week.
        {"one week across New Year", february, {{at("2025-12-31-100000"), false}, {at("2026-01-02-100000"), true}}},
        {"three of one week at 35 to 40 days",
         august,
         {{at("2025-07-08-090000"), false}, {at("2025-07-10-090000"), true}, {at("2025-07-09-090000"), false}}},
        {"three of one week at 10 to 12 days",
         august,
         {{at("2025-08-03-090000"), true}, {at("2025-08-04-090000"), true}, {at("2025-08-05-090000"), true}}},
        {"a point after now", august, {{at("2025-09-01-090000"), true}, {ago(august, 1), true}}},
    };
    for (const auto& test : cases) {
        std::vector<Entry> entries;
        std::vector<std::string> expected;
        for (const auto& point : test.points) {
            entries.push_back({dates::stamp(point.date), point.date, "f", 1, 1, std::nullopt});
            if (point.kept) expected.push_back(entries.back().stamp);
        }
        std::sort(expected.rbegin(), expected.rend()); // stamps sort as their dates
        EXPECT_EQ(testing::mapped(CalendarArchive::retained(entries, test.now), &Entry::stamp), expected) << test.name;
    }
}

class TakingSnapshotsTest : public ::testing::Test {
protected:
    void TearDown() override { BackupLocator::removeAllStagedCopies(); }

    // An entry listed in the store's index with a file of its own, as an old restore point.
    void listOldRestorePoint(Date date) {
        Entry old{dates::stamp(date), date, "old", 1, 3, std::nullopt};
        files::write(archive.fileURL(old), "old");
        auto listed = CalendarArchive::readIndex(index());
        listed.push_back(old);
        CalendarArchive::writeIndex(listed, index());
    }

    fs::path index() const { return archive.directory() / "index.json"; }

    static CalendarArchive::EventStoreMaker noEventStore() {
        return []() -> std::shared_ptr<EKEventStore> {
            ADD_FAILURE() << "the event store was asked for";
            return nullptr;
        };
    }

    testing::TemporaryUser user;
    testing::Installed<testing::FixedClock> clock{utc(2025, 8, 15, 19)};
    CalendarArchive archive{user.home() / "Library/Application Support/Morvane/Snapshots"};
};

TEST_F(TakingSnapshotsTest, TheLiveDatabaseIsSavedOnceThenFoundUnchangedWithoutTouchingTheStore) {
    {
        EKEventStore live;
        testing::saveEvent(live, "Dentist", utc(2025, 8, 1, 16), utc(2025, 8, 1, 17));
        testing::saveEvent(live, "Standup", utc(2025, 8, 4, 16), utc(2025, 8, 4, 17));
    }
    files::createDirectories(archive.directory());
    listOldRestorePoint(ago(Date{clock->now()}, 800));

    const auto first = archive.takeSnapshot(Date{clock->now()}, noEventStore());
    ASSERT_EQ(first.which, Case::saved);
    EXPECT_EQ(first.entry.eventCount, 2);
    EXPECT_EQ(first.entry.format, std::nullopt);
    EXPECT_EQ(first.entry.bytes, static_cast<std::int64_t>(fs::file_size(archive.fileURL(first.entry))));
    // Saving thinned the store: the point older than two years is gone, file and all.
    EXPECT_EQ(archive.entries(), std::vector<Entry>{first.entry});
    EXPECT_EQ(std::distance(fs::directory_iterator(archive.directory()), fs::directory_iterator()), 2);

    // The same calendars an hour later: nothing is written, and nothing is thinned either.
    listOldRestorePoint(ago(Date{clock->now()}, 900));
    const auto before = files::read(index());
    const auto second = archive.takeSnapshot(Date{clock->now() + 3600}, noEventStore());
    EXPECT_EQ(second.which, Case::unchanged);
    EXPECT_EQ(second.entry.stamp, first.entry.stamp);
    EXPECT_EQ(files::read(index()), before);
    EXPECT_EQ(std::distance(fs::directory_iterator(archive.directory()), fs::directory_iterator()), 3);
    EXPECT_TRUE(BackupLocator::stagedFolders().empty());
}

TEST_F(TakingSnapshotsTest, AFailingLiveDatabaseIsTriedFourTimesOnFreshCopiesTwoSecondsApart) {
    const auto live = fs::path(BackupLocator::liveDBPath());
    {
        testing::CalendarDatabaseBuilder db(live);
        db.addItem({.calendar = db.addCalendar({.store = db.addStore({})})});
        db.execute("CREATE TABLE filler (a, b); CREATE INDEX filler_b ON filler(b);"
                   "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 2000) "
                   "INSERT INTO filler SELECT i, printf('%0100d', i) FROM n;");
    }
    {
        // A copy that can't be made won't be made two seconds later either: no second try.
        testing::Installed<testing::FailingFileSystem> failingFiles(2);
        EXPECT_THROW(archive.takeSnapshot(Date{clock->now()}, noEventStore()), BackupLocatorError);
        EXPECT_EQ(clock->sleeps, 0);
    }
    const auto healthy = files::read(live);
    std::string damaged = healthy;
    damaged.replace(damaged.size() / 2, 8192, std::string(8192, '\x7f'));
    files::write(live, damaged);

    const auto words =
        testing::errorText<SQLiteError>([&] { archive.takeSnapshot(Date{clock->now()}, noEventStore()); });
    EXPECT_TRUE(words.starts_with("Database copy failed its integrity check")) << words;
    EXPECT_EQ(clock->sleeps, 3);
    EXPECT_FALSE(fs::exists(index()));

    // Mended while the third wait ran: the fourth attempt files it, 6 s of the clock later.
    const auto mending = clock->now();
    clock->sleeps = 0;
    clock->whileSleeping = [&] {
        if (clock->sleeps == 3) files::write(live, healthy);
    };
    const auto result = archive.takeSnapshot(Date{clock->now()}, noEventStore());
    EXPECT_EQ(result.which, Case::saved);
    EXPECT_DOUBLE_EQ(clock->now() - mending, 6.0);
    EXPECT_TRUE(BackupLocator::stagedFolders().empty());
}

TEST_F(TakingSnapshotsTest, WithoutTheDatabaseTheEventStoreIsCapturedAndWithoutAccessNothingIs) {
    // No live folder to read: the calendars come through the event store.
    const auto elsewhere = user.root().path() / "elsewhere" / "Calendar.sqlitedb";
    {
        EKEventStore store(elsewhere);
        testing::saveEvent(store, "Dentist", utc(2025, 8, 1, 16), utc(2025, 8, 1, 17));
    }
    int made = 0;
    const auto eventStore = [&] {
        ++made;
        return std::make_shared<EKEventStore>(elsewhere);
    };
    const auto saved = archive.takeSnapshot(Date{clock->now()}, eventStore);
    ASSERT_EQ(saved.which, Case::saved);
    EXPECT_EQ(saved.entry.format, "eventkit");
    EXPECT_TRUE(saved.entry.fingerprint.starts_with("ek:"));
    EXPECT_EQ(saved.entry.eventCount, 1);
    EXPECT_TRUE(fs::exists(archive.directory() / (saved.entry.stamp + ".calevents")));
    EXPECT_EQ(archive.takeSnapshot(Date{clock->now() + 60}, eventStore).which, Case::unchanged);
    EXPECT_EQ(made, 2);

    testing::Installed<testing::ScriptedCalendarPermission> permission;
    permission->currentStatus = EKAuthorizationStatus::denied;
    CalendarAccess::forgetGrantForTesting();
    EXPECT_EQ(testing::errorText<RestoreError>([&] { archive.takeSnapshot(Date{clock->now() + 120}, eventStore); }),
              "Morvane needs Calendar access (System Settings → Privacy & Security → Calendars) to take snapshots.");
    EXPECT_EQ(made, 2);
}

TEST_F(TakingSnapshotsTest, WithAnAccountLiveTheAccountIsCapturedAndTheLocalDatabaseIsLeftAlone) {
    {
        EKEventStore local;
        testing::saveEvent(local, "Local only", utc(2025, 8, 1, 16), utc(2025, 8, 1, 17));
    }
    // The account's calendars stand in a store of their own; the local database stays readable.
    const auto account = user.root().path() / "account" / "Calendar.sqlitedb";
    {
        EKEventStore store(account);
        testing::saveEvent(store, "Dentist", utc(2025, 8, 1, 16), utc(2025, 8, 1, 17));
        testing::saveEvent(store, "Standup", utc(2025, 8, 4, 16), utc(2025, 8, 4, 17));
    }
    AccountList list;
    list.accounts.push_back({"work", "https://dav.example.com/", "jane", "secret", std::nullopt, false});
    list.live = "work";
    accounts::save(list);
    const auto eventStore = [&] { return std::make_shared<EKEventStore>(account); };

    ASSERT_TRUE(BackupLocator::canReadLiveDatabase());
    EXPECT_EQ(BackupLocator::readableLiveDatabase(), std::nullopt);
    const auto saved = archive.takeSnapshot(Date{clock->now()}, eventStore);
    EXPECT_EQ(saved.entry.format, "eventkit");
    EXPECT_EQ(saved.entry.eventCount, 2);
    const auto live = BackupLocator::liveIndex(eventStore);
    ASSERT_TRUE(live.has_value());
    EXPECT_TRUE(live->hasEquivalent("Dentist", Date{utc(2025, 8, 1, 16)}));
    EXPECT_FALSE(live->hasEquivalent("Local only", Date{utc(2025, 8, 1, 16)}));
}

TEST_F(TakingSnapshotsTest, AFailingWriteLeavesTheIndexWholeAndEveryListedFileThere) {
    EKEventStore live;
    bool finished = false;
    for (int failing = 1; !finished; ++failing) {
        testing::saveEvent(live, "Event " + std::to_string(failing), utc(2025, 8, 1, 16), utc(2025, 8, 1, 17));
        const auto before = fs::exists(index()) ? files::read(index()) : std::string();
        clock->set(clock->now() + 3600);
        {
            testing::Installed<testing::FailingFileSystem> failingFiles(failing);
            if (testing::caught<Error>([&] { archive.takeSnapshot(Date{clock->now()}, noEventStore()); })) {
                EXPECT_EQ(fs::exists(index()) ? files::read(index()) : std::string(), before) << failing;
            }
            finished = !failingFiles->failed();
        }
        for (const auto& entry : archive.entries())
            EXPECT_TRUE(fs::exists(archive.fileURL(entry))) << failing;
        EXPECT_TRUE(BackupLocator::stagedFolders().empty()) << failing;
        ASSERT_LT(failing, 50);
    }
}

} // namespace
} // namespace morvane
