#include "MorvaneCore/LiveCalendars/CurrentEvents.h"

#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/Database/CalendarDatabase.h"
#include "MorvaneCore/LiveCalendars/YearByYearFetch.h"
#include "MorvaneCore/Shared/Errors.h"
#include "MorvaneCore/Shared/EventKeys.h"
#include "Support/CalendarDatabaseBuilder.h"
#include "Support/ErrorText.h"
#include "Support/Fakes.h"
#include "Support/Pinned.h"
#include "Support/SavedEvents.h"
#include "Support/UTC.h"

#include <algorithm>
#include <atomic>
#include <ctime>
#include <gtest/gtest.h>
#include <map>
#include <thread>

namespace morvane {
namespace {

using testing::utc;

class CurrentEventsTest : public ::testing::Test {
protected:
    CurrentEventsTest() { CalendarAccess::forgetGrantForTesting(); }
    ~CurrentEventsTest() override { CalendarAccess::forgetGrantForTesting(); }

    std::shared_ptr<EKEvent> save(const std::string& title, double start, double end,
                                  std::optional<std::string> zone = std::string(testing::pinnedZone),
                                  std::optional<EKRecurrenceRule> rule = std::nullopt) {
        return testing::saveEvent(*store, title, start, end, std::move(zone), std::move(rule));
    }

    // A backup's view of an event: identity and content as a database would give them.
    static BackupEvent backupOf(const std::string& uid, const EventSnapshot& snapshot,
                                std::optional<std::string> uuid = std::nullopt) {
        BackupEvent event;
        event.uniqueIdentifier = uid;
        event.uuid = std::move(uuid);
        event.snapshot = snapshot;
        event.calendar.uuid = snapshot.calendarUUID;
        return event;
    }

    testing::TemporaryUser user;
    testing::Installed<testing::FixedClock> clock{utc(2024, 6, 1, 12)};
    std::shared_ptr<EKEventStore> store = std::make_shared<EKEventStore>();
    EventKitSource source{store};
};

// ---- Identity and equivalence ----

TEST_F(CurrentEventsTest, ContainsGoesByUIDOrItemAndAnEquivalentByTrimmedTitleAndSecond) {
    auto event = save("  Team lunch\n", utc(2024, 6, 4, 19), utc(2024, 6, 4, 20));
    const auto uid = *event->calendarItemExternalIdentifier();
    auto wanted = EventKitSource::snapshot(*event);
    EXPECT_TRUE(source.contains(backupOf(uid, wanted)));
    EXPECT_TRUE(source.contains(backupOf(uid + "/RID=739123200", wanted)));
    EXPECT_FALSE(source.contains(backupOf("GONE", wanted)));
    EXPECT_TRUE(source.contains(backupOf("GONE", wanted, event->calendarItemIdentifier())));

    wanted.title = "Team lunch";
    EXPECT_TRUE(source.hasEquivalent(backupOf("OTHER", wanted)));
    wanted.title = "team lunch";
    EXPECT_FALSE(source.hasEquivalent(backupOf("OTHER", wanted)));
    wanted.title = "Team lunch";
    wanted.start.seconds += 30;
    EXPECT_FALSE(source.hasEquivalent(backupOf("OTHER", wanted)));
    wanted.start.seconds -= 29.6;
    EXPECT_TRUE(source.hasEquivalent(backupOf("OTHER", wanted)));
}

TEST_F(CurrentEventsTest, AReminderIsNoEventAndAnEquivalentInAReadOnlyCalendarDoesNotCount) {
    testing::TemporaryUser other;
    {
        testing::CalendarDatabaseBuilder builder(EKEventStore::defaultDatabasePath());
        const auto reminders = builder.addStore({.name = "Reminders", .type = std::int64_t{6}});
        builder.addItem({.calendar = builder.addCalendar({.store = reminders, .title = "Tasks"}),
                         .uniqueIdentifier = "SHARED",
                         .entityType = std::int64_t{3}});
        const auto subscribed = builder.addStore({.name = "Subscribed Calendars", .type = std::int64_t{4}});
        const auto holidays = builder.addCalendar({.store = subscribed, .title = "Holidays"});
        builder.addItem({.calendar = holidays,
                         .summary = "Holiday",
                         .start = utc(2024, 7, 4, 7),
                         .end = utc(2024, 7, 4, 8),
                         .uniqueIdentifier = "HOLIDAY"});
    }
    EventKitSource readOnly(std::make_shared<EKEventStore>());
    EventSnapshot wanted;
    wanted.title = "Holiday";
    wanted.start = Date{utc(2024, 7, 4, 7)};
    wanted.end = Date{utc(2024, 7, 4, 8)};
    wanted.timeZone = testing::pinnedZone;
    EXPECT_FALSE(readOnly.hasEquivalent(backupOf("X", wanted)));
    EXPECT_TRUE(readOnly.contains(backupOf("HOLIDAY", wanted)));
    // A reminder that shares the UID doesn't make the event exist.
    EXPECT_FALSE(readOnly.contains(backupOf("SHARED", wanted)));
}

TEST_F(CurrentEventsTest, FloatingEventsMatchOnTheWallClockWhereverTheBackupWasMade) {
    // 09:00 floating, saved while the machine was in Los Angeles.
    save("Swim", utc(2024, 6, 5, 16), utc(2024, 6, 5, 17), std::nullopt);
    EventSnapshot backup;
    backup.title = "Swim";
    backup.start = Date{utc(2024, 6, 5, 9)}; // 09:00 read as UTC
    backup.end = Date{utc(2024, 6, 5, 10)};
    EXPECT_TRUE(source.hasEquivalent(backupOf("B", backup)));

    testing::ScopedTimeZone berlin("Europe/Berlin");
    EXPECT_TRUE(source.hasEquivalent(backupOf("B", backup)));
    const auto seen = source.snapshot(backupOf(
        *store->eventsMatchingPredicate(store->predicateForEvents(utc(2024, 6, 5), utc(2024, 6, 6), std::nullopt))
             .at(0)
             ->calendarItemExternalIdentifier(),
        backup));
    ASSERT_TRUE(seen);
    EXPECT_EQ(seen->start, backup.start);
    EXPECT_FALSE(seen->timeZone);
}

// ---- Conversion ----

// The rule's fields round-trip in the rule's own tests.
TEST_F(CurrentEventsTest, ConversionOfAnEventAndItsRule) {
    auto event = EKEvent::eventWithEventStore(*store);
    event->title = std::nullopt;
    event->startDate = utc(2024, 6, 6, 16);
    event->endDate = utc(2024, 6, 6, 17);
    event->alarms = {EKAlarm::alarmWithAbsoluteDate(utc(2024, 6, 6, 15)), EKAlarm::alarmWithRelativeOffset(-900.5),
                     EKAlarm{utc(2024, 6, 6, 14), -60}};
    const auto snapshot = EventKitSource::snapshot(*event);
    EXPECT_EQ(snapshot.title, "");
    EXPECT_EQ(snapshot.calendarName, "?");
    EXPECT_FALSE(snapshot.calendarUUID);
    EXPECT_EQ(snapshot.alarms, (std::vector{AlarmSpec::relative(-900), AlarmSpec::absolute(Date{utc(2024, 6, 6, 14)}),
                                            AlarmSpec::absolute(Date{utc(2024, 6, 6, 15)})}));

    // What the platform's rule can hold but this one can't reads as the nearest it can.
    EKRecurrenceRule rule;
    rule.frequency = static_cast<EKRecurrenceFrequency>(9);
    rule.interval = 0;
    rule.recurrenceEnd = EKRecurrenceEnd::recurrenceEndWithOccurrenceCount(4);
    EXPECT_EQ(RecurrenceRule::fromEK(rule).description(), "FREQ=DAILY;COUNT=4");
}

TEST_F(CurrentEventsTest, FetchingYearByYearGivesWhatCrossesTheSeamsOnce) {
    // The seams of fetches from 1 January are at local midnight, 08:00 UTC in Los Angeles.
    const double seam2025 = utc(2025, 1, 1, 8);
    const double seam2026 = utc(2026, 1, 1, 8);
    save("Across one seam", seam2025 - 3600, seam2025 + 3600);
    save("Across two seams", seam2025 - 3600, seam2026 + 3600);
    save("Ends at the seam", seam2025 - 3600, seam2025);
    save("Starts at the seam", seam2025, seam2025 + 3600);
    testing::saveEvent(*store, "Nightly", seam2025 - 86400 - 3600, seam2025 - 86400 + 3600, testing::pinnedZone,
                       testing::repeating(EKRecurrenceFrequency::daily, 3));

    std::map<std::string, int> visits;
    int yearsEnded = 0;
    fetchYearByYear(
        *store, {Date{utc(2024, 1, 1, 8)}, Date{utc(2027, 1, 1, 8)}},
        [&](std::shared_ptr<EKEvent> event) {
            ++visits[*event->title + " " + std::to_string(static_cast<std::int64_t>(*event->startDate))];
        },
        [&] { ++yearsEnded; });
    EXPECT_EQ(yearsEnded, 3);
    const auto at = [](const char* title, double start) {
        return std::string(title) + " " + std::to_string(static_cast<std::int64_t>(start));
    };
    EXPECT_EQ(visits, (std::map<std::string, int>{{at("Across one seam", seam2025 - 3600), 1},
                                                  {at("Across two seams", seam2025 - 3600), 1},
                                                  {at("Ends at the seam", seam2025 - 3600), 1},
                                                  {at("Starts at the seam", seam2025), 1},
                                                  {at("Nightly", seam2025 - 86400 - 3600), 1},
                                                  {at("Nightly", seam2025 - 3600), 1},
                                                  {at("Nightly", seam2025 + 86400 - 3600), 1}}));

    // More than a century is refused before anything is fetched.
    EXPECT_THROW(fetchYearByYear(*store, {Date{utc(2000, 1, 1)}, Date{utc(2101, 1, 1)}},
                                 [](std::shared_ptr<EKEvent>) { FAIL() << "fetched"; }),
                 RestoreError);
}

// ---- Access ----

TEST_F(CurrentEventsTest, RequestingAccessUsesTheExactWordsAndTheProcessFlag) {
    testing::Installed<testing::ScriptedCalendarPermission> permission;
    const auto refusal = [&] { return testing::errorText<SQLiteError>([&] { source.requestAccess(); }); };

    permission->currentStatus = EKAuthorizationStatus::denied;
    EXPECT_EQ(refusal(), "Calendar full access not granted. Enable it in System Settings \u2192 Privacy & Security "
                         "\u2192 Calendars.");
    EXPECT_FALSE(CalendarAccess::isGranted());

    permission->currentStatus = EKAuthorizationStatus::notDetermined;
    permission->error = "The prompt couldn't be shown.";
    EXPECT_EQ(refusal(), "The prompt couldn't be shown.");
    permission->error.reset();
    permission->answer = false;
    EXPECT_EQ(refusal(), "Calendar access denied. Run from Terminal.app (or an app that can request Calendar access) "
                         "and allow the prompt.");
    EXPECT_EQ(CalendarAccess::status(), EKAuthorizationStatus::notDetermined);

    permission->answer = true;
    EXPECT_EQ(refusal(), testing::nothingThrown);
    EXPECT_TRUE(CalendarAccess::isGranted());
    EXPECT_EQ(CalendarAccess::status(), EKAuthorizationStatus::fullAccess);
    // Granted once: no second prompt in this process.
    source.requestAccess();
    EXPECT_EQ(permission->prompts, 3);

    permission->currentStatus = EKAuthorizationStatus::restricted;
    EXPECT_FALSE(CalendarAccess::isGranted());
    EXPECT_EQ(CalendarAccess::status(), EKAuthorizationStatus::restricted);
}

// ---- The live file read as a database ----

TEST_F(CurrentEventsTest, AStagedCopyOfTheLiveFileReadsLikeTheStoresOwnFetch) {
    auto series = EKEvent::eventWithEventStore(*store);
    series->title = "Choir";
    series->startDate = utc(2024, 2, 29, 3); // Wednesday 19:00 in Los Angeles
    series->endDate = utc(2024, 2, 29, 5);
    series->timeZone = testing::pinnedZone;
    series->location = "Hall";
    series->alarms = {EKAlarm::alarmWithRelativeOffset(-1800)};
    series->calendar = store->defaultCalendarForNewEvents();
    EKRecurrenceRule weekly;
    weekly.frequency = EKRecurrenceFrequency::weekly;
    weekly.daysOfTheWeek = std::vector{EKRecurrenceDayOfWeek::dayOfWeek(4)};
    weekly.recurrenceEnd = EKRecurrenceEnd::recurrenceEndWithEndDate(utc(2024, 12, 31));
    series->recurrenceRules = {weekly};
    store->saveEvent(*series, EKSpan::futureEvents, true);

    store->removeEvent(*testing::occurrenceAt(*store, *series, utc(2024, 3, 14, 2)), EKSpan::thisEvent, false);
    auto moved = testing::occurrenceAt(*store, *series, utc(2024, 3, 28, 2));
    const auto movedKey = *liveOccurrenceKey(*moved);
    moved->startDate = *moved->startDate + 2 * 86400;
    moved->endDate = *moved->endDate + 2 * 86400;
    store->saveEvent(*moved, EKSpan::thisEvent, false);
    store->commit();
    save("Single", utc(2024, 8, 1, 16), utc(2024, 8, 1, 17), std::nullopt);
    // A floating series over the clock change: the cache holds moments, the reader wall clocks.
    const auto floating = save("Stretch", utc(2024, 3, 8, 15), utc(2024, 3, 8, 16), std::nullopt,
                               testing::repeating(EKRecurrenceFrequency::daily, 5));

    const auto uid = *series->calendarItemExternalIdentifier();
    const auto staged = BackupLocator::stageCopy(BackupLocator::liveDBPath());
    CalendarDatabase database(staged.file());
    database.verifyIntegrity();
    const auto events = database.events(std::nullopt);
    ASSERT_EQ(events.size(), 4u);
    const auto master =
        std::find_if(events.begin(), events.end(), [&](const auto& e) { return e.uniqueIdentifier == uid; });
    ASSERT_NE(master, events.end());
    EXPECT_EQ(master->snapshot, EventKitSource::snapshot(*series));
    EXPECT_EQ(master->uuid, series->calendarItemIdentifier());

    const auto exceptions = database.exceptionDates(master->rowID);
    ASSERT_EQ(exceptions.size(), 1u);
    EXPECT_EQ(exceptions[0].seconds, utc(2024, 3, 14, 2));
    const auto detached = std::find_if(events.begin(), events.end(), [](const auto& e) { return e.masterRowID; });
    ASSERT_NE(detached, events.end());
    EXPECT_EQ(detached->uniqueIdentifier, occurrenceIdentifier(uid, movedKey));
    // The database keeps the rule on the series only; the platform shows it on every occurrence.
    auto movedSnapshot = EventKitSource::snapshot(*moved);
    EXPECT_EQ(movedSnapshot.recurrence, master->snapshot.recurrence);
    movedSnapshot.recurrence.reset();
    EXPECT_EQ(detached->snapshot, movedSnapshot);

    const auto cache = database.occurrences();
    const auto floatingUID = *floating->calendarItemExternalIdentifier();
    const auto live = source.occurrences({uid, floatingUID}, cache.window);
    EXPECT_EQ(cache.dates.at(uid), live.dates.at(uid));
    EXPECT_EQ(cache.dates.at(floatingUID), live.dates.at(floatingUID));
    EXPECT_EQ(cache.dates.at(floatingUID).back(), Date{utc(2024, 3, 12, 7)}.occurrenceKey());
    EXPECT_EQ(cache.dates.size(), 3u);
    EXPECT_FALSE(std::ranges::binary_search(cache.dates.at(uid), Date{utc(2024, 3, 14, 2)}.occurrenceKey()));
    EXPECT_TRUE(std::ranges::binary_search(cache.dates.at(uid), movedKey));
}

TEST_F(CurrentEventsTest, ACopyTakenWhileTheStoreWritesIsWholeOrRefused) {
    // Each transaction writes a series and deletes three of its occurrences: a copy that reads
    // at all must show every series with all three exception dates.
    constexpr int transactions = 12;
    std::atomic<bool> done{false};
    std::thread writer([&] {
        EKEventStore own;
        for (int index = 0; index < transactions; ++index) {
            auto event = EKEvent::eventWithEventStore(own);
            event->title = "Series " + std::to_string(index);
            event->startDate = utc(2024, 6, 1 + index, 16);
            event->endDate = *event->startDate + 3600;
            event->timeZone = testing::pinnedZone;
            event->calendar = own.defaultCalendarForNewEvents();
            event->recurrenceRules = {EKRecurrenceRule{}};
            own.saveEvent(*event, EKSpan::futureEvents, false);
            auto occurrences = own.eventsMatchingPredicate(
                own.predicateForEvents(*event->startDate + 86400, *event->startDate + 4 * 86400, std::nullopt));
            std::erase_if(occurrences, [&](const auto& found) { return found->title != event->title; });
            for (const auto& occurrence : occurrences)
                own.removeEvent(*occurrence, EKSpan::thisEvent, false);
            own.commit();
        }
        done = true;
    });

    // The series a copy shows, every one of them with its three exception dates.
    auto seriesInACopy = [] {
        size_t series = 0;
        try {
            const auto staged = BackupLocator::stageCopy(BackupLocator::liveDBPath());
            CalendarDatabase database(staged.file());
            database.verifyIntegrity();
            for (const auto& event : database.events(std::nullopt)) {
                EXPECT_EQ(database.exceptionDates(event.rowID).size(), 3u) << event.snapshot.title;
                ++series;
            }
        } catch (const Error&) {
            // A copy caught in the middle of a write may be refused; it may not be wrong.
        }
        return series;
    };
    while (!done)
        seriesInACopy();
    writer.join();
    EXPECT_EQ(seriesInACopy(), static_cast<size_t>(transactions));
}

// ---- The index of a database or a capture ----

TEST(DatabaseSourceTest, AnswersFromItsIndexByIdentityTitleAndStartAndSeries) {
    const auto event = [](std::string uid, std::int64_t storeType, std::string title, double start) {
        BackupEvent made;
        made.uniqueIdentifier = std::move(uid);
        made.calendar.storeType = storeType;
        made.snapshot.title = std::move(title);
        made.snapshot.start = Date{start};
        return made;
    };
    auto lunch = event("LUNCH", 0, " Lunch\n", 100.4);
    lunch.uuid = "lunch-item";
    auto detached = event("SERIES/RID=500", 0, "Moved", 600);
    detached.masterRowID = 1;
    detached.originalDate = Date{500};
    auto undated = event("UNDATED/RID=7", 0, "Lost its date", 7);
    undated.masterRowID = 2;
    DatabaseSource source({lunch, event("HOLIDAY", 4, "Holiday", 200), detached, undated},
                          {{{1000}, {2000}}, {{"SERIES", {5, 1500}}, {"OTHER", {1200}}}});

    const std::vector<std::pair<BackupEvent, bool>> contained = {
        {event("LUNCH", 0, "", 0), true},
        {event("SERIES", 0, "", 0), true}, // known only by a detached occurrence
        {event("HOLIDAY", 4, "", 0), true},
        {event("UNDATED", 0, "", 0), false},
        {event("GONE", 0, "", 0), false},
        {[&] {
             auto byItem = event("GONE", 0, "", 0);
             byItem.uuid = "lunch-item";
             return byItem;
         }(),
         true},
    };
    for (const auto& [asked, expected] : contained)
        EXPECT_EQ(source.contains(asked), expected) << asked.uniqueIdentifier;

    EXPECT_TRUE(source.hasEquivalent("Lunch", Date{100}));
    EXPECT_TRUE(source.hasEquivalent(event("COPY", 0, "  Lunch ", 99.6)));
    EXPECT_FALSE(source.hasEquivalent("Lunch", Date{100.6}));
    EXPECT_FALSE(source.hasEquivalent("lunch", Date{100}));
    EXPECT_FALSE(source.hasEquivalent("Holiday", Date{200})); // a subscribed calendar can't be written
    EXPECT_EQ(DatabaseSource::titleStartKey(" Lunch\n", Date{-0.5}), "Lunch|-1");

    EXPECT_EQ(source.snapshot(event("LUNCH", 0, "", 0))->title, " Lunch\n");
    EXPECT_FALSE(source.snapshot(event("SERIES", 0, "", 0)));

    const auto outside = source.occurrences({"SERIES", "UNDATED"}, {{3000}, {4000}});
    EXPECT_EQ(outside.window, (DateInterval{{3000}, {3000}}));
    EXPECT_EQ(outside.dates, (std::map<std::string, std::vector<std::int64_t>>{{"SERIES", {5, 1500}}}));
    ASSERT_EQ(outside.detached.size(), 1u);
    EXPECT_EQ(outside.detached.at("SERIES").at(500).title, "Moved");
    EXPECT_EQ(source.occurrences({"OTHER"}, {{1500}, {2500}}).window, (DateInterval{{1500}, {2000}}));
}

} // namespace
} // namespace morvane
