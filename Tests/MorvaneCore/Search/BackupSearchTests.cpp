#include "MorvaneCore/Search/BackupSearch.h"

#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvanePlatform/EventKit.h"
#include "MorvanePlatform/Files.h"
#include "Support/CalendarDatabaseBuilder.h"
#include "Support/Fakes.h"
#include "Support/Pinned.h"
#include "Support/UTC.h"

#include <gtest/gtest.h>

namespace morvane {
namespace {

namespace fs = std::filesystem;
using testing::utc;

struct Item {
    const char* title;
    const char* uid;
    double start = utc(2024, 6, 3, 16);
    testing::SQLValue location = nullptr;
    testing::SQLValue zone = std::string(testing::pinnedZone);
    bool repeats = false;
};

class BackupSearchTest : public ::testing::Test {
protected:
    BackupSearchTest() {
        // The live calendars hold only the choir's series.
        testing::CalendarDatabaseBuilder live(EKEventStore::defaultDatabasePath());
        const auto calendar = live.addCalendar({.store = live.addStore({})});
        live.addItem({.calendar = calendar, .summary = "Choir", .uniqueIdentifier = "UID-C"});
    }

    // A calendar database in the folder `name` of the home folder, as a picked file.
    BackupSource backup(const std::string& name, const std::vector<Item>& items) {
        const auto path = user.home() / name / "Calendar.sqlitedb";
        fs::create_directories(path.parent_path());
        testing::CalendarDatabaseBuilder builder(path);
        const auto calendar = builder.addCalendar({.store = builder.addStore({}), .title = "Home"});
        for (const auto& item : items) {
            const auto location = std::holds_alternative<std::nullptr_t>(item.location)
                                      ? testing::SQLValue(nullptr)
                                      : testing::SQLValue(builder.addLocation({.title = item.location}));
            const auto row = builder.addItem({.calendar = calendar,
                                              .summary = item.title,
                                              .start = item.start,
                                              .end = item.start + 3600,
                                              .startTZ = item.zone,
                                              .uniqueIdentifier = item.uid,
                                              .hasRecurrences = std::int64_t{item.repeats ? 1 : 0},
                                              .locationID = location});
            if (item.repeats) {
                builder.addRecurrence({.owner = row});
                // An edited occurrence is no event of its own: a search never finds it.
                builder.addItem({.calendar = calendar,
                                 .summary = "Dentist rehearsal",
                                 .start = item.start + 86400,
                                 .end = item.start + 90000,
                                 .uniqueIdentifier = std::string(item.uid) + "/RID=1",
                                 .origItemID = row,
                                 .origDate = item.start + 86400});
            }
        }
        return {BackupSource::Kind::file(path.string()), std::nullopt};
    }

    // Every update of a search that runs to its end.
    static std::vector<BackupSearch::Update> run(BackupSearch& search, std::string_view query,
                                                 const std::vector<BackupSource>& sources) {
        std::vector<BackupSearch::Update> updates;
        search.search(query, sources, [&](const BackupSearch::Update& update) {
            updates.push_back(update);
            return true;
        });
        return updates;
    }

    testing::TemporaryUser user;
};

TEST_F(BackupSearchTest, FindsEachEventOnceWithItsFirstBackupCountAndWhetherItIsStillThere) {
    const auto dentist = Item{"  Dentist\t", "UID-D"};
    const auto unrelated = backup("zero", {{"Lunch", "UID-L"}});
    const auto first =
        backup("one", {dentist,
                       {"Choir", "UID-C", utc(2024, 6, 5, 2), nullptr, std::string("America/Los_Angeles"), true},
                       {"Walk", "UID-W", utc(2024, 6, 5, 9), nullptr, std::string("_float")},
                       {"Meeting", "UID-M", utc(2024, 6, 6, 16), std::string("Town Hall, Room 2")}});
    const auto damaged = user.home() / "damaged.sqlitedb";
    files::write(damaged, "not a database");
    const BackupSource unreadable(BackupSource::Kind::file(damaged.string()), std::nullopt);
    const BackupSource vanished(BackupSource::Kind::file((user.home() / "gone" / "Calendar.sqlitedb").string()),
                                std::nullopt);
    const std::vector<BackupSource> sources{
        unrelated, unreadable, first, backup("two", {dentist}), vanished, backup("three", {dentist})};

    BackupSearch search;
    const auto updates = run(search, "dentist", sources);
    ASSERT_EQ(updates.size(), 6u);
    for (std::size_t i = 0; i < updates.size(); ++i) {
        EXPECT_EQ(updates[i].searched, static_cast<std::int64_t>(i + 1));
        EXPECT_EQ(updates[i].total, 6);
    }
    EXPECT_TRUE(updates[1].results.empty());
    EXPECT_EQ(updates[1].unreadable, std::vector<std::string>{unreadable.title()});
    const auto& last = updates.back();
    EXPECT_EQ(last.unreadable, (std::vector<std::string>{unreadable.title(), vanished.title()}));
    ASSERT_EQ(last.results.size(), 1u) << "an edited occurrence matched, or a series was split";
    const auto& result = last.results[0];
    EXPECT_EQ(result.id(), "UID-D");
    EXPECT_EQ(result.entry.title, "Dentist");
    EXPECT_EQ(result.entry.itemID, "UID-D");
    EXPECT_EQ(result.entry.calendarName, "Home (On My Mac)");
    EXPECT_EQ(result.source, first);
    EXPECT_EQ(result.backupCount, 3);
    EXPECT_FALSE(result.existsNow);

    // Place only, a repeating event that still exists, and a floating one, from the indexes built.
    const auto meeting = run(search, "town hall", sources).back().results;
    ASSERT_EQ(meeting.size(), 1u);
    EXPECT_EQ(meeting[0].entry.title, "Meeting");
    EXPECT_EQ(meeting[0].entry.location, "Town Hall, Room 2");

    const auto choir = run(search, "CHOIR", sources).back().results;
    ASSERT_EQ(choir.size(), 1u);
    EXPECT_TRUE(choir[0].existsNow);
    EXPECT_TRUE(choir[0].entry.isRepeating);
    EXPECT_EQ(choir[0].entry.itemID, "UID-C|" + std::to_string(static_cast<std::int64_t>(utc(2024, 6, 5, 2))));

    const auto walk = run(search, "walk", sources).back().results;
    ASSERT_EQ(walk.size(), 1u);
    EXPECT_EQ(walk[0].entry.start, Date{utc(2024, 6, 5, 16)}) << "09:00 on the clock in Los Angeles";
    EXPECT_EQ(walk[0].entry.end, Date{utc(2024, 6, 5, 17)});
}

TEST_F(BackupSearchTest, ReadsEachBackupOnceKeepsWhatAStoppedSearchBuiltAndForgetsOnRequest) {
    const std::vector<BackupSource> sources{backup("one", {{"Dentist", "UID-D"}}),
                                            backup("two", {{"Dentist", "UID-D"}}),
                                            backup("three", {{"Review", "UID-R"}})};
    BackupSearch search;
    int updates = 0;
    search.search("dentist", sources, [&](const BackupSearch::Update&) { return ++updates < 1; });
    EXPECT_EQ(updates, 1);
    EXPECT_EQ(search.indexedCount(), 1u);
    EXPECT_TRUE(BackupLocator::stagedFolders().empty());

    // A blank query matches nothing but builds what is missing.
    const auto blank = run(search, " \t ", sources);
    ASSERT_EQ(blank.size(), 3u);
    EXPECT_TRUE(blank.back().results.empty());
    EXPECT_EQ(blank.back().searched, 3);
    EXPECT_EQ(search.indexedCount(), 3u);

    // Staging a copy would write, and the write would fail; the backups themselves are gone too.
    testing::Installed<testing::FailingFileSystem> disk(1);
    for (const auto& source : sources)
        fs::remove_all(fs::path(source.kind.path()).parent_path());
    const auto again = run(search, "dentist", sources).back();
    EXPECT_FALSE(disk->failed());
    EXPECT_TRUE(again.unreadable.empty());
    ASSERT_EQ(again.results.size(), 1u);
    EXPECT_EQ(again.results[0].backupCount, 2);

    EXPECT_TRUE(run(search, "dentist", {}).empty());
    search.forget({sources[1].id(), "file:/elsewhere"});
    EXPECT_EQ(search.indexedCount(), 1u);
    search.forget({});
    EXPECT_EQ(search.indexedCount(), 0u);
}

TEST(BackupSearchMatching, IgnoresCaseUnderTheUsersLocaleAndTakesPatternCharactersLiterally) {
    struct Case {
        const char* text;
        const char* query;
        bool found;
        const char* locale = testing::pinnedLocale;
    };
    const Case cases[] = {
        {"Dentist", "DENT", true},
        {"Ärztin Dr. Berg", "ÄRZTIN", true},
        {"ÄRZTIN", "ärztin", true},
        {"Straße", "STRASSE", true},
        {"Cafe\xCC\x81 Zu\xCC\x88rich", "café zürich", true}, // decomposed in the text, composed in the query
        {"Arztin", "ärztin", false},
        {"Review (weekly)", "(WEEKLY)", true},
        {"a.b", ".", true},
        {"axb", "a.b", false},
        {"Lunch", "[", false},
        {"Lunch", "", false},
        {"ISTANBUL", "istanbul", true},
        {"ISTANBUL", "istanbul", false, "tr_TR"},
        {"İSTANBUL", "istanbul", true, "tr_TR"},
    };
    for (const auto& c : cases) {
        testing::ScopedLocale locale(c.locale);
        EXPECT_EQ(BackupSearch::contains(c.text, c.query), c.found) << c.text << " / " << c.query << " in " << c.locale;
    }
}

} // namespace
} // namespace morvane
