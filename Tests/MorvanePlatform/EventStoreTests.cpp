#include "MorvanePlatform/EventKit.h"

#include "MorvanePlatform/EventStore/RecurrenceExpansion.h"
#include "MorvanePlatform/EventStore/SQLiteHandles.h"
#include "MorvanePlatform/Files.h"
#include "MorvanePlatform/SHA256.h"
#include "Support/CalendarDatabaseBuilder.h"
#include "Support/ErrorText.h"
#include "Support/FailingSteps.h"
#include "Support/Fakes.h"
#include "Support/Pinned.h"
#include "Support/SavedEvents.h"
#include "Support/UTC.h"

#include <algorithm>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <sqlite3.h>

namespace morvane {
namespace {

using testing::utc;

namespace fs = std::filesystem;

// "2024-03-11 09:00" in the zone `zone` (the current zone when empty), for reading results.
std::string wallClock(double moment, const char* zone = testing::pinnedZone) {
    const auto previous = std::getenv("TZ") ? std::string(std::getenv("TZ")) : std::string();
    ::setenv("TZ", zone, 1);
    ::tzset();
    const auto seconds = static_cast<time_t>(moment + 978307200.0);
    std::tm parts{};
    localtime_r(&seconds, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &parts);
    ::setenv("TZ", previous.c_str(), 1);
    ::tzset();
    return text;
}

// Runs `sql` on a read-only connection of its own, giving `visit` each row: what the file holds
// for any other reader.
void eachRow(const fs::path& path, const std::string& sql, const std::function<void(sqlite3_stmt*)>& visit) {
    sqlite3* db = nullptr;
    sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr);
    while (sqlite3_step(statement) == SQLITE_ROW)
        visit(statement);
    sqlite3_finalize(statement);
    sqlite3_close(db);
}

std::string columnText(sqlite3_stmt* row, int column) {
    const auto* text = sqlite3_column_text(row, column);
    return text ? reinterpret_cast<const char*>(text) : "NULL";
}

// The first column of the first row of `sql`.
std::string dbCount(const fs::path& path, const std::string& sql) {
    std::string result;
    eachRow(path, sql, [&](sqlite3_stmt* row) { result = result.empty() ? columnText(row, 0) : result; });
    return result;
}

// Every row of every table, each value with its type.
std::string allRows(const fs::path& path) {
    std::string rows;
    eachRow(path, "SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name", [&](sqlite3_stmt* table) {
        rows += columnText(table, 0) + "\n";
        eachRow(path, "SELECT * FROM \"" + columnText(table, 0) + "\" ORDER BY ROWID", [&](sqlite3_stmt* row) {
            for (int column = 0; column < sqlite3_column_count(row); ++column)
                rows += std::to_string(sqlite3_column_type(row, column)) + ":" + columnText(row, column) + "\x1f";
            rows += "\n";
        });
    });
    return rows;
}

class EventStoreTest : public ::testing::Test {
protected:
    // Saves a timed event, in the pinned zone unless told otherwise (absent is floating); a series
    // when `repeat` is given.
    std::shared_ptr<EKEvent> save(const std::string& title, double start, double end,
                                  std::optional<EKRecurrenceRule> repeat = std::nullopt,
                                  std::optional<std::string> zone = std::string(testing::pinnedZone)) {
        return testing::saveEvent(store, title, start, end, std::move(zone), std::move(repeat));
    }
    std::shared_ptr<EKEvent> newEvent(const std::string& title, double start, double end,
                                      std::optional<std::string> zone = std::string(testing::pinnedZone),
                                      EKEventStore* in = nullptr) {
        auto& into = in ? *in : store;
        auto event = EKEvent::eventWithEventStore(into);
        event->title = title;
        event->startDate = start;
        event->endDate = end;
        event->timeZone = std::move(zone);
        event->calendar = into.defaultCalendarForNewEvents();
        return event;
    }

    static EKRecurrenceRule rule(EKRecurrenceFrequency frequency, std::optional<EKRecurrenceEnd> end = std::nullopt) {
        EKRecurrenceRule made;
        made.frequency = frequency;
        made.recurrenceEnd = end;
        return made;
    }

    // The store's events of a span, by start.
    std::vector<std::shared_ptr<EKEvent>> fetch(double start, double end, EKEventStore* from = nullptr) {
        auto& source = from ? *from : store;
        auto events = source.eventsMatchingPredicate(source.predicateForEvents(start, end, std::nullopt));
        std::stable_sort(events.begin(), events.end(),
                         [](const auto& a, const auto& b) { return *a->startDate < *b->startDate; });
        return events;
    }

    std::vector<std::string> starts(const std::vector<std::shared_ptr<EKEvent>>& events,
                                    const char* zone = testing::pinnedZone) {
        std::vector<std::string> texts;
        for (const auto& event : events)
            texts.push_back(wallClock(*event->startDate, zone));
        return texts;
    }

    testing::TemporaryUser user;
    testing::Installed<testing::FixedClock> clock{utc(2024, 6, 1, 12)};
    EKEventStore store;
};

// ---- A fresh machine ----

TEST_F(EventStoreTest, FirstUseCreatesOneLocalCalendarAtTheLivePath) {
    const auto path = user.home() / "Library/Group Containers/group.com.apple.calendar/Calendar.sqlitedb";
    EXPECT_EQ(store.databasePath(), path);
    ASSERT_TRUE(fs::exists(path));
    EXPECT_EQ(dbCount(path, "PRAGMA journal_mode"), "wal");
    // The calendar, and that a second opening finds the same one, are read back by `morvane
    // calendars`, whose tests check them. Nothing is left from the building.
    for (const auto& entry : fs::directory_iterator(path.parent_path()))
        EXPECT_EQ(entry.path().filename().string().find(".new-"), std::string::npos) << entry.path();
}

// ---- Expansion ----

// A series in the machine's zone across its clock change is what the capture's tests read.
TEST_F(EventStoreTest, AZonedSeriesKeepsItsOwnZonesWallClockAcrossTheClockChange) {
    // Mondays 09:00 in Berlin; Berlin's clocks go forward on 31 March, the machine's on 10 March.
    const auto meeting = save("Berlin sync", utc(2024, 3, 4, 8), utc(2024, 3, 4, 8, 30),
                              rule(EKRecurrenceFrequency::weekly), "Europe/Berlin");
    const auto events = fetch(utc(2024, 3, 1), utc(2024, 4, 9));
    EXPECT_EQ(starts(events, "Europe/Berlin"),
              (std::vector<std::string>{"2024-03-04 09:00", "2024-03-11 09:00", "2024-03-18 09:00", "2024-03-25 09:00",
                                        "2024-04-01 09:00", "2024-04-08 09:00"}));
    EXPECT_EQ(*events[1]->endDate - *events[1]->startDate, 1800);
    for (const auto& event : events) {
        EXPECT_EQ(event->calendarItemExternalIdentifier(), meeting->calendarItemExternalIdentifier());
        EXPECT_EQ(event->occurrenceDate(), event->startDate);
    }
}

// A fetch reads only the stored end dates that the longest item can reach: an item longer than any
// before it, saved after the store had fetched, must still be found.
TEST_F(EventStoreTest, AShortSpanFindsAnEventLongerThanAnySeenBefore) {
    save("Standup", utc(2024, 7, 1, 16), utc(2024, 7, 1, 16, 15));
    EXPECT_TRUE(fetch(utc(2024, 7, 15, 12), utc(2024, 7, 15, 12, 2)).empty());
    save("Sabbatical", utc(2024, 7, 2), utc(2024, 7, 30));
    const auto midway = fetch(utc(2024, 7, 15, 12), utc(2024, 7, 15, 12, 2));
    ASSERT_EQ(midway.size(), 1u);
    EXPECT_EQ(midway.front()->title, "Sabbatical");
}

TEST_F(EventStoreTest, MonthlyByWeekdayAndSetPositionRules) {
    save("Review", utc(2024, 1, 26, 18), utc(2024, 1, 26, 19),
         EKRecurrenceRule{.frequency = EKRecurrenceFrequency::monthly,
                          .daysOfTheWeek = std::vector{EKRecurrenceDayOfWeek::dayOfWeek(6, -1)}});

    std::vector<EKRecurrenceDayOfWeek> workdays;
    for (int day = 2; day <= 6; ++day)
        workdays.push_back(EKRecurrenceDayOfWeek::dayOfWeek(day));
    save("Payroll", utc(2024, 1, 31, 18), utc(2024, 1, 31, 19),
         EKRecurrenceRule{.frequency = EKRecurrenceFrequency::monthly,
                          .daysOfTheWeek = workdays,
                          .setPositions = std::vector{-1},
                          .recurrenceEnd = EKRecurrenceEnd::recurrenceEndWithOccurrenceCount(5)});

    std::vector<std::string> reviews;
    std::vector<std::string> payrolls;
    for (const auto& event : fetch(utc(2024, 1, 1), utc(2024, 12, 31))) {
        (event->title == "Review" ? reviews : payrolls).push_back(wallClock(*event->startDate).substr(0, 10));
    }
    EXPECT_EQ(reviews.size(), 12u);
    EXPECT_EQ(reviews[1], "2024-02-23");
    EXPECT_EQ(reviews[2], "2024-03-29");
    EXPECT_EQ(reviews[11], "2024-12-27");
    // The count ends it after five; 31 March 2024 is a Sunday, 30 June too.
    EXPECT_EQ(payrolls,
              (std::vector<std::string>{"2024-01-31", "2024-02-29", "2024-03-29", "2024-04-30", "2024-05-31"}));
}

TEST(RecurrenceExpansion, PlainRulesGiveWhatLibicalGives) {
    // Starts on a 31st, on 29 February and on a Sunday evening; every shape the arithmetic takes.
    const double starts[] = {utc(2024, 1, 31, 9, 30), utc(2024, 2, 29, 18), utc(2023, 12, 31, 23, 15)};
    std::vector<EKRecurrenceRule> rules;
    for (const auto frequency : {EKRecurrenceFrequency::daily, EKRecurrenceFrequency::weekly,
                                 EKRecurrenceFrequency::monthly, EKRecurrenceFrequency::yearly}) {
        for (const int interval : {1, 2, 3}) {
            for (const auto& end :
                 {std::optional<EKRecurrenceEnd>(), std::optional(EKRecurrenceEnd::recurrenceEndWithOccurrenceCount(7)),
                  std::optional(EKRecurrenceEnd::recurrenceEndWithEndDate(utc(2027, 3, 1)))}) {
                rules.push_back({.frequency = frequency, .interval = interval, .recurrenceEnd = end});
            }
        }
    }
    for (const int interval : {1, 2}) {
        rules.push_back(
            {.frequency = EKRecurrenceFrequency::weekly,
             .interval = interval,
             .daysOfTheWeek = std::vector{EKRecurrenceDayOfWeek::dayOfWeek(1), EKRecurrenceDayOfWeek::dayOfWeek(4),
                                          EKRecurrenceDayOfWeek::dayOfWeek(7)},
             .recurrenceEnd = EKRecurrenceEnd::recurrenceEndWithOccurrenceCount(10)});
        rules.push_back({.frequency = EKRecurrenceFrequency::weekly,
                         .interval = interval,
                         .daysOfTheWeek = std::vector{EKRecurrenceDayOfWeek::dayOfWeek(2)}});
    }
    for (const auto& rule : rules) {
        for (const double start : starts) {
            // From the start, and from a window years later, as fetches skip ahead.
            for (const double from : {start, utc(2026, 5, 17)}) {
                std::vector<double> plain;
                std::vector<double> libical;
                const double to = from + 400 * 86400.0;
                const auto until =
                    rule.recurrenceEnd && rule.recurrenceEnd->endDate ? rule.recurrenceEnd->endDate : std::nullopt;
                ASSERT_TRUE(recurrence::expandPlainly(rule, start, until, from, to, [&](double at) {
                    plain.push_back(at);
                    return true;
                }));
                recurrence::expandWithLibical(rule, start, until, from, to, [&](double at) {
                    libical.push_back(at);
                    return true;
                });
                EXPECT_EQ(plain, libical) << recurrence::rruleText(rule, until) << " from " << wallClock(from, "UTC");
            }
        }
    }
    EKRecurrenceRule lastFriday{.frequency = EKRecurrenceFrequency::monthly,
                                .daysOfTheWeek = std::vector{EKRecurrenceDayOfWeek::dayOfWeek(6, -1)}};
    EXPECT_FALSE(recurrence::expandPlainly(lastFriday, 0, std::nullopt, 0, 1e9, [](double) { return true; }));
}

TEST_F(EventStoreTest, AFetchSpanEndsAYearLaterWith29FebruaryOn28February) {
    // The core walks long spans a year at a time by the same rule: a step is never cut short here.
    const double leapDay = utc(2024, 2, 29, 17);
    EXPECT_EQ(store.predicateForEvents(leapDay, leapDay + 3 * 365 * 86400.0, std::nullopt).endDate,
              utc(2025, 2, 28, 17));
    EXPECT_EQ(store.predicateForEvents(leapDay, leapDay + 86400, std::nullopt).endDate, leapDay + 86400);
}

// ---- Editing occurrences ----

TEST_F(EventStoreTest, AMovedOccurrenceIsDetachedUnderItsSeriesAndARemovedOneBecomesAnExceptionDate) {
    auto weekly = newEvent("Piano", utc(2024, 5, 6, 23), utc(2024, 5, 7, 0));
    weekly->recurrenceRules = {rule(EKRecurrenceFrequency::weekly)};
    weekly->alarms = {EKAlarm::alarmWithRelativeOffset(-900)};
    store.saveEvent(*weekly, EKSpan::futureEvents, true);
    const auto uid = *weekly->calendarItemExternalIdentifier();

    auto second = fetch(utc(2024, 5, 13), utc(2024, 5, 14)).at(0);
    const double original = *second->startDate;
    second->startDate = original + 3 * 86400;
    second->endDate = original + 3 * 86400 + 3600;
    second->title = "Piano (moved)";
    store.saveEvent(*second, EKSpan::thisEvent, true);
    const auto key = std::to_string(static_cast<long long>(original));
    store.removeEvent(*fetch(utc(2024, 5, 27), utc(2024, 5, 28)).at(0), EKSpan::thisEvent, true);
    EXPECT_EQ(dbCount(store.databasePath(), "SELECT CAST(date AS INTEGER) FROM ExceptionDate"),
              std::to_string(static_cast<long long>(utc(2024, 5, 27, 23))));

    const auto events = fetch(utc(2024, 5, 1), utc(2024, 5, 31));
    EXPECT_EQ(starts(events), (std::vector<std::string>{"2024-05-06 16:00", "2024-05-16 16:00", "2024-05-20 16:00"}));
    const auto& moved = *events[1];
    EXPECT_EQ(moved.title, "Piano (moved)");
    EXPECT_EQ(moved.occurrenceDate(), original);
    EXPECT_EQ(moved.calendarItemExternalIdentifier(), uid + "/RID=" + key);
    EXPECT_EQ(moved.calendarItemIdentifier(), weekly->calendarItemIdentifier());
    EXPECT_EQ(moved.alarms, weekly->alarms);

    const auto items = store.calendarItemsWithExternalIdentifier(uid);
    ASSERT_EQ(items.size(), 2u);
    EXPECT_TRUE(std::dynamic_pointer_cast<EKEvent>(items[1])->isDetached());
    EXPECT_TRUE(store.calendarItemsWithExternalIdentifier(uid.substr(0, 8)).empty());

    // Removing the detached occurrence keeps its slot empty.
    store.removeEvent(*events[1], EKSpan::thisEvent, true);
    EXPECT_EQ(fetch(utc(2024, 5, 1), utc(2024, 5, 31)).size(), 2u);
}

TEST_F(EventStoreTest, RemovingFutureEventsEndsTheSeriesOrRemovesItWhole) {
    auto series = save("Course", utc(2024, 9, 2, 16), utc(2024, 9, 2, 17), rule(EKRecurrenceFrequency::weekly));

    auto fourth = fetch(utc(2024, 9, 20), utc(2024, 9, 27)).at(0);
    store.removeEvent(*fourth, EKSpan::futureEvents, true);
    EXPECT_EQ(starts(fetch(utc(2024, 9, 1), utc(2025, 8, 1))),
              (std::vector<std::string>{"2024-09-02 09:00", "2024-09-09 09:00", "2024-09-16 09:00"}));

    auto first = fetch(utc(2024, 9, 1), utc(2024, 9, 3)).at(0);
    store.removeEvent(*first, EKSpan::futureEvents, true);
    EXPECT_TRUE(fetch(utc(2024, 9, 1), utc(2025, 8, 1)).empty());
    EXPECT_EQ(store.calendarItemWithIdentifier(series->calendarItemIdentifier()), nullptr);
    EXPECT_EQ(dbCount(store.databasePath(), "SELECT COUNT(*) FROM Recurrence"), "0");
    EXPECT_EQ(dbCount(store.databasePath(), "SELECT COUNT(*) FROM OccurrenceCache"), "0");
}

TEST_F(EventStoreTest, UncommittedChangesAreSeenHereOnlyUntilResetOrCommit) {
    auto kept = save("Kept", utc(2024, 6, 3, 16), utc(2024, 6, 3, 17));

    auto pending = newEvent("Pending", utc(2024, 6, 4, 16), utc(2024, 6, 4, 17));
    store.saveEvent(*pending, EKSpan::thisEvent, false);
    auto keptAgain =
        std::dynamic_pointer_cast<EKEvent>(store.calendarItemWithIdentifier(kept->calendarItemIdentifier()));
    store.removeEvent(*keptAgain, EKSpan::thisEvent, false);
    EXPECT_EQ(fetch(utc(2024, 6, 1), utc(2024, 6, 10)).size(), 1u);
    EKEventStore other;
    EXPECT_EQ(fetch(utc(2024, 6, 1), utc(2024, 6, 10), &other).at(0)->title, "Kept");

    store.reset();
    const auto after = fetch(utc(2024, 6, 1), utc(2024, 6, 10));
    ASSERT_EQ(after.size(), 1u);
    EXPECT_EQ(after.front()->title, "Kept");
    EXPECT_EQ(store.calendarItemWithIdentifier(pending->calendarItemIdentifier()), nullptr);

    store.saveEvent(*newEvent("Later", utc(2024, 6, 5, 16), utc(2024, 6, 5, 17)), EKSpan::thisEvent, false);
    store.commit();
    EKEventStore afterCommit;
    EXPECT_EQ(fetch(utc(2024, 6, 1), utc(2024, 6, 10), &afterCommit).size(), 2u);
}

// Readers hold no connection between reads: one still open read-only would make SQLite share its
// read-only view of the log's index with a writer of the same process, which then can't write.
TEST_F(EventStoreTest, AStoreThatHasReadDoesNotStandInTheWayOfAWriter) {
    EKEventStore reader;
    EXPECT_TRUE(fetch(utc(2024, 6, 1), utc(2024, 6, 10), &reader).empty());
    store.saveEvent(*newEvent("Later", utc(2024, 6, 5, 16), utc(2024, 6, 5, 17)), EKSpan::thisEvent, true);
    reader.refreshSourcesIfNecessary();
    EXPECT_EQ(fetch(utc(2024, 6, 1), utc(2024, 6, 10), &reader).size(), 1u);
}

TEST_F(EventStoreTest, RefusedSavesWriteNothing) {
    auto event = newEvent("Backwards", utc(2024, 6, 3, 17), utc(2024, 6, 3, 16));
    EXPECT_EQ(testing::errorText<EventStoreError>([&] { store.saveEvent(*event, EKSpan::thisEvent, true); }),
              "The start date must be before the end date.");
    event->endDate = utc(2024, 6, 3, 18);
    event->calendar = nullptr;
    EXPECT_THROW(store.saveEvent(*event, EKSpan::thisEvent, true), EventStoreError);
    event->calendar = store.defaultCalendarForNewEvents();
    event->recurrenceRules = {rule(EKRecurrenceFrequency::weekly)};
    event->recurrenceRules[0].daysOfTheWeek = std::vector{EKRecurrenceDayOfWeek::dayOfWeek(8)};
    EXPECT_THROW(store.saveEvent(*event, EKSpan::thisEvent, true), EventStoreError);
    EXPECT_TRUE(event->eventIdentifier() == std::nullopt);
    EXPECT_EQ(dbCount(store.databasePath(), "SELECT COUNT(*) FROM CalendarItem"), "0");
    EXPECT_THROW(store.removeEvent(*event, EKSpan::thisEvent, true), EventStoreError);
}

TEST_F(EventStoreTest, TheOccurrenceCacheFollowsTheClockIntoANewYear) {
    save("Rent", utc(2023, 1, 1, 17), utc(2023, 1, 1, 18), rule(EKRecurrenceFrequency::monthly));
    const auto path = store.databasePath();
    // From 1 January last year to 1 January in two years, local time: 36 months of rent.
    EXPECT_EQ(dbCount(path, "SELECT value FROM _SqliteDatabaseProperties WHERE key = 'OccurrenceCacheStart'"),
              std::to_string(static_cast<long long>(utc(2023, 1, 1, 8))));
    EXPECT_EQ(dbCount(path, "SELECT value FROM _SqliteDatabaseProperties WHERE key = 'OccurrenceCacheTimeZone'"),
              "America/Los_Angeles");
    EXPECT_EQ(dbCount(path, "SELECT COUNT(*) FROM OccurrenceCache"), "36");
    EXPECT_EQ(dbCount(path, "SELECT SUM(count) FROM OccurrenceCacheDays"), "36");

    // A year on, the next write moves the window and rebuilds the cache for every series.
    clock->set(utc(2025, 3, 1));
    save("Dentist", utc(2025, 3, 3, 17), utc(2025, 3, 3, 18));
    EXPECT_EQ(dbCount(path, "SELECT value FROM _SqliteDatabaseProperties WHERE key = 'OccurrenceCacheEnd'"),
              std::to_string(static_cast<long long>(utc(2027, 1, 1, 8))));
    EXPECT_EQ(dbCount(path, "SELECT COUNT(*) FROM OccurrenceCache"), "37");
    EXPECT_EQ(dbCount(path, "SELECT MIN(occurrence_date) FROM OccurrenceCache"),
              std::to_string(static_cast<long long>(utc(2024, 1, 1, 17))) + ".0");
}

// ---- Writes that fail ----

using testing::FailingNthStep;

TEST_F(EventStoreTest, AWriteThatFailsAtAnyStepLeavesNothingOfItselfBehind) {
    auto event = [this](EKEventStore& in, const std::string& title, double start) {
        return newEvent(title, start, start + 3600, std::string(testing::pinnedZone), &in);
    };
    // The store's events of May and June 2024 titled `title`, by start.
    auto events = [this](EKEventStore& in, const std::string& title) {
        std::vector<std::shared_ptr<EKEvent>> found;
        for (auto& each : fetch(utc(2024, 5, 1), utc(2024, 7, 1), &in)) {
            if (each->title == title) found.push_back(each);
        }
        return found;
    };
    // A single event, and a weekly series of eight with its second occurrence removed and its
    // third moved a day on.
    auto fill = [&](EKEventStore& in) {
        in.saveEvent(*event(in, "Dentist", utc(2024, 6, 3, 16)), EKSpan::thisEvent, true);
        auto piano = event(in, "Piano", utc(2024, 5, 6, 23));
        piano->recurrenceRules = {
            rule(EKRecurrenceFrequency::weekly, EKRecurrenceEnd::recurrenceEndWithOccurrenceCount(8))};
        piano->alarms = {EKAlarm::alarmWithRelativeOffset(-900)};
        in.saveEvent(*piano, EKSpan::futureEvents, true);
        in.removeEvent(*events(in, "Piano").at(1), EKSpan::thisEvent, true);
        auto third = events(in, "Piano").at(1);
        third->title = "Piano (moved)";
        third->startDate = *third->startDate + 86400;
        third->endDate = *third->endDate + 86400;
        in.saveEvent(*third, EKSpan::thisEvent, true);
    };
    using Write = std::function<void()>;
    auto saving = [](EKEventStore& in, std::shared_ptr<EKEvent> edited, EKSpan span) -> Write {
        edited->title = "Edited";
        return [&in, edited, span] { in.saveEvent(*edited, span, true); };
    };
    auto removing = [](EKEventStore& in, std::shared_ptr<EKEvent> gone, EKSpan span) -> Write {
        return [&in, gone, span] { in.removeEvent(*gone, span, true); };
    };
    // Each makes, without failing, what its write needs, and gives the write to run with failures.
    const std::vector<std::pair<std::string, std::function<Write(EKEventStore&)>>> writes = {
        {"saving a new event",
         [&](auto& in) { return saving(in, event(in, "New", utc(2024, 6, 5, 16)), EKSpan::thisEvent); }},
        {"editing a single event",
         [&](auto& in) { return saving(in, events(in, "Dentist").at(0), EKSpan::thisEvent); }},
        {"detaching an occurrence", [&](auto& in) { return saving(in, events(in, "Piano").at(2), EKSpan::thisEvent); }},
        {"editing a detached occurrence",
         [&](auto& in) { return saving(in, events(in, "Piano (moved)").at(0), EKSpan::thisEvent); }},
        {"changing a series from an occurrence on",
         [&](auto& in) { return saving(in, events(in, "Piano").at(3), EKSpan::futureEvents); }},
        {"changing a whole series",
         [&](auto& in) { return saving(in, events(in, "Piano").at(0), EKSpan::futureEvents); }},
        {"removing a single event",
         [&](auto& in) { return removing(in, events(in, "Dentist").at(0), EKSpan::thisEvent); }},
        {"removing an occurrence",
         [&](auto& in) { return removing(in, events(in, "Piano").at(2), EKSpan::thisEvent); }},
        {"removing a detached occurrence",
         [&](auto& in) { return removing(in, events(in, "Piano (moved)").at(0), EKSpan::thisEvent); }},
        {"removing future occurrences",
         [&](auto& in) { return removing(in, events(in, "Piano").at(3), EKSpan::futureEvents); }},
        {"removing a whole series",
         [&](auto& in) { return removing(in, events(in, "Piano").at(0), EKSpan::futureEvents); }},
        {"committing pending writes",
         [&](auto& in) -> Write {
             in.saveEvent(*event(in, "Pending", utc(2024, 6, 6, 16)), EKSpan::thisEvent, false);
             in.removeEvent(*events(in, "Piano").at(2), EKSpan::thisEvent, false);
             return [&in] { in.commit(); };
         }},
    };
    for (const auto& [name, prepare] : writes) {
        SCOPED_TRACE(name);
        const auto path = user.home() / (name + ".sqlitedb");
        EKEventStore faulty(path);
        fill(faulty);
        const auto before = allRows(path);
        int n = 1;
        for (;; ++n) {
            const auto write = prepare(faulty);
            std::string error;
            {
                testing::Installed<FailingNthStep> failing(n);
                error = testing::errorText<EventStoreError>(write);
                if (!failing->failed()) break;
            }
            ASSERT_EQ(error, "The event store's database failed: disk I/O error") << "call " << n;
            // Whatever the failed write left pending would reach the file now. The next round
            // reads and writes through the same store: it still works.
            faulty.commit();
            ASSERT_EQ(allRows(path), before) << "call " << n;
        }
        EXPECT_NE(allRows(path), before);
        EXPECT_GT(n, 1);
    }
}

// ---- A database made elsewhere ----

class ExistingDatabaseTest : public ::testing::Test {
protected:
    testing::TemporaryUser user;
    testing::Installed<testing::FixedClock> clock{utc(2024, 6, 1, 12)};
    fs::path path = EKEventStore::defaultDatabasePath();
};

TEST_F(ExistingDatabaseTest, IsReadAsFoundAndLeftUntouchedUntilSomethingIsSaved) {
    testing::CalendarDatabaseBuilder builder(path);
    const auto local = builder.addStore({});
    const auto holidays = builder.addStore({.name = "Subscribed Calendars", .type = std::int64_t{4}});
    const auto home = builder.addCalendar({.store = local, .title = "Home", .uuid = "HOME"});
    builder.addCalendar({.store = holidays, .title = "Holidays", .uuid = "HOLIDAYS", .color = "#CC73E1"});
    // Every second Tuesday and Thursday at 10:00 from 2 April 2024, 6 times, with the third
    // occurrence deleted and the fourth moved a day later, in the database's own forms.
    const double first = utc(2024, 4, 2, 17);
    const auto master = builder.addItem({.calendar = home,
                                         .summary = "Sprint",
                                         .start = first,
                                         .end = first + 3600,
                                         .uniqueIdentifier = "SPRINT",
                                         .hasRecurrences = std::int64_t{1}});
    builder.addRecurrence({.owner = master,
                           .frequency = std::int64_t{2},
                           .interval = std::int64_t{2},
                           .count = std::int64_t{6},
                           .specifier = "D=0TU,0TH"});
    builder.addExceptionDate(master, utc(2024, 4, 16, 17));
    const double fourth = utc(2024, 4, 18, 17);
    builder.addItem({.calendar = home,
                     .summary = "Sprint (moved)",
                     .start = fourth + 86400,
                     .end = fourth + 86400 + 3600,
                     .uniqueIdentifier = "SPRINT/RID=" + std::to_string(static_cast<long long>(fourth)),
                     .origItemID = master,
                     .origDate = fourth});
    builder.addAlarm({.owner = master, .triggerInterval = std::int64_t{-600}});
    const auto place = builder.addLocation({.title = "Room 4", .address = "Room 4, Main Street 1"});
    builder.execute("UPDATE CalendarItem SET location_id = " + std::to_string(place) +
                    " WHERE ROWID = " + std::to_string(master));
    builder.close();
    const auto before = SHA256::hex(SHA256::of(files::read(path)));

    EKEventStore store;
    const auto calendars = store.calendarsForEntityType(EKEntityType::event);
    ASSERT_EQ(calendars.size(), 2u);
    EXPECT_TRUE(calendars[0]->allowsContentModifications);
    EXPECT_EQ(calendars[0]->source->title, "On My Mac");
    EXPECT_FALSE(calendars[1]->allowsContentModifications);
    EXPECT_EQ(calendars[1]->type, EKCalendarType::subscription);

    auto events =
        store.eventsMatchingPredicate(store.predicateForEvents(utc(2024, 4, 1), utc(2024, 6, 1), std::nullopt));
    std::sort(events.begin(), events.end(), [](const auto& a, const auto& b) { return *a->startDate < *b->startDate; });
    std::vector<std::string> seen;
    for (const auto& event : events)
        seen.push_back(wallClock(*event->startDate) + (event->isDetached() ? " moved" : ""));
    EXPECT_EQ(seen, (std::vector<std::string>{"2024-04-02 10:00", "2024-04-04 10:00", "2024-04-19 10:00 moved",
                                              "2024-04-30 10:00", "2024-05-02 10:00"}));
    EXPECT_EQ(events[0]->location, "Room 4\nMain Street 1");
    EXPECT_EQ(events[0]->alarms, std::vector{EKAlarm::alarmWithRelativeOffset(-600)});
    const auto& rule = events[0]->recurrenceRules.at(0);
    EXPECT_EQ(rule.interval, 2);
    EXPECT_EQ(rule.recurrenceEnd->occurrenceCount, 6);
    EXPECT_EQ(rule.daysOfTheWeek,
              (std::vector{EKRecurrenceDayOfWeek::dayOfWeek(3), EKRecurrenceDayOfWeek::dayOfWeek(5)}));

    // Nothing written by reading; a refused save writes nothing either.
    EXPECT_EQ(testing::errorText<EventStoreError>([&] {
                  testing::saveEvent(store, "Mine", first, first + 60, std::nullopt, std::nullopt, calendars[1]);
              }),
              "The calendar is read-only.");
    EXPECT_EQ(SHA256::hex(SHA256::of(files::read(path))), before);
}

TEST_F(ExistingDatabaseTest, DamagedValuesAreLeftOutNotThrown) {
    testing::CalendarDatabaseBuilder builder(path);
    const auto home = builder.addCalendar({.store = builder.addStore({}), .title = "Home", .uuid = "HOME"});
    const double first = utc(2024, 4, 2, 17);
    const auto master = builder.addItem({.calendar = home,
                                         .start = first,
                                         .end = first + 3600,
                                         .uniqueIdentifier = "TUESDAYS",
                                         .hasRecurrences = std::int64_t{1}});
    // Weekly on Tuesdays, with numbers no rule can hold.
    builder.addRecurrence({.owner = master, .specifier = "M=99999999999;D=0TU,99999999999MO"});
    builder.setProperty("OccurrenceCacheStart", "1e400");
    builder.setProperty("OccurrenceCacheEnd", "x");
    builder.setProperty("OccurrenceCacheTimeZone", "America/Los_Angeles");
    builder.close();

    EKEventStore store;
    const auto events =
        store.eventsMatchingPredicate(store.predicateForEvents(utc(2024, 4, 1), utc(2024, 4, 20), std::nullopt));
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0]->recurrenceRules.at(0),
              (EKRecurrenceRule{.frequency = EKRecurrenceFrequency::weekly,
                                .daysOfTheWeek = std::vector{EKRecurrenceDayOfWeek::dayOfWeek(3)}}));

    // A window that doesn't read is rebuilt at the next write, like one that doesn't fit.
    testing::saveEvent(store, "Dentist", utc(2024, 6, 3, 16), utc(2024, 6, 3, 17));
    EXPECT_EQ(dbCount(path, "SELECT value FROM _SqliteDatabaseProperties WHERE key = 'OccurrenceCacheStart'"),
              std::to_string(static_cast<long long>(utc(2023, 1, 1, 8))));
}

TEST_F(ExistingDatabaseTest, MissingColumnsRefuseTheFile) {
    files::createDirectories(path.parent_path());
    sqlite3* db = nullptr;
    sqlite3_open(path.c_str(), &db);
    sqlite3_exec(db, "CREATE TABLE CalendarItem (summary TEXT)", nullptr, nullptr, nullptr);
    sqlite3_close(db);
    const auto error = testing::errorText<EventStoreError>([] { EKEventStore store; });
    EXPECT_TRUE(error.starts_with("Unsupported Calendar.sqlitedb schema: Alarm lacks ")) << error;
}

} // namespace
} // namespace morvane
