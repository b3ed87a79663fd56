#include "Support/SavedEvents.h"

#include <gtest/gtest.h>

namespace morvane::testing {

std::shared_ptr<EKEvent> saveEvent(EKEventStore& store, const std::string& title, double start, double end,
                                   std::optional<std::string> zone, std::optional<EKRecurrenceRule> rule,
                                   std::shared_ptr<const EKCalendar> calendar, bool commit) {
    auto event = EKEvent::eventWithEventStore(store);
    event->title = title;
    event->startDate = start;
    event->endDate = end;
    event->timeZone = std::move(zone);
    event->calendar = calendar ? std::move(calendar) : store.defaultCalendarForNewEvents();
    if (rule) event->recurrenceRules = {*rule};
    store.saveEvent(*event, EKSpan::futureEvents, commit);
    return event;
}

std::shared_ptr<EKEvent> occurrenceAt(EKEventStore& store, const EKEvent& series, double start) {
    for (const auto& found : store.eventsMatchingPredicate(store.predicateForEvents(start, start + 3600, {}))) {
        if (found->calendarItemIdentifier() == series.calendarItemIdentifier() && found->startDate == start)
            return found;
    }
    ADD_FAILURE() << "no occurrence at " << start;
    return nullptr;
}

} // namespace morvane::testing
