#pragma once

#include "MorvanePlatform/EventKit.h"

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace morvane {

// What every kind of store means by an event overlapping a span: an event of no length counts
// at its start.
inline bool overlaps(double start, double end, double spanStart, double spanEnd) {
    return start < spanEnd && (end > spanStart || start >= spanStart);
}

// Refuses an event no store may save: without both dates, ending before it starts, or with a
// rule that can't be expanded. Throws EventStoreError.
void checkSavable(const EKEvent& event);

// What an event store does, behind the platform's EKEventStore, which forwards to one of these:
// the local event store (LocalStore.h) today; another kind of account can stand beside it. Each
// member keeps the contract of the EKEventStore member of the same name, threads included.
class EKEventStore::Implementation {
public:
    virtual ~Implementation() = default;

    virtual const std::filesystem::path& databasePath() const = 0;

    virtual std::vector<std::shared_ptr<const EKCalendar>> calendarsForEntityType(EKEntityType type) = 0;
    virtual std::shared_ptr<const EKCalendar> calendarWithIdentifier(const std::string& identifier) = 0;
    virtual std::vector<std::shared_ptr<const EKSource>> sources() = 0;

    // Called with a span that isn't empty and is at most a year long.
    virtual std::vector<std::shared_ptr<EKEvent>> eventsMatchingPredicate(const EKEventPredicate& predicate) = 0;
    virtual std::shared_ptr<EKCalendarItem> calendarItemWithIdentifier(const std::string& identifier) = 0;
    virtual std::vector<std::shared_ptr<EKCalendarItem>>
    calendarItemsWithExternalIdentifier(const std::string& identifier) = 0;

    virtual void saveEvent(EKEvent& event, EKSpan span, bool commit) = 0;
    virtual void removeEvent(EKEvent& event, EKSpan span, bool commit) = 0;
    virtual void commit() = 0;
    virtual void reset() = 0;
    virtual void refreshSourcesIfNecessary() = 0;
};

} // namespace morvane
