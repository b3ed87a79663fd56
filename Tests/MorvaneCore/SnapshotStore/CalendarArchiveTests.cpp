#include "MorvaneCore/SnapshotStore/CalendarArchive.h"

#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/Database/CalendarDatabase.h"
#include "MorvaneCore/Shared/Compression.h"
#include "MorvaneCore/Shared/DateFormatting.h"
#include "MorvaneCore/Shared/Errors.h"
#include "MorvanePlatform/Files.h"
#include "Support/CalendarDatabaseBuilder.h"
#include "Support/ErrorText.h"
#include "Support/Fakes.h"
#include "Support/Mapped.h"

#include <gtest/gtest.h>

namespace morvane {
namespace {

namespace fs = std::filesystem;
using testing::CalendarDatabaseBuilder;
using Case = CalendarArchive::SnapshotResult::Case;
using Entry = CalendarArchive::Entry;

class CalendarArchiveTest : public ::testing::Test {
protected:
    void TearDown() override { BackupLocator::removeAllStagedCopies(); }

    // A calendar database with `events` events in a local store, one of them repeating with a
    // detached occurrence, and one in a subscribed store.
    fs::path database(const std::string& name, int events) {
        const auto path = user.root().path() / "backups" / name / "Calendar.sqlitedb";
        CalendarDatabaseBuilder db(path);
        const auto local = db.addCalendar({.store = db.addStore({})});
        const auto subscribed = db.addCalendar({.store = db.addStore({.name = "Holidays", .type = std::int64_t{4}})});
        std::int64_t first = 0;
        for (int i = 0; i < events; ++i) {
            const auto item = db.addItem({.calendar = local, .summary = "Event " + std::to_string(i)});
            if (i == 0) first = item;
        }
        if (first > 0) db.addItem({.calendar = local, .origItemID = first, .origDate = 0.0});
        db.addItem({.calendar = subscribed});
        db.close();
        return path;
    }

    CalendarArchive::SnapshotResult import(CalendarArchive& store, const fs::path& file, Date date) {
        const auto staged = BackupLocator::stageCopy(file);
        CalendarDatabase db(staged.file());
        return store.importDatabase(db, staged.file(), date);
    }

    Date at(const char* stamp) { return *dates::parseStamp(stamp); }

    testing::TemporaryUser user;
    CalendarArchive archive{user.root().path() / "store"};
};

TEST_F(CalendarArchiveTest, AnEmptyStoreListsNothingAndTheFirstImportCreatesIt) {
    EXPECT_TRUE(archive.entries().empty());
    EXPECT_FALSE(fs::exists(archive.directory()));

    const auto date = Date{at("2024-03-01-101500").seconds + 0.75};
    const auto result = import(archive, database("a", 3), date);
    ASSERT_EQ(result.which, Case::saved);
    EXPECT_EQ(result.entry.stamp, "2024-03-01-101500");
    EXPECT_EQ(result.entry.eventCount, 3); // the detached occurrence and the subscribed event don't count
    EXPECT_EQ(result.entry.bytes,
              static_cast<std::int64_t>(fs::file_size(archive.directory() / "2024-03-01-101500.calsnap")));
    EXPECT_EQ(archive.totalBytes(), result.entry.bytes);

    // Read back, the date is cut to the second.
    EXPECT_EQ(archive.entries().at(0).date, at("2024-03-01-101500"));
}

// That a stored restore point stages as the database it was, the imports' tests check.
TEST_F(CalendarArchiveTest, AStoredRestorePointThatCantBeReadIsRefused) {
    const auto result = import(archive, database("a", 2), at("2024-03-01-101500"));
    files::write(archive.fileURL(result.entry), "not a stream");
    EXPECT_THROW(archive.stage(result.entry), Error);
    const auto missing = archive.directory() / "missing.calsnap";
    EXPECT_EQ(testing::errorText<RestoreError>([&] { CalendarArchive::stageFile(missing); }),
              "Couldn't read " + missing.string() + ".");
}

TEST_F(CalendarArchiveTest, ImportingAListedStampOrUnchangedContentStoresNothing) {
    const auto first = database("a", 2);
    const auto changed = database("b", 5);
    const auto saved = import(archive, first, at("2024-03-01-101500"));

    // The same stamp: unchanged, whatever the content.
    const auto again = import(archive, changed, at("2024-03-01-101500"));
    EXPECT_EQ(again, (CalendarArchive::SnapshotResult{Case::unchanged, saved.entry}));

    // The same content as the nearest earlier restore point: unchanged, with that entry.
    EXPECT_EQ(import(archive, first, at("2024-03-02-101500")).which, Case::unchanged);
    // The same content before all others is stored: only the past is compared.
    EXPECT_EQ(import(archive, first, at("2024-02-01-101500")).which, Case::saved);
    EXPECT_EQ(import(archive, changed, at("2024-03-03-101500")).which, Case::saved);
    EXPECT_EQ(import(archive, first, at("2024-03-04-101500")).which, Case::saved);

    EXPECT_EQ(
        testing::mapped(archive.entries(), &Entry::stamp),
        (std::vector<std::string>{"2024-03-04-101500", "2024-03-03-101500", "2024-03-01-101500", "2024-02-01-101500"}));
}

TEST_F(CalendarArchiveTest, ADamagedIndexReadsAsEmptyAndIsReplaced) {
    fs::create_directories(archive.directory());
    for (const char* stored : {"not json", "{}", "[{\"stamp\": \"x\"}]",
                               "[{\"stamp\":\"s\",\"date\":\"2024-03-01T10:15:00.5Z\",\"fingerprint\":\"f\","
                               "\"eventCount\":1,\"bytes\":2}]"}) {
        files::write(archive.directory() / "index.json", stored);
        EXPECT_TRUE(archive.entries().empty()) << stored;
    }
    import(archive, database("a", 1), at("2024-03-01-101500"));
    EXPECT_EQ(archive.entries().size(), 1u);
}

TEST_F(CalendarArchiveTest, TheIndexFormIsExact) {
    const auto path = user.root().path() / "index.json";
    CalendarArchive::writeIndex({Entry{"2024-03-02-101500", at("2024-03-02-101500"), "ek:abc", 7, 1234, "eventkit"},
                                 Entry{"2024-03-01-101500", at("2024-03-01-101500"), "f00", 3, 99, std::nullopt}},
                                path);
    EXPECT_EQ(files::read(path), R"([
  {
    "bytes": 99,
    "date": "2024-03-01T18:15:00Z",
    "eventCount": 3,
    "fingerprint": "f00",
    "stamp": "2024-03-01-101500"
  },
  {
    "bytes": 1234,
    "date": "2024-03-02T18:15:00Z",
    "eventCount": 7,
    "fingerprint": "ek:abc",
    "format": "eventkit",
    "stamp": "2024-03-02-101500"
  }
])");
    EXPECT_EQ((Entry{"s", {}, "", 0, 0, "eventkit"}).fileName(), "s.calevents");
    EXPECT_EQ((Entry{"s", {}, "", 0, 0, "other"}).fileName(), "s.calsnap");
}

TEST_F(CalendarArchiveTest, RemovingDropsTheFileAndTheEntryEvenWhenTheFileIsGone) {
    const auto a = import(archive, database("a", 1), at("2024-03-01-101500")).entry;
    const auto b = import(archive, database("b", 2), at("2024-03-02-101500")).entry;
    fs::remove(archive.fileURL(a));
    archive.remove(a);
    EXPECT_EQ(archive.entries(), std::vector<Entry>{b});
    archive.remove(b);
    EXPECT_FALSE(fs::exists(archive.fileURL(b)));
    EXPECT_TRUE(archive.entries().empty());

    // With a damaged index, what stays is an empty one.
    files::write(archive.directory() / "index.json", "damaged");
    archive.remove(a);
    EXPECT_EQ(files::read(archive.directory() / "index.json"), "[]");
}

TEST_F(CalendarArchiveTest, ABadDatabaseStoresNothing) {
    const auto path = database("a", 1);
    const auto staged = BackupLocator::stageCopy(path);
    CalendarDatabase db(staged.file());
    files::write(staged.file(), std::string(8192, 'x')); // the copy is damaged after opening
    EXPECT_THROW(archive.importDatabase(db, staged.file(), at("2024-03-01-101500")), SQLiteError);
    EXPECT_TRUE(fs::is_empty(archive.directory()));
}

} // namespace
} // namespace morvane
