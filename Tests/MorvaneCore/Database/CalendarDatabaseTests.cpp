#include "MorvaneCore/Database/CalendarDatabase.h"

#include "MorvaneCore/Database/SQLiteDB.h"
#include "MorvaneCore/Shared/Errors.h"
#include "MorvaneCore/Shared/Json.h"
#include "MorvanePlatform/Files.h"
#include "MorvanePlatform/SHA256.h"
#include "Support/CalendarDatabaseBuilder.h"
#include "Support/CalendarGenerator.h"
#include "Support/ErrorText.h"
#include "Support/Mapped.h"
#include "Support/Pinned.h"
#include "Support/TemporaryDirectory.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace morvane {
namespace {

namespace fs = std::filesystem;
using testing::CalendarDatabaseBuilder;
using Journal = CalendarDatabaseBuilder::Journal;

class CalendarDatabaseTest : public ::testing::Test {
protected:
    CalendarDatabaseBuilder& build(Journal journal = Journal::rollback) {
        builder = std::make_unique<CalendarDatabaseBuilder>(path, journal);
        return *builder;
    }
    CalendarDatabase open() {
        builder->close();
        return CalendarDatabase(path);
    }

    testing::TemporaryDirectory folder;
    fs::path path = folder.path() / "Calendar.sqlitedb";
    std::unique_ptr<CalendarDatabaseBuilder> builder;
};

TEST_F(CalendarDatabaseTest, OurColumnSetIsTheSystemsOne) {
    const fs::path reference = fs::path(MORVANE_SHARED_TEST_DATA_DIR) / "calendar-schema/macos-26.sql";
    if (!fs::exists(reference)) GTEST_SKIP() << "the shared test data is not beside this checkout";
    auto& ours = build();
    CalendarDatabaseBuilder theirs(folder.path() / "reference.sqlite");
    theirs.execute("DROP TABLE Store; DROP TABLE Calendar; DROP TABLE CalendarItem; DROP TABLE Location; "
                   "DROP TABLE Recurrence; DROP TABLE Alarm; DROP TABLE ExceptionDate; DROP TABLE OccurrenceCache; "
                   "DROP TABLE OccurrenceCacheDays; DROP TABLE _SqliteDatabaseProperties;");
    theirs.execute(files::read(reference));
    theirs.close();
    ours.close();

    SQLiteDB mine(path.string());
    SQLiteDB system((folder.path() / "reference.sqlite").string());
    const std::string listTables = "SELECT name FROM sqlite_master WHERE type = 'table' AND name != 'sqlite_sequence'";
    std::set<std::string> tables;
    system.query(listTables, [&tables](const SQLiteDB::Row& row) { tables.insert(*row.text(0)); });
    EXPECT_EQ(tables.size(), 10u);
    for (const auto& table : tables)
        EXPECT_EQ(mine.columns(table), system.columns(table)) << table;
}

TEST_F(CalendarDatabaseTest, RefusesASchemaWithGapsNamingThemAll) {
    build().execute(
        "DROP TRIGGER delete_event_alarms_recurs; ALTER TABLE Alarm DROP COLUMN disabled; DROP TABLE Location;"
        "ALTER TABLE CalendarItem DROP COLUMN url; ALTER TABLE CalendarItem DROP COLUMN summary;"
        "DROP TABLE _SqliteDatabaseProperties;");
    builder->close();
    EXPECT_EQ(testing::errorText<SQLiteError>([&] { CalendarDatabase database(path); }),
              "Unsupported Calendar.sqlitedb schema: Alarm lacks disabled; CalendarItem lacks summary, url; "
              "Location lacks title, address; _SqliteDatabaseProperties lacks key, value");
}

TEST_F(CalendarDatabaseTest, AMissingAttachmentColumnReadsAsNoAttachment) {
    auto& db = build();
    db.addItem({.calendar = db.addCalendar({.store = db.addStore({})}), .hasAttachment = std::int64_t{1}});
    db.execute("ALTER TABLE CalendarItem DROP COLUMN has_attachment");
    const auto events = open().events(std::nullopt);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_FALSE(events[0].hasAttachment);
}

TEST_F(CalendarDatabaseTest, ExceptionDatesOfOneSeriesAscending) {
    auto& db = build();
    db.addExceptionDate(7, 300.0);
    db.addExceptionDate(7, nullptr);
    db.addExceptionDate(8, 50.0);
    db.addExceptionDate(7, 100.5);
    auto database = open();
    const auto dates = database.exceptionDates(7);
    ASSERT_EQ(dates.size(), 2u);
    EXPECT_EQ(dates[0], Date{100.5});
    EXPECT_EQ(dates[1], Date{300.0});
    EXPECT_TRUE(database.exceptionDates(9).empty());
}

TEST_F(CalendarDatabaseTest, OccurrenceWindowMustBeRecordedAndOrdered) {
    const std::string message = "OccurrenceCache window not recorded in this database.";
    const std::vector<std::pair<testing::SQLValue, testing::SQLValue>> windows = {
        {nullptr, nullptr}, {"100", "100"}, {"200", "100"}, {"abc", "100"}, {" 5", "100"}, {"5", "100x"}, {"", "9"},
    };
    for (const auto& [start, end] : windows) {
        fs::remove(path);
        auto& db = build();
        db.setProperty("OccurrenceCacheStart", start);
        db.setProperty("OccurrenceCacheEnd", end);
        auto database = open();
        EXPECT_EQ(testing::errorText<SQLiteError>([&] { database.occurrences(); }), message);
    }

    fs::remove(path);
    build().setOccurrenceWindow(-5.5, 1e9, "Europe/Berlin");
    auto database = open();
    const auto set = database.occurrences();
    EXPECT_EQ(set.window, (DateInterval{{-5.5}, {1e9}}));
    EXPECT_TRUE(set.dates.empty());
}

TEST_F(CalendarDatabaseTest, OccurrencesAreKeyedWhereTheSeriesHadThem) {
    auto& db = build();
    db.setOccurrenceWindow(0, 1e9, "Europe/Berlin");
    const auto calendar = db.addCalendar({.store = db.addStore({})});
    const auto weekly = db.addItem({.calendar = calendar, .uniqueIdentifier = "weekly"});
    db.addOccurrence(weekly, 1.5);
    db.addOccurrence(weekly, -1.5 + 1000);
    db.addOccurrence(weekly, 2.4999);
    // A moved occurrence counts at its original date, under the series.
    const auto moved = db.addItem(
        {.calendar = calendar, .uniqueIdentifier = "weekly/RID=604800", .origItemID = weekly, .origDate = 604800.0});
    db.addOccurrence(moved, 691200.0);
    // With no master row or no original date, it is an ordinary occurrence.
    const auto orphan = db.addItem(
        {.calendar = calendar, .uniqueIdentifier = "orphan", .origItemID = std::int64_t{0}, .origDate = 5.0});
    db.addOccurrence(orphan, 77.0);
    db.insert("OccurrenceCache", {{"event_id", orphan}, {"occurrence_date", nullptr}});
    db.insert("CalendarItem", {{"calendar_id", calendar}, {"unique_identifier", nullptr}, {"entity_type", 2}});
    db.insert("OccurrenceCache",
              {{"event_id", db.insert("CalendarItem", {{"unique_identifier", nullptr}})}, {"occurrence_date", 9.0}});

    auto database = open();
    const auto set = database.occurrences();
    EXPECT_EQ(set.dates,
              (std::map<std::string, std::vector<std::int64_t>>{{"weekly", {2, 999, 604800}}, {"orphan", {77}}}));
    // A part of the cache is chosen by where occurrences begin now, the moved one by its new date.
    EXPECT_EQ(database.occurrencesWithin({Date{77}, Date{700000}}).dates,
              (std::map<std::string, std::vector<std::int64_t>>{{"weekly", {999, 604800}}, {"orphan", {77}}}));
    EXPECT_EQ(database.occurrencesWithin({Date{600000}, Date{610000}}).window, set.window);
    EXPECT_TRUE(database.occurrencesWithin({Date{600000}, Date{610000}}).dates.empty());
}

TEST_F(CalendarDatabaseTest, FloatingOccurrencesAreShiftedByTheCacheZone) {
    // Berlin is UTC+1 in January and UTC+2 in July.
    const double january = 726000000.0; // 2024-01-02
    const double july = 741500000.0;    // 2024-06-30
    for (const auto& [zone, januaryShift, julyShift] :
         {std::tuple<std::string, int, int>{"Europe/Berlin", 3600, 7200},
          // An unknown zone falls back to the machine's, pinned to Los Angeles.
          std::tuple<std::string, int, int>{"Mars/Olympus_Mons", -28800, -25200}}) {
        fs::remove(path);
        auto& db = build();
        db.setOccurrenceWindow(0, 1e9, zone);
        const auto calendar = db.addCalendar({.store = db.addStore({})});
        const auto floating = db.addItem({.calendar = calendar, .startTZ = "_float", .uniqueIdentifier = "f"});
        const auto null = db.addItem({.calendar = calendar, .startTZ = nullptr, .uniqueIdentifier = "n"});
        const auto zoned = db.addItem({.calendar = calendar, .startTZ = "Asia/Tokyo", .uniqueIdentifier = "z"});
        for (const auto item : {floating, null, zoned}) {
            db.addOccurrence(item, january);
            db.addOccurrence(item, july + 0.5);
        }
        auto database = open();
        const auto set = database.occurrences();
        const auto expectedFloating = std::vector<std::int64_t>{static_cast<std::int64_t>(january) + januaryShift,
                                                                static_cast<std::int64_t>(july) + 1 + julyShift};
        EXPECT_EQ(set.dates.at("f"), expectedFloating) << zone;
        EXPECT_EQ(set.dates.at("n"), expectedFloating) << zone;
        EXPECT_EQ(set.dates.at("z"), (std::vector<std::int64_t>{726000000, 741500001})) << zone;
    }
}

TEST_F(CalendarDatabaseTest, IntegrityCheckPassesAHealthyCopyAndReportsDamage) {
    auto& db = build();
    db.execute("CREATE TABLE filler (a, b); CREATE INDEX filler_b ON filler(b);"
               "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 2000) "
               "INSERT INTO filler SELECT i, printf('%0100d', i) FROM n;");
    open().verifyIntegrity();

    // Damage pages in the middle of the file, where the index and table pages lie.
    auto bytes = files::read(path);
    files::write(path, bytes.replace(bytes.size() / 2, 8192, std::string(8192, '\x7f')));
    // Everything the check said is reported, its rows run together without anything between.
    std::vector<std::string> complaints;
    SQLiteDB(path.string()).query("PRAGMA quick_check", [&](const SQLiteDB::Row& row) {
        complaints.push_back(*row.text(0));
    });
    ASSERT_FALSE(complaints.empty());
    std::string joined;
    for (const auto& complaint : complaints)
        joined += complaint;
    CalendarDatabase damaged(path);
    EXPECT_EQ(testing::errorText<SQLiteError>([&] { damaged.verifyIntegrity(); }),
              "Database copy failed its integrity check: " + joined);
}

// Each row one line: its fields, each followed by a unit separator (US, 0x1F), NULL as the empty
// set sign; empty tables add nothing.
TEST_F(CalendarDatabaseTest, FingerprintRendersNumbersAsSQLiteDoesAndRepairsText) {
    auto& db = build();
    db.insert("CalendarItem", {{"summary", std::string("Caf\xC3\xA9 \xFF", 7)},
                               {"start_date", 730944000.0},
                               {"end_date", 730947600.25},
                               {"start_tz", "_float"},
                               {"all_day", std::int64_t{0}},
                               {"calendar_id", std::int64_t{3}},
                               {"unique_identifier", std::string("a\0b", 3)},
                               {"description", ""},
                               {"hidden", std::int64_t{1}},
                               {"entity_type", std::int64_t{3}}});
    db.insert("Recurrence", {{"owner_id", std::int64_t{1}}, {"frequency", std::int64_t{2}}, {"end_date", 1e20}});
    db.insert("ExceptionDate", {{"owner_id", std::int64_t{1}}, {"date", -0.5}});
    db.insert("Alarm", {{"calendaritem_owner_id", std::int64_t{1}}, {"trigger_interval", std::int64_t{-900}}});
    db.insert("Calendar", {{"title", "Work"}, {"UUID", "C-1"}, {"color", "#FF0000"}});
    auto database = open();

    // "|" stands for the unit separator; "\u2205" is NULL.
    std::string expected = "1|Caf\u00E9 \uFFFD|730944000.0|730947600.25|_float|0|3|a||\u2205|\u2205|\u2205|\u2205|1|\n"
                           "1|2|\u2205|\u2205|1.0e+20|\u2205|\n"
                           "1|-0.5|\n"
                           "1|-900|\u2205|\u2205|\u2205|\n"
                           "1|Work|C-1|\n";
    std::replace(expected.begin(), expected.end(), '|', '\x1F');
    EXPECT_EQ(database.contentFingerprint(), SHA256::hex(SHA256::of(expected)));
}

// That titles and row numbers count is in the exact form above.
TEST_F(CalendarDatabaseTest, FingerprintFollowsContentNotColoursOrFileOrder) {
    auto fingerprint = [&](const std::function<void(CalendarDatabaseBuilder&)>& fill) {
        fs::remove(path);
        fill(build());
        return open().contentFingerprint();
    };
    const auto base = fingerprint([](CalendarDatabaseBuilder& db) {
        db.insert("Calendar", {{"ROWID", std::int64_t{1}}, {"title", "Home"}, {"UUID", "A"}, {"color", "#FF0000"}});
        db.insert("Calendar", {{"ROWID", std::int64_t{2}}, {"title", "Work"}, {"UUID", "B"}});
    });
    // The same rows written in the other order, a new colour, other sync columns: unchanged.
    EXPECT_EQ(base, fingerprint([](CalendarDatabaseBuilder& db) {
                  db.insert("Calendar", {{"ROWID", std::int64_t{2}}, {"title", "Work"}, {"UUID", "B"}});
                  db.insert("Calendar", {{"ROWID", std::int64_t{1}},
                                         {"title", "Home"},
                                         {"UUID", "A"},
                                         {"color", "#00FF00"},
                                         {"external_id", "x"}});
                  db.addStore({});
              }));
}

TEST_F(CalendarDatabaseTest, CheckpointFoldsALiveLogWithoutChangingTheFingerprint) {
    auto& db = build(Journal::wal);
    const auto calendar = db.addCalendar({.store = db.addStore({})});
    for (int i = 0; i < 50; ++i)
        db.addItem({.calendar = calendar, .summary = "Event " + std::to_string(i)});
    builder->close(/*keepLog=*/true);
    const fs::path log = path.string() + "-wal";
    ASSERT_GT(fs::file_size(log), 0u);

    CalendarDatabase database(path);
    const auto before = database.contentFingerprint();
    database.checkpoint();
    EXPECT_EQ(fs::file_size(log), 0u);
    EXPECT_EQ(database.contentFingerprint(), before);
}

// The count by one statement is that of the events read, detached occurrences aside.
TEST_F(CalendarDatabaseTest, EventCountIsThatOfTheEventsRead) {
    testing::generateCalendar(build(), 300, 7);
    auto database = open();
    const auto events = database.loadEvents();
    EXPECT_EQ(database.eventCount(), std::count_if(events.begin(), events.end(), [](const BackupEvent& event) {
                  return !event.isDetachedOccurrence();
              }));
}

TEST_F(CalendarDatabaseTest, EventsMapEveryColumnWithItsFallbacks) {
    auto& db = build();
    const auto store = db.addStore({.name = "iCloud", .type = std::int64_t{2}});
    const auto calendar = db.addCalendar(
        {.store = store, .title = "Work", .uuid = "CAL-1", .color = "#FF0000FF", .externalID = "/calendars/work/"});
    const auto location = db.addLocation({.title = "Work", .address = "Work, Main Street 1"});
    const auto full = db.addItem({.calendar = calendar,
                                  .summary = "Review",
                                  .start = 730944000.5,
                                  .end = 730947600.0,
                                  .startTZ = "Europe/Berlin",
                                  .allDay = std::int64_t{7},
                                  .uniqueIdentifier = "UID-1",
                                  .uuid = "ITEM-1",
                                  .hasRecurrences = std::int64_t{1},
                                  .lastModified = 730000000.0,
                                  .description = "Notes",
                                  .url = "https://example.com",
                                  .locationID = location,
                                  .hasAttendees = std::int64_t{1},
                                  .hasAttachment = std::int64_t{1}});
    // Every column NULL that may be.
    const auto bare = db.insert(
        "CalendarItem", {{"calendar_id", calendar}, {"unique_identifier", "UID-2"}, {"entity_type", std::int64_t{2}}});
    const auto floating = db.addItem({.calendar = calendar,
                                      .startTZ = "_float",
                                      .uniqueIdentifier = "UID-3",
                                      .origItemID = std::int64_t{0},
                                      .origDate = 5.0});
    const auto detached = db.addItem(
        {.calendar = calendar, .uniqueIdentifier = "UID-1/RID=730944000", .origItemID = full, .origDate = 730944000.0});
    // Not events: a reminder, a hidden item, an item without identifier.
    db.addItem({.calendar = calendar, .entityType = std::int64_t{3}});
    db.addItem({.calendar = calendar, .hidden = std::int64_t{1}});
    db.insert("CalendarItem", {{"calendar_id", calendar}, {"entity_type", std::int64_t{2}}});
    auto database = open();

    const auto events = database.events(std::nullopt);
    ASSERT_EQ(events.size(), 4u);
    const auto& first = events[0];
    EXPECT_EQ(first.rowID, full);
    EXPECT_EQ(first.uniqueIdentifier, "UID-1");
    EXPECT_EQ(first.uuid, "ITEM-1");
    EXPECT_TRUE(first.hasRecurrences);
    EXPECT_FALSE(first.isDetachedOccurrence());
    EXPECT_EQ(first.lastModified, Date{730000000.0});
    EXPECT_TRUE(first.hasAttendees);
    EXPECT_TRUE(first.hasAttachment);
    EXPECT_EQ(first.calendar,
              (BackupCalendar{calendar, "CAL-1", "Work", "/calendars/work/", "iCloud", 2, "#FF0000FF"}));
    EXPECT_EQ(first.snapshot, (EventSnapshot{.title = "Review",
                                             .start = Date{730944000.5},
                                             .end = Date{730947600.0},
                                             .isAllDay = true, // any non-zero value
                                             .timeZone = "Europe/Berlin",
                                             .location = "Work\nMain Street 1",
                                             .notes = "Notes",
                                             .url = "https://example.com",
                                             .calendarUUID = "CAL-1",
                                             .calendarName = "Work (iCloud)"}));

    const auto& empty = events[1];
    EXPECT_EQ(empty.rowID, bare);
    EXPECT_EQ(empty.snapshot, (EventSnapshot{.calendarUUID = "CAL-1", .calendarName = "Work (iCloud)"}));
    EXPECT_EQ(empty.uuid, std::nullopt);
    EXPECT_EQ(empty.lastModified, std::nullopt);
    EXPECT_FALSE(empty.hasAttendees);

    EXPECT_EQ(events[2].rowID, floating);
    EXPECT_EQ(events[2].snapshot.timeZone, std::nullopt);
    EXPECT_FALSE(events[2].isDetachedOccurrence());

    EXPECT_EQ(events[3].rowID, detached);
    EXPECT_EQ(events[3].masterRowID, full);
    EXPECT_EQ(events[3].originalDate, Date{730944000.0});
    EXPECT_EQ(events[3].externalIdentifier(), "UID-1");
}

TEST_F(CalendarDatabaseTest, CalendarsAndStoresFallBackAndFilterByStoreType) {
    auto& db = build();
    const auto local = db.addCalendar({.store = db.addStore({}), .title = "DEFAULT_CALENDAR_NAME"});
    const auto odd = db.addCalendar({.store = db.addStore({.name = "Odd", .type = std::int64_t{3}})});
    const auto bare = db.insert("Calendar", {{"store_id", db.addStore({.name = nullptr, .type = nullptr})}});
    const auto birthdays = db.addCalendar({.store = db.addStore({.name = "Other", .type = std::int64_t{5}})});
    const auto iCloud = db.addCalendar({.store = db.addStore({.name = "iCloud", .type = std::int64_t{2}})});
    const auto exchange = db.addCalendar({.store = db.addStore({.name = "Work", .type = std::int64_t{1}})});
    const auto reminders = db.addCalendar({.store = db.addStore({.name = "Tasks", .type = std::int64_t{6}})});
    for (const auto calendar : {local, odd, bare, birthdays, iCloud, exchange, reminders})
        db.addItem({.calendar = calendar});
    auto database = open();

    const auto all = database.events(std::nullopt);
    ASSERT_EQ(all.size(), 7u);
    EXPECT_EQ(all[0].calendar.displayName(), "Calendar (On My Mac)");
    EXPECT_EQ(all[2].calendar, (BackupCalendar{bare, std::nullopt, "?", std::nullopt, "?", -1, std::nullopt}));

    // Local, Exchange and CalDAV stores hold what can be restored; 3 is no known type.
    EXPECT_EQ(testing::mapped(database.loadEvents(), [](const auto& event) { return event.calendar.rowID; }),
              (std::vector<std::int64_t>{local, iCloud, exchange}));
    EXPECT_EQ(database.events(std::vector<StoreType>{StoreType::reminders}).at(0).calendar.rowID, reminders);
    EXPECT_TRUE(database.events(std::vector<StoreType>{}).empty());
    EXPECT_EQ(database.calendars().size(), 7u);
}

TEST_F(CalendarDatabaseTest, CalendarDirectoryMatchesFolderNamesThenOneICloudTitle) {
    auto& db = build();
    const auto iCloud = db.addStore({.name = "iCloud",
                                     .type = std::int64_t{2},
                                     .defaultAlarmOffset = std::int64_t{-900},
                                     .defaultAllDayAlarmOffset = std::int64_t{-32400}});
    const auto local = db.addStore({});
    const auto unnamed = db.addStore({.name = nullptr});
    db.addCalendar({.store = iCloud, .title = "Home", .uuid = "HOME", .externalID = "/1234/calendars/home/"});
    db.addCalendar({.store = iCloud, .title = "Work", .externalID = "/1234/calendars/w1/"});
    db.addCalendar({.store = iCloud, .title = "Work", .externalID = "/1234/calendars/w2/"});
    db.addCalendar({.store = iCloud, .title = "Family", .uuid = "FAMILY", .externalID = "fam"});
    db.addCalendar({.store = local, .title = "Solo", .externalID = "solo-id"});
    db.addCalendar({.store = iCloud, .title = "Lonely"});
    db.addCalendar({.store = unnamed, .title = nullptr, .uuid = "FIRST", .externalID = "x/dup"});
    db.addCalendar({.store = local, .title = "Second", .externalID = "dup"});
    db.addCalendar({.store = iCloud, .title = "Cafe\u0301", .externalID = "/1234/calendars/Caf\u00e9/"});
    std::optional<CalendarResolver> resolver;
    {
        auto database = open();
        std::vector<std::string> identifiers;
        database.queryCalendars([&identifiers](const std::string& externalID, const ArchiveCalendarInfo&) {
            identifiers.push_back(externalID);
        });
        EXPECT_EQ(identifiers.size(), 8u) << "a calendar without an external identifier can't be matched";
        resolver = database.calendarDirectory();
    }
    const auto resolve = [&resolver](const std::string& name, std::optional<std::string> displayName = {}) {
        return (*resolver)(name, displayName);
    };

    const ArchiveCalendarInfo home{.uuid = "HOME",
                                   .title = "Home",
                                   .storeName = "iCloud",
                                   .defaultAlarmOffset = -900,
                                   .defaultAllDayAlarmOffset = -32400};
    EXPECT_EQ(resolve("home"), home);
    EXPECT_EQ(resolve("home", "Family"), home) << "the folder name wins over the title";
    EXPECT_EQ(resolve("calendars"), std::nullopt) << "only the last piece counts";
    EXPECT_EQ(resolve("dup"), (ArchiveCalendarInfo{.uuid = "FIRST", .title = "?", .storeName = "?"}));
    EXPECT_EQ(resolve("solo-id")->storeName, "Default");

    EXPECT_EQ(resolve("elsewhere", "Family")->uuid, "FAMILY");
    EXPECT_EQ(resolve("elsewhere", "Work"), std::nullopt) << "two iCloud calendars of that title";
    EXPECT_EQ(resolve("elsewhere", "Solo"), std::nullopt) << "titles match only among iCloud calendars";
    EXPECT_EQ(resolve("elsewhere", "Lonely"), std::nullopt);
    EXPECT_EQ(resolve("elsewhere"), std::nullopt);
    // A name that the file system decomposed is still the same name.
    EXPECT_EQ(resolve("Cafe\u0301")->title, "Cafe\u0301");
    EXPECT_EQ(resolve("elsewhere", "Caf\u00e9")->title, "Cafe\u0301");
}

// Rules: the first one that reads wins.
TEST_F(CalendarDatabaseTest, AlarmsFollowTheDefaultRuleAndComeSortedAndTheFirstUsableRuleWins) {
    auto& db = build();
    const auto calendar = db.addCalendar({.store = db.addStore({.defaultAlarmOffset = std::int64_t{-600},
                                                                .defaultAllDayAlarmOffset = std::int64_t{-32400}})});
    const auto noDefaults = db.addCalendar({.store = db.addStore({.name = "Exchange", .type = std::int64_t{1}})});
    const auto timed = db.addItem({.calendar = calendar});
    const auto allDay = db.addItem({.calendar = calendar, .allDay = std::int64_t{1}});
    const auto other = db.addItem({.calendar = noDefaults});
    db.addAlarm({.owner = timed, .triggerInterval = std::int64_t{-60}});
    db.addAlarm({.owner = timed, .triggerInterval = nullptr, .triggerDate = 730944000.0});
    db.addAlarm({.owner = timed, .triggerInterval = std::int64_t{-3600}});
    db.addAlarm({.owner = timed, .triggerInterval = std::int64_t{-5}, .defaultAlarm = std::int64_t{1}});
    db.addAlarm({.owner = timed, .triggerInterval = std::int64_t{-7}, .disabled = std::int64_t{1}});
    db.addAlarm({.owner = timed, .triggerInterval = nullptr});
    db.addAlarm({.owner = allDay, .triggerInterval = nullptr, .defaultAlarm = std::int64_t{1}});
    // A default alarm where the store has no default disappears, whatever its own trigger.
    db.addAlarm({.owner = other, .triggerInterval = std::int64_t{-900}, .defaultAlarm = std::int64_t{1}});
    db.addRecurrence(
        {.owner = timed, .frequency = std::int64_t{2}, .interval = std::int64_t{2}, .specifier = "D=0MO,0WE"});
    db.addRecurrence({.owner = timed, .frequency = std::int64_t{1}});
    db.addRecurrence({.owner = allDay, .frequency = std::int64_t{9}});
    db.addRecurrence({.owner = allDay, .frequency = nullptr, .interval = nullptr, .count = nullptr});
    db.addRecurrence({.owner = allDay, .frequency = std::int64_t{3}, .interval = nullptr, .count = std::int64_t{5}});
    auto database = open();

    const auto events = database.events(std::nullopt);
    EXPECT_EQ(events[0].snapshot.alarms,
              (std::vector<AlarmSpec>{AlarmSpec::relative(-3600), AlarmSpec::relative(-600), AlarmSpec::relative(-60),
                                      AlarmSpec::absolute(Date{730944000.0})}));
    EXPECT_EQ(events[1].snapshot.alarms, std::vector<AlarmSpec>{AlarmSpec::relative(-32400)});
    EXPECT_TRUE(events[2].snapshot.alarms.empty());

    ASSERT_TRUE(events[0].snapshot.recurrence.has_value());
    EXPECT_EQ(events[0].snapshot.recurrence->description(), "FREQ=WEEKLY;INTERVAL=2;BYDAY=MO,WE");
    ASSERT_TRUE(events[1].snapshot.recurrence.has_value());
    EXPECT_EQ(*events[1].snapshot.recurrence, *RecurrenceRule::fromDatabase(3, 1, 5, std::nullopt, std::nullopt));
    EXPECT_FALSE(events[2].snapshot.recurrence);
}

TEST(LocationText, JoinsTitleAndAddressWithoutRepeatingTheTitle) {
    EXPECT_EQ(locationText("Work", "Work, Main Street 1"), "Work\nMain Street 1");
    EXPECT_EQ(locationText("Work", "Work"), "Work");
    EXPECT_EQ(locationText(" Work\n", "Work ,, Main Street 1,\n"), "Work\nMain Street 1");
    EXPECT_EQ(locationText(std::nullopt, " Main Street 1 "), "Main Street 1");
    EXPECT_EQ(locationText(" ", "\n"), std::nullopt);
}

TEST(BackupCalendar, DisplayNameSpellsOutTheSystemsPlaceholders) {
    EXPECT_EQ(
        (BackupCalendar{.title = "DEFAULT_TASK_CALENDAR_NAME", .storeName = "iCloud", .storeType = 2}).displayName(),
        "Reminders (iCloud)");
    // "Default" is spelt out only for a local store.
    EXPECT_EQ((BackupCalendar{.title = "Work", .storeName = "Default", .storeType = 1}).displayName(),
              "Work (Default)");
}

} // namespace
} // namespace morvane
