#include "MorvaneCore/Comparison/Differ.h"

#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/Database/CalendarDatabase.h"
#include "MorvaneCore/LiveCalendars/CurrentEvents.h"
#include "MorvaneCore/Shared/EventKeys.h"
#include "Support/CalendarDatabaseBuilder.h"
#include "Support/Fakes.h"
#include "Support/Mapped.h"
#include "Support/Pinned.h"
#include "Support/SavedEvents.h"
#include "Support/UTC.h"

#include <gtest/gtest.h>

namespace morvane {
namespace {

using testing::utc;

enum class Live { database, eventKit };

// A backup taken through the local event store, then the changes a user made since, each one a
// case of the comparison; the backup is a copy of the store's own file, read as a database.
class DifferTest : public ::testing::TestWithParam<Live> {
protected:
    DifferTest() {
        {
            // A second calendar to move an event into; the store opens the file as found.
            testing::CalendarDatabaseBuilder builder(EKEventStore::defaultDatabasePath());
            const auto local = builder.addStore({.name = "Default", .type = std::int64_t{0}});
            builder.addCalendar({.store = local, .title = "Calendar"});
            builder.addCalendar({.store = local, .title = "Work"});
        }
        store = std::make_shared<EKEventStore>();
        const auto daily = EKRecurrenceFrequency::daily;
        const auto weekly = EKRecurrenceFrequency::weekly;
        const auto single = [&](const char* title, double start) {
            saved[title] = testing::saveEvent(*store, title, start, start + 3600);
        };
        const auto series = [&](const char* title, double start, EKRecurrenceFrequency frequency, int count) {
            saved[title] = testing::saveEvent(*store, title, start, start + 3600, testing::pinnedZone,
                                              testing::repeating(frequency, count));
        };
        single("Dentist", utc(2024, 6, 3, 16));
        single("Lunch", utc(2024, 6, 4, 19));
        single("Review", utc(2024, 6, 5, 16));
        series("Book club", utc(2024, 6, 6, 2), weekly, 10);
        series("Standup", utc(2024, 6, 3, 16), daily, 30);
        series("Piano", utc(2024, 6, 7, 0), weekly, 10);
        // Daily into the last days of the store's window, which ends with 2025.
        series("Yoga", utc(2025, 11, 1, 15), daily, 70);
        series("Choir", utc(2024, 6, 5, 2), weekly, 10);
        edit("Book club", utc(2024, 6, 13, 2), "Book club at Ana's");
        for (const int day : {12, 19, 26})
            edit("Choir", utc(2024, 6, day, 2), "Choir, room " + std::to_string(day));

        backupCopy = BackupLocator::stageCopy(BackupLocator::liveDBPath());
        CalendarDatabase backupDatabase(backupCopy.file());
        backup = backupDatabase.loadEvents();
        backupOccurrences = backupDatabase.occurrences();
        // An occurrence edited in the backup that is plain again today: the store can't undo an
        // edit, so the backup gets the detached occurrence instead.
        const auto& choir = event("Choir");
        auto undone = choir;
        undone.rowID = 9000;
        undone.masterRowID = choir.rowID;
        undone.hasRecurrences = false;
        undone.originalDate = Date{utc(2024, 7, 3, 2)};
        undone.uniqueIdentifier = occurrenceIdentifier(choir.uniqueIdentifier, undone.originalDate->occurrenceKey());
        undone.uuid.reset();
        undone.snapshot.title = "Choir outdoors";
        undone.snapshot.recurrence.reset();
        backup.push_back(undone);

        remove("Dentist");
        remove("Book club");
        remove("Lunch");
        testing::saveEvent(*store, "  Lunch ", utc(2024, 6, 4, 19), utc(2024, 6, 4, 20));
        change("Review", [&](EKEvent& review) { review.calendar = calendar("Work"); });
        change("Standup", [](EKEvent& standup) { standup.title = "Stand-up"; });
        change("Piano", [](EKEvent& piano) {
            *piano.startDate += 3600;
            *piano.endDate += 3600;
        });
        removeOccurrence("Standup", utc(2024, 6, 10, 16));
        removeOccurrence("Yoga", utc(2025, 11, 20, 16));
        removeOccurrence("Yoga", utc(2025, 12, 31, 16)); // within the margin of the window's end
        removeOccurrence("Piano", utc(2024, 6, 21, 1));  // its series has moved: not compared
        edit("Choir", utc(2024, 6, 12, 2), "Choir, room 12B");
        edit("Choir", utc(2024, 6, 19, 2), "Choir, room 19"); // saved again unchanged
        removeOccurrence("Choir", utc(2024, 6, 26, 2));
    }

    std::unique_ptr<CurrentEventSource> liveSource() {
        if (GetParam() == Live::eventKit) return std::make_unique<EventKitSource>(std::make_shared<EKEventStore>());
        const auto staged = BackupLocator::stageCopy(BackupLocator::liveDBPath());
        CalendarDatabase database(staged.file());
        return std::make_unique<DatabaseSource>(database);
    }

    const BackupEvent& event(const std::string& title) const {
        const auto found = std::find_if(backup.begin(), backup.end(), [&](const BackupEvent& e) {
            return e.snapshot.title == title && !e.masterRowID;
        });
        EXPECT_NE(found, backup.end()) << title;
        return *found;
    }

    std::shared_ptr<const EKCalendar> calendar(const std::string& title) {
        for (const auto& found : store->calendarsForEntityType(EKEntityType::event)) {
            if (found->title == title) return found;
        }
        ADD_FAILURE() << title;
        return nullptr;
    }

    std::shared_ptr<EKEvent> master(const std::string& title) {
        return std::dynamic_pointer_cast<EKEvent>(
            store->calendarItemWithIdentifier(saved.at(title)->calendarItemIdentifier()));
    }

    // The occurrence of the series saved as `title` whose original start is `at`.
    std::shared_ptr<EKEvent> occurrence(const std::string& title, double at) {
        for (const auto& found :
             store->eventsMatchingPredicate(store->predicateForEvents(at - 86400, at + 86400, {}))) {
            if (found->calendarItemIdentifier() == saved.at(title)->calendarItemIdentifier() &&
                found->occurrenceDate() == at)
                return found;
        }
        ADD_FAILURE() << title << " at " << at;
        return nullptr;
    }

    void edit(const std::string& title, double at, const std::string& newTitle) {
        auto found = occurrence(title, at);
        found->title = newTitle;
        store->saveEvent(*found, EKSpan::thisEvent, true);
    }
    void removeOccurrence(const std::string& title, double at) {
        store->removeEvent(*occurrence(title, at), EKSpan::thisEvent, true);
    }
    void remove(const std::string& title) { store->removeEvent(*master(title), EKSpan::futureEvents, true); }
    template <typename Change> void change(const std::string& title, Change apply) {
        auto found = master(title);
        apply(*found);
        store->saveEvent(*found, EKSpan::futureEvents, true);
    }

    testing::TemporaryUser user;
    testing::Installed<testing::FixedClock> clock{utc(2024, 6, 1, 12)};
    std::shared_ptr<EKEventStore> store;
    // The events as first saved, by title.
    std::map<std::string, std::shared_ptr<EKEvent>> saved;
    StagedCopy backupCopy;
    std::vector<BackupEvent> backup;
    std::optional<OccurrenceSet> backupOccurrences;
};

std::vector<std::string> titles(const std::vector<BackupEvent>& events) {
    return testing::mapped(events, [](const BackupEvent& event) { return event.snapshot.title; });
}

TEST_P(DifferTest, ReportsWhatIsGoneAndWhatChangedEventByEventAndOccurrenceByOccurrence) {
    const auto current = liveSource();

    const auto missing = Differ::missing(backup, *current);
    EXPECT_EQ(titles(missing.missing), (std::vector<std::string>{"Dentist", "Book club"}));
    EXPECT_EQ(titles(missing.restoredCopies), (std::vector<std::string>{"Lunch"}));
    ASSERT_EQ(missing.detachedOccurrences.size(), 1u);
    EXPECT_EQ(titles(missing.detachedOccurrences.at(event("Book club").rowID)),
              (std::vector<std::string>{"Book club at Ana's"}));
    EXPECT_EQ(missing.backupEventCount, static_cast<std::int64_t>(backup.size()));

    const auto changes = Differ::changes(backup, backupOccurrences, *current);
    std::vector<std::string> changed;
    for (const auto& event : changes.changed) {
        for (const auto& field : event.changes)
            changed.push_back(event.backup.snapshot.title + " " + field.field + ": " + field.old + " / " + field.new_);
    }
    EXPECT_EQ(changed, (std::vector<std::string>{
                           "Standup title: Standup / Stand-up",
                           "Review calendar: Calendar (On My Mac) / Work (On My Mac)",
                           "Piano start: 2024-06-06 17:00 / 2024-06-06 18:00",
                           "Piano end: 2024-06-06 18:00 / 2024-06-06 19:00",
                       }));
    EXPECT_EQ(changes.seriesSkipped, 1);

    std::vector<std::string> occurrences;
    for (const auto& change : changes.occurrenceChanges) {
        std::string line = change.dateText() + " " + std::string(change.kindText()) + " " + change.master.title();
        for (const auto& field : change.kind.changes)
            line += " (" + field.field + ": " + field.old + " / " + field.new_ + ")";
        occurrences.push_back(line);
        EXPECT_EQ(change.id(), std::to_string(change.master.rowID) + "@" +
                                   std::to_string(static_cast<std::int64_t>(change.originalDate.seconds)));
        EXPECT_EQ(change.backupDetached.has_value(), change.master.title() == "Choir");
    }
    EXPECT_EQ(occurrences, (std::vector<std::string>{
                               "2024-06-10 09:00 deleted Standup",
                               "2024-06-11 19:00 edited Choir (title: Choir, room 12 / Choir, room 12B)",
                               "2024-06-25 19:00 deleted Choir",
                               "2024-07-02 19:00 edit undone Choir",
                               "2025-11-20 08:00 deleted Yoga",
                           }));
    ASSERT_TRUE(changes.occurrenceWindow);
    EXPECT_EQ(*changes.occurrenceWindow, *Differ::inset(backupOccurrences->window, Differ::margin));
}

TEST_P(DifferTest, WithoutTheBackupsOccurrenceCacheOnlyDetachedOccurrencesAreCompared) {
    const auto current = liveSource();
    const auto changes = Differ::changes(backup, std::nullopt, *current);
    EXPECT_FALSE(changes.occurrenceWindow);
    EXPECT_EQ(
        testing::mapped(changes.occurrenceChanges, [](const auto& change) { return std::string(change.kindText()); }),
        (std::vector<std::string>{"edited", "deleted", "edit undone"}));

    EXPECT_EQ(Differ::missing({}, *current), MissingReport{});
    EXPECT_EQ(Differ::changes({}, backupOccurrences, *current), ChangeReport{});
}

INSTANTIATE_TEST_SUITE_P(BothLiveSources, DifferTest, ::testing::Values(Live::database, Live::eventKit),
                         [](const auto& tested) { return tested.param == Live::database ? "Database" : "EventKit"; });

TEST(DifferInset, TakesTheMarginOffBothEndsOfAnIntervalLongerThanTwice) {
    EXPECT_EQ(Differ::inset({{0}, {10}}, 4), (DateInterval{{4}, {6}}));
    EXPECT_FALSE(Differ::inset({{0}, {10}}, 5));
    EXPECT_FALSE(Differ::inset({{10}, {0}}, 0));
}

} // namespace
} // namespace morvane
