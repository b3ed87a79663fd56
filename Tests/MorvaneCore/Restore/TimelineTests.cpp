#include "MorvaneCore/Restore/RestoreEngine.h"
#include "MorvaneCore/Restore/TimelinePage.h"
#include "MorvanePlatform/Files.h"
#include "MorvanePlatform/ToolLauncher.h"

#include "Support/EventStoreSnapshots.h"
#include "Support/Fakes.h"
#include "Support/Pinned.h"
#include "Support/SavedEvents.h"
#include "Support/TemporaryDirectory.h"
#include "Support/UTC.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <regex>
#include <sqlite3.h>

namespace morvane {
namespace {

using State = TimelineItem::State;
using testing::utc;

class TimelineTest : public ::testing::Test {
protected:
    // A restore point of the calendars as they are now, loaded into the engine.
    void loadBackup() {
        const auto file = folder.path() / "backup.calevents";
        testing::writeEventStoreSnapshot(store, file, Date{utc(2024, 6, 1, 12)});
        engine.load(BackupSource(BackupSource::Kind::appSnapshot(file.string()), std::nullopt));
    }

    std::map<std::string, const TimelineItem*> byID(const std::vector<TimelineItem>& items) {
        std::map<std::string, const TimelineItem*> found;
        for (const auto& item : items)
            found[item.id] = &item;
        return found;
    }

    static std::string uid(const std::shared_ptr<EKEvent>& event) { return *event->calendarItemExternalIdentifier(); }
    static std::optional<std::int64_t> at(double seconds) { return static_cast<std::int64_t>(seconds); }

    static std::string unescaped(std::string text) {
        for (const auto& [from, to] : std::vector<std::pair<std::string, std::string>>{
                 {"&lt;", "<"}, {"&gt;", ">"}, {"&quot;", "\""}, {"&#39;", "'"}, {"&amp;", "&"}}) {
            for (auto found = text.find(from); found != std::string::npos; found = text.find(from, found + 1))
                text.replace(found, from.size(), to);
        }
        return text;
    }

    static void changeLiveDatabase(const std::string& sql) {
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(EKEventStore::defaultDatabasePath().c_str(), &db), SQLITE_OK);
        char* error = nullptr;
        EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error), SQLITE_OK) << (error ? error : "");
        sqlite3_free(error);
        sqlite3_close(db);
    }

    // A calendar that can't be written and that the backup never saw, with an event in the range,
    // added behind the store's back as a subscription appears.
    static void addSubscribedCalendar() {
        changeLiveDatabase(
            "INSERT INTO Store (name, type) VALUES ('Subscribed Calendars', 4);"
            "INSERT INTO Calendar (store_id, title, UUID, color) VALUES (last_insert_rowid(), 'Holidays', "
            "'HOLIDAYS', '#FF0000FF');"
            "INSERT INTO CalendarItem (calendar_id, summary, start_date, end_date, start_tz, end_tz, all_day, "
            "unique_identifier, UUID, has_recurrences, orig_item_id, hidden, entity_type) VALUES "
            "(last_insert_rowid(), 'Holiday', " +
            std::to_string(utc(2024, 6, 14, 16)) + ", " + std::to_string(utc(2024, 6, 14, 17)) +
            ", 'America/Los_Angeles', 'America/Los_Angeles', 0, 'HOLIDAY', 'HOLIDAY-ITEM', 0, 0, 0, 2);");
    }

    struct Expected {
        std::string id;
        State state;
        bool moved;
        bool restorable;
    };

    // Saves an event for each way a backup and today can differ, takes the backup, changes the
    // calendars, and returns what the timeline of `weeks` must hold.
    std::vector<Expected> makeEveryState() {
        EKRecurrenceRule weekly;
        weekly.frequency = EKRecurrenceFrequency::weekly;
        weekly.recurrenceEnd = EKRecurrenceEnd::recurrenceEndWithOccurrenceCount(8);
        standup = testing::saveEvent(store, "Standup", utc(2024, 5, 6, 16), utc(2024, 5, 6, 17),
                                     std::string(testing::pinnedZone), weekly);
        review = testing::saveEvent(store, "Review", utc(2024, 6, 4, 17), utc(2024, 6, 4, 18));
        lunch = testing::saveEvent(store, "Lunch", utc(2024, 6, 5, 19), utc(2024, 6, 5, 20));
        auto offsite = testing::saveEvent(store, "Offsite", utc(2024, 6, 6, 16), utc(2024, 6, 6, 23));
        auto planning = testing::saveEvent(store, "Planning", utc(2024, 5, 20, 16), utc(2024, 5, 20, 17));
        auto dentist = testing::saveEvent(store, "Dentist", utc(2024, 6, 11, 16), utc(2024, 6, 11, 17));
        auto dinner = testing::saveEvent(store, "Dinner", utc(2024, 6, 8, 2), utc(2024, 6, 8, 4));
        EKRecurrenceRule daily;
        daily.frequency = EKRecurrenceFrequency::daily;
        daily.recurrenceEnd = EKRecurrenceEnd::recurrenceEndWithOccurrenceCount(2);
        auto yoga = testing::saveEvent(store, "Yoga", utc(2024, 6, 12, 14), utc(2024, 6, 12, 15),
                                       std::string(testing::pinnedZone), daily);
        auto callOne = testing::saveEvent(store, "Call", utc(2024, 6, 13, 18), utc(2024, 6, 13, 19));
        auto callTwo = testing::saveEvent(store, "Call", utc(2024, 6, 13, 18), utc(2024, 6, 13, 19));
        auto beta = testing::saveEvent(store, "Beta", utc(2024, 6, 14, 17), utc(2024, 6, 14, 18));
        auto alpha = testing::saveEvent(store, "Alpha", utc(2024, 6, 14, 17), utc(2024, 6, 14, 18));
        auto early = testing::saveEvent(store, "Early", utc(2024, 6, 14, 15), utc(2024, 6, 14, 16));
        floating = testing::saveEvent(store, "Floating", utc(2024, 6, 14, 16), utc(2024, 6, 14, 17), std::nullopt);
        auto script =
            testing::saveEvent(store, "<script>alert('x')</script> & co", utc(2024, 6, 12, 20), utc(2024, 6, 12, 21));
        loadBackup();

        store.removeEvent(*testing::occurrenceAt(store, *standup, utc(2024, 6, 10, 16)), EKSpan::thisEvent, true);
        review->title = "Design review";
        store.saveEvent(*review, EKSpan::thisEvent, true);
        lunch->startDate = utc(2024, 6, 5, 21);
        lunch->endDate = utc(2024, 6, 5, 22);
        store.saveEvent(*lunch, EKSpan::thisEvent, true);
        offsite->startDate = utc(2024, 7, 15, 16);
        offsite->endDate = utc(2024, 7, 15, 23);
        store.saveEvent(*offsite, EKSpan::thisEvent, true);
        planning->startDate = utc(2024, 6, 7, 16);
        planning->endDate = utc(2024, 6, 7, 17);
        store.saveEvent(*planning, EKSpan::thisEvent, true);
        store.removeEvent(*dentist, EKSpan::thisEvent, true);
        store.removeEvent(*yoga, EKSpan::futureEvents, true);
        // Deleted, then brought back under a new identity: once for one event, once for two alike.
        store.removeEvent(*dinner, EKSpan::thisEvent, true);
        auto dinnerAgain = testing::saveEvent(store, "Dinner", utc(2024, 6, 8, 2), utc(2024, 6, 8, 4));
        store.removeEvent(*callOne, EKSpan::thisEvent, true);
        store.removeEvent(*callTwo, EKSpan::thisEvent, true);
        auto callAgain = testing::saveEvent(store, "Call", utc(2024, 6, 13, 18), utc(2024, 6, 13, 19));
        addSubscribedCalendar();

        standupDeleted = RestoreEngine::matchKey(uid(standup), at(utc(2024, 6, 10, 16)));
        absent = {uid(callOne), uid(callTwo), "HOLIDAY"};
        return {
            {RestoreEngine::matchKey(uid(standup), at(utc(2024, 6, 3, 16))), State::unchanged, false, false},
            {uid(review), State::changed, false, false},
            {uid(lunch), State::changed, true, false},
            {uid(offsite), State::changed, true, false},
            {uid(planning), State::added, false, false},
            {uid(dinnerAgain), State::unchanged, false, false},
            {uid(callAgain), State::unchanged, false, false},
            {uid(beta), State::unchanged, false, false},
            {uid(alpha), State::unchanged, false, false},
            {uid(early), State::unchanged, false, false},
            {uid(floating), State::unchanged, false, false},
            {uid(script), State::unchanged, false, false},
            {standupDeleted, State::deleted, false, false},
            {uid(dentist), State::deleted, false, true},
            {RestoreEngine::matchKey(uid(yoga), at(utc(2024, 6, 12, 14))), State::deleted, false, true},
            {RestoreEngine::matchKey(uid(yoga), at(utc(2024, 6, 13, 14))), State::deleted, false, true},
        };
    }

    const DateInterval weeks{Date{utc(2024, 6, 3, 7)}, Date{utc(2024, 6, 17, 7)}};
    std::shared_ptr<EKEvent> standup;
    std::shared_ptr<EKEvent> review;
    std::shared_ptr<EKEvent> lunch;
    std::shared_ptr<EKEvent> floating;
    std::string standupDeleted;
    std::vector<std::string> absent;

    testing::TemporaryUser user;
    testing::Installed<testing::FixedClock> clock{utc(2024, 6, 1, 12)};
    testing::TemporaryDirectory folder;
    EKEventStore store;
    RestoreEngine engine;
};

// Two weeks of June (Los Angeles, UTC-7), one event for each way a backup and today can differ.
TEST_F(TimelineTest, LabelsEachOccurrenceAgainstTheBackup) {
    const auto expected = makeEveryState();
    const auto items = engine.timeline(weeks);
    const auto found = byID(items);
    EXPECT_EQ(found.size(), expected.size());
    for (const auto& want : expected) {
        SCOPED_TRACE(want.id);
        ASSERT_TRUE(found.count(want.id));
        const auto& item = *found.at(want.id);
        EXPECT_EQ(item.state, want.state);
        EXPECT_EQ(item.moved(), want.moved);
        EXPECT_EQ(item.restoreID.has_value(), want.restorable);
    }
    for (const auto& id : absent)
        EXPECT_EQ(found.count(id), 0u) << id;
    EXPECT_EQ(found.at(uid(review))->changes.at(0).field, "title");
    EXPECT_EQ(found.at(uid(lunch))->previousStart, Date{utc(2024, 6, 5, 19)});
    // Floating 9:00 is 16:00 UTC in Los Angeles, after the zoned 8:00.
    EXPECT_EQ(found.at(uid(floating))->start, Date{utc(2024, 6, 14, 16)});
    EXPECT_TRUE(std::is_sorted(items.begin(), items.end(), [](const TimelineItem& a, const TimelineItem& b) {
        return std::pair(a.start, a.title) < std::pair(b.start, b.title);
    }));

    // The lost occurrence comes back on its own, once, and then reads as there.
    const auto restored = engine.restoreAsSingleEvent(standupDeleted, std::nullopt);
    EXPECT_TRUE(restored.succeeded) << restored.message.value_or("");
    EXPECT_EQ(engine.restoreAsSingleEvent(standupDeleted, std::nullopt).message,
              "An event with the same title and time is already in your calendars.");
    EXPECT_EQ(engine.restoreAsSingleEvent("nobody|1", std::nullopt).message, "That event isn't in this backup.");
    std::size_t deletedStandups = 0;
    for (const auto& item : engine.timeline(weeks)) {
        if (item.title == "Standup" && item.state != State::unchanged) ++deletedStandups;
    }
    EXPECT_EQ(deletedStandups, 0u);
}

TEST_F(TimelineTest, RestoresASingleEventOnlyIntoAWritableCalendar) {
    const auto gone = testing::saveEvent(store, "Gone", utc(2024, 6, 4, 17), utc(2024, 6, 4, 18));
    loadBackup();
    store.removeEvent(*gone, EKSpan::thisEvent, true);
    // Every calendar becomes a subscription: none can be written.
    changeLiveDatabase("UPDATE Store SET type = 4;");
    EXPECT_EQ(engine.restoreAsSingleEvent(uid(gone), std::nullopt).message, "No calendar to restore into.");
}

TEST(TimelinePageTest, RestoreCommandsQuoteForTheShell) {
    struct Case {
        State state;
        std::optional<std::int64_t> restoreID;
        std::string id;
        std::optional<std::string> command;
    };
    const std::vector<Case> cases{
        {State::deleted, 42, "A|1", "morvane restore 'my backup' 42"},
        {State::deleted, std::nullopt, "A|1", "morvane restore 'my backup' --occurrence 'A|1'"},
        {State::changed, std::nullopt, "it's", "morvane restore 'my backup' --occurrence 'it'\\''s'"},
        {State::unchanged, std::nullopt, "A", std::nullopt},
        {State::added, std::nullopt, "A", std::nullopt},
    };
    for (const auto& wanted : cases) {
        TimelineItem item;
        item.state = wanted.state;
        item.restoreID = wanted.restoreID;
        item.id = wanted.id;
        EXPECT_EQ(restoreCommand(item, "my backup"), wanted.command) << wanted.id;
    }
}

// Day columns for two weeks, a grid of weeks for the month: each draws every item with its state.
TEST_F(TimelineTest, PageDrawsEveryItemWithItsStateAndEscapesTitles) {
    makeEveryState();
    const DateInterval june{Date{utc(2024, 6, 1, 7)}, Date{utc(2024, 7, 1, 7)}};
    for (const auto& range : {weeks, june}) {
        const auto items = engine.timeline(range);
        const auto page = timelinePage(items, range, testing::pinnedZone, "backup.calevents");
        SCOPED_TRACE(page.size());
        std::multimap<std::string, std::string> drawn;
        static const std::regex box(
            R"re(<a class="(?:box|chip) [^"]*" data-id="([^"]*)" data-state="([a-z]+)"( data-moved="true")?)re");
        for (auto match = std::sregex_iterator(page.begin(), page.end(), box); match != std::sregex_iterator(); ++match)
            drawn.emplace(unescaped((*match)[1]), (*match)[2].str() + (*match)[3].str());
        for (const auto& item : items) {
            SCOPED_TRACE(item.id);
            const auto [first, last] = drawn.equal_range(item.id);
            ASSERT_NE(first, last);
            for (auto it = first; it != last; ++it)
                EXPECT_EQ(it->second,
                          std::string(TimelineItem::name(item.state)) + (item.moved() ? " data-moved=\"true\"" : ""));
        }
        EXPECT_NE(page.find("data-ghost-of=\"" + uid(lunch) + "\""), std::string::npos);
        EXPECT_NE(page.find("&lt;script&gt;alert(&#39;x&#39;)&lt;/script&gt;"), std::string::npos);
        EXPECT_EQ(page.find("<script"), std::string::npos);
        EXPECT_EQ(page.find("http"), std::string::npos) << "reaches outside the page";
    }
}

// Skipped without Chromium: the page must render, not only parse.
TEST_F(TimelineTest, PageRendersInAHeadlessBrowser) {
    const std::filesystem::path chromium = "/usr/bin/chromium";
    if (!std::filesystem::exists(chromium)) GTEST_SKIP() << "chromium isn't installed; the page isn't rendered";
    makeEveryState();
    const auto page = folder.path() / "timeline.html";
    const auto picture = folder.path() / "timeline.png";
    files::write(page, timelinePage(engine.timeline(weeks), weeks, testing::pinnedZone, "backup.calevents"));
    // A profile and home of its own, so the browser never touches the user's.
    const auto home = folder.path() / "browser";
    const auto result = ToolLauncher::system().launch(
        "/usr/bin/env", {"HOME=" + home.string(), "XDG_CONFIG_HOME=" + (home / "config").string(),
                         "XDG_CACHE_HOME=" + (home / "cache").string(), chromium.string(), "--headless", "--no-sandbox",
                         "--disable-gpu", "--hide-scrollbars", "--window-size=1400,900",
                         "--user-data-dir=" + (home / "profile").string(), "--screenshot=" + picture.string(),
                         "file://" + page.string()});
    ASSERT_EQ(result.status, 0) << result.output;
    ASSERT_TRUE(std::filesystem::exists(picture)) << result.output;
    EXPECT_GT(std::filesystem::file_size(picture), 20000u) << "an empty page";
}

} // namespace
} // namespace morvane
