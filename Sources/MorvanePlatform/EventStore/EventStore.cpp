// The platform's event store: what every kind of store shares (permission, the default calendar,
// the span of a fetch), forwarding the rest to the store behind it.
#include "MorvanePlatform/EventKit.h"

#include "MorvanePlatform/Accounts.h"
#include "MorvanePlatform/CalendarDates.h"
#include "MorvanePlatform/EventStore/LocalStore.h"
#include "MorvanePlatform/EventStore/RecurrenceExpansion.h"
#include "MorvanePlatform/Files.h"
#include "MorvanePlatform/UserFolders.h"

#include <algorithm>
#include <cmath>

namespace morvane {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view relativeDatabasePath = "Library/Group Containers/group.com.apple.calendar/Calendar.sqlitedb";

class FullAccess final : public CalendarPermission {
public:
    EKAuthorizationStatus status(EKEntityType) override { return EKAuthorizationStatus::fullAccess; }
    bool requestFullAccess() override { return true; }
};

} // namespace

void checkSavable(const EKEvent& event) {
    if (!event.startDate) throw EventStoreError("No start date has been set.");
    if (!event.endDate) throw EventStoreError("No end date has been set.");
    if (!std::isfinite(*event.startDate) || !std::isfinite(*event.endDate) || *event.endDate < *event.startDate) {
        throw EventStoreError("The start date must be before the end date.");
    }
    for (const auto& rule : event.recurrenceRules) {
        if (!recurrence::isValid(rule)) throw EventStoreError("The recurrence rule is invalid.");
    }
}

CalendarPermission& CalendarPermission::system() {
    static FullAccess permission;
    return permission;
}

std::shared_ptr<EKEvent> EKEvent::eventWithEventStore(EKEventStore&) {
    auto event = std::make_shared<EKEvent>();
    event->calendarItemIdentifier_ = files::randomUUID();
    return event;
}

EKEventStore::EKEventStore() {
    AccountList list;
    try {
        list = accounts::load();
    } catch (const AccountsError& error) {
        throw EventStoreError(error.description());
    }
    if (const auto* live = list.liveAccount()) {
        // The account's store is built by its own constructor; this one takes it over.
        impl_ = std::move(EKEventStore(*live).impl_);
        return;
    }
    impl_ = std::make_unique<LocalStore>(defaultDatabasePath());
}
EKEventStore::EKEventStore(const fs::path& databasePath) : impl_(std::make_unique<LocalStore>(databasePath)) {}
EKEventStore::~EKEventStore() = default;

fs::path EKEventStore::defaultDatabasePath() {
    return UserFolders::current().home() / std::string(relativeDatabasePath);
}

const fs::path& EKEventStore::databasePath() const { return impl_->databasePath(); }

EKAuthorizationStatus EKEventStore::authorizationStatusForEntityType(EKEntityType type) {
    return CalendarPermission::current().status(type);
}

void EKEventStore::requestFullAccessToEvents(const std::function<void(bool, std::exception_ptr)>& completion) {
    bool granted = false;
    std::exception_ptr error;
    try {
        granted = CalendarPermission::current().requestFullAccess();
    } catch (...) {
        error = std::current_exception();
    }
    completion(granted, error);
}

std::vector<std::shared_ptr<const EKCalendar>> EKEventStore::calendarsForEntityType(EKEntityType type) {
    return impl_->calendarsForEntityType(type);
}

std::shared_ptr<const EKCalendar> EKEventStore::calendarWithIdentifier(const std::string& identifier) {
    return impl_->calendarWithIdentifier(identifier);
}

std::shared_ptr<const EKCalendar> EKEventStore::defaultCalendarForNewEvents() {
    // The first writable calendar of the local account, else the first writable one.
    std::shared_ptr<const EKCalendar> fallback;
    for (const auto& calendar : calendarsForEntityType(EKEntityType::event)) {
        if (!calendar->allowsContentModifications) continue;
        if (calendar->type == EKCalendarType::local) return calendar;
        if (!fallback) fallback = calendar;
    }
    return fallback;
}

std::vector<std::shared_ptr<const EKSource>> EKEventStore::sources() { return impl_->sources(); }

EKEventPredicate
EKEventStore::predicateForEvents(double startDate, double endDate,
                                 const std::optional<std::vector<std::shared_ptr<const EKCalendar>>>& calendars) {
    EKEventPredicate predicate;
    predicate.startDate = startDate;
    predicate.endDate = std::min(endDate, addingCalendarYears(startDate, 1));
    if (calendars) {
        predicate.calendarIdentifiers.emplace();
        for (const auto& calendar : *calendars) {
            if (calendar) predicate.calendarIdentifiers->push_back(calendar->calendarIdentifier);
        }
    }
    return predicate;
}

std::vector<std::shared_ptr<EKEvent>> EKEventStore::eventsMatchingPredicate(const EKEventPredicate& predicate) {
    if (!(predicate.startDate < predicate.endDate)) return {};
    return impl_->eventsMatchingPredicate(predicate);
}

std::shared_ptr<EKCalendarItem> EKEventStore::calendarItemWithIdentifier(const std::string& identifier) {
    return impl_->calendarItemWithIdentifier(identifier);
}

std::vector<std::shared_ptr<EKCalendarItem>>
EKEventStore::calendarItemsWithExternalIdentifier(const std::string& identifier) {
    return impl_->calendarItemsWithExternalIdentifier(identifier);
}

void EKEventStore::saveEvent(EKEvent& event, EKSpan span, bool commit) { impl_->saveEvent(event, span, commit); }
void EKEventStore::removeEvent(EKEvent& event, EKSpan span, bool commit) { impl_->removeEvent(event, span, commit); }
void EKEventStore::commit() { impl_->commit(); }
void EKEventStore::reset() { impl_->reset(); }
void EKEventStore::refreshSourcesIfNecessary() { impl_->refreshSourcesIfNecessary(); }

} // namespace morvane
