#include "MorvaneCore/Restore/RestoreEngine.h"

#include "Support/EventStoreSnapshots.h"
#include "Support/Fakes.h"
#include "Support/Pinned.h"
#include "Support/SavedEvents.h"
#include "Support/TemporaryDirectory.h"
#include "Support/UTC.h"

#include <gtest/gtest.h>
#include <map>

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

    testing::TemporaryUser user;
    testing::Installed<testing::FixedClock> clock{utc(2024, 6, 1, 12)};
    testing::TemporaryDirectory folder;
    EKEventStore store;
    RestoreEngine engine;
};

// Two weeks of June (Los Angeles, UTC-7), one event for each way a backup and today can differ.
TEST_F(TimelineTest, LabelsEachOccurrenceAgainstTheBackup) {
    EKRecurrenceRule weekly;
    weekly.frequency = EKRecurrenceFrequency::weekly;
    weekly.recurrenceEnd = EKRecurrenceEnd::recurrenceEndWithOccurrenceCount(8);
    auto standup = testing::saveEvent(store, "Standup", utc(2024, 5, 6, 16), utc(2024, 5, 6, 17),
                                      std::string(testing::pinnedZone), weekly);
    auto review = testing::saveEvent(store, "Review", utc(2024, 6, 4, 17), utc(2024, 6, 4, 18));
    auto lunch = testing::saveEvent(store, "Lunch", utc(2024, 6, 5, 19), utc(2024, 6, 5, 20));
    auto offsite = testing::saveEvent(store, "Offsite", utc(2024, 6, 6, 16), utc(2024, 6, 6, 23));
    auto planning = testing::saveEvent(store, "Planning", utc(2024, 5, 20, 16), utc(2024, 5, 20, 17));
    auto dentist = testing::saveEvent(store, "Dentist", utc(2024, 6, 11, 16), utc(2024, 6, 11, 17));
    auto dinner = testing::saveEvent(store, "Dinner", utc(2024, 6, 8, 2), utc(2024, 6, 8, 4));
    EKRecurrenceRule daily;
    daily.frequency = EKRecurrenceFrequency::daily;
    daily.recurrenceEnd = EKRecurrenceEnd::recurrenceEndWithOccurrenceCount(2);
    auto yoga = testing::saveEvent(store, "Yoga", utc(2024, 6, 12, 14), utc(2024, 6, 12, 15),
                                   std::string(testing::pinnedZone), daily);
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
    // Deleted, then brought back under a new identity.
    store.removeEvent(*dinner, EKSpan::thisEvent, true);
    auto dinnerAgain = testing::saveEvent(store, "Dinner", utc(2024, 6, 8, 2), utc(2024, 6, 8, 4));

    const DateInterval weeks{Date{utc(2024, 6, 3, 7)}, Date{utc(2024, 6, 17, 7)}};
    const auto items = engine.timeline(weeks);
    const auto uid = [](const std::shared_ptr<EKEvent>& event) { return *event->calendarItemExternalIdentifier(); };
    const auto at = [](double seconds) { return std::optional(static_cast<std::int64_t>(seconds)); };
    const std::string standupKept = RestoreEngine::matchKey(uid(standup), at(utc(2024, 6, 3, 16)));
    const std::string standupDeleted = RestoreEngine::matchKey(uid(standup), at(utc(2024, 6, 10, 16)));

    struct Expected {
        std::string id;
        State state;
        bool moved;
        bool restorable;
    };
    const std::vector<Expected> expected{
        {standupKept, State::unchanged, false, false},
        {uid(review), State::changed, false, false},
        {uid(lunch), State::changed, true, false},
        {uid(offsite), State::changed, true, false},
        {uid(planning), State::added, false, false},
        {uid(dinnerAgain), State::unchanged, false, false},
        {standupDeleted, State::deleted, false, false},
        {uid(dentist), State::deleted, false, true},
        {RestoreEngine::matchKey(uid(yoga), at(utc(2024, 6, 12, 14))), State::deleted, false, true},
        {RestoreEngine::matchKey(uid(yoga), at(utc(2024, 6, 13, 14))), State::deleted, false, true},
    };
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
    EXPECT_EQ(found.at(uid(review))->changes.at(0).field, "title");
    EXPECT_EQ(found.at(uid(lunch))->previousStart, Date{utc(2024, 6, 5, 19)});
    EXPECT_TRUE(std::is_sorted(items.begin(), items.end(),
                               [](const TimelineItem& a, const TimelineItem& b) { return a.start < b.start; }));

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

} // namespace
} // namespace morvane
