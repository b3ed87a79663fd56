#include "MorvaneCore/LiveCalendars/CurrentEvents.h"

#include "MorvaneCore/Database/CalendarDatabase.h"
#include "MorvaneCore/LiveCalendars/YearByYearFetch.h"
#include "MorvaneCore/Shared/Errors.h"
#include "MorvaneCore/Shared/EventKeys.h"
#include "MorvaneCore/Shared/Text.h"
#include "MorvaneCore/Shared/TimeZones.h"
#include "MorvaneCore/SnapshotStore/EventKitSnapshot.h"

#include <algorithm>
#include <atomic>
#include <cassert>
#include <charconv>
#include <cmath>
#include <future>
#include <memory>

namespace morvane {
namespace {

std::atomic<bool> grantedInThisProcess{false};

constexpr double equivalentSearchSeconds = 60;

// The moment a snapshot's start stands for: as it is when zoned, through the current zone when
// floating.
Date searchInstant(const EventSnapshot& snapshot) {
    return snapshot.timeZone ? snapshot.start : zones::instantOfWallClock(snapshot.start);
}

// Cut toward zero; saturated, so that no offset can overflow.
std::int64_t wholeSeconds(double seconds) {
    if (!std::isfinite(seconds)) return 0;
    return static_cast<std::int64_t>(std::clamp(std::trunc(seconds), -1e15, 1e15));
}

std::string trimmedTitle(const std::optional<std::string>& title) {
    return std::string(text::trimmingWhitespaceAndNewlines(title ? std::string_view(*title) : std::string_view()));
}

} // namespace

EventKitSource::EventKitSource(std::shared_ptr<EKEventStore> store) : store_(std::move(store)) {}

void EventKitSource::requestAccess() {
    const auto raw = EKEventStore::authorizationStatusForEntityType(EKEntityType::event);
    if (raw == EKAuthorizationStatus::fullAccess) return;
    if (raw != EKAuthorizationStatus::notDetermined) {
        throw SQLiteError("Calendar full access not granted. Enable it in System Settings \u2192 Privacy & Security "
                          "\u2192 Calendars.");
    }
    if (grantedInThisProcess.load()) return;

    // The platform may answer on any thread; this one waits for it.
    auto answer = std::make_shared<std::promise<bool>>();
    auto answered = answer->get_future();
    store_->requestFullAccessToEvents([answer](bool granted, std::exception_ptr error) {
        if (error) {
            answer->set_exception(error);
        } else {
            answer->set_value(granted);
        }
    });
    bool granted = false;
    try {
        granted = answered.get();
    } catch (const Error& error) {
        // The platform's words, as they stand, in the one error type of this operation.
        throw SQLiteError(error.description());
    }
    if (!granted) {
        throw SQLiteError("Calendar access denied. Run from Terminal.app (or an app that can request Calendar access) "
                          "and allow the prompt.");
    }
    CalendarAccess::recordGrant();
}

bool EventKitSource::contains(const BackupEvent& event) {
    const std::string uid(seriesKey(event.uniqueIdentifier));
    for (const auto& item : store_->calendarItemsWithExternalIdentifier(uid)) {
        if (std::dynamic_pointer_cast<EKEvent>(item)) return true;
    }
    if (!event.uuid) return false;
    return store_->calendarItemWithIdentifier(*event.uuid) != nullptr;
}

bool EventKitSource::hasEquivalent(const BackupEvent& event) {
    const auto& wanted = event.snapshot;
    const Date at = searchInstant(wanted);
    const auto predicate = store_->predicateForEvents(at.seconds - equivalentSearchSeconds,
                                                      at.seconds + equivalentSearchSeconds, std::nullopt);
    const auto title = trimmedTitle(wanted.title);
    const auto startKey = wanted.start.occurrenceKey();
    for (const auto& found : store_->eventsMatchingPredicate(predicate)) {
        if (!found->calendar || !found->calendar->allowsContentModifications) continue;
        if (trimmedTitle(found->title) != title) continue;
        if (!found->startDate) continue;
        Date start{*found->startDate};
        if (!found->timeZone) start = zones::wallClockOfInstant(start);
        if (start.occurrenceKey() == startKey) return true;
    }
    return false;
}

std::optional<EventSnapshot> EventKitSource::snapshot(const BackupEvent& event) {
    const std::string uid(seriesKey(event.uniqueIdentifier));
    std::vector<std::shared_ptr<EKEvent>> masters;
    for (const auto& item : store_->calendarItemsWithExternalIdentifier(uid)) {
        if (auto found = std::dynamic_pointer_cast<EKEvent>(item); found && !found->isDetached()) {
            masters.push_back(std::move(found));
        }
    }
    if (!masters.empty()) {
        for (const auto& master : masters) {
            const auto calendarID =
                master->calendar ? std::optional(master->calendar->calendarIdentifier) : std::nullopt;
            if (calendarID == event.calendar.uuid) return snapshot(*master);
        }
        return snapshot(*masters.front());
    }
    if (!event.uuid) return std::nullopt;
    if (const auto found = std::dynamic_pointer_cast<EKEvent>(store_->calendarItemWithIdentifier(*event.uuid))) {
        return snapshot(*found);
    }
    return std::nullopt;
}

CurrentOccurrences EventKitSource::occurrences(const std::set<std::string>& uids, DateInterval in) {
    CurrentOccurrences result{in, {}, {}};
    std::map<std::string, std::set<std::int64_t>> dates;
    fetchYearByYear(*store_, in, [&](std::shared_ptr<EKEvent> event) {
        const auto& identifier = event->calendarItemExternalIdentifier();
        if (!identifier || !event->occurrenceDate()) return;
        const std::string uid(seriesKey(*identifier));
        if (uids.count(uid) == 0) return;
        const auto key = liveOccurrenceKey(*event);
        if (!key) return;
        dates[uid].insert(*key);
        if (event->isDetached()) result.detached[uid][*key] = snapshot(*event);
    });
    for (auto& [uid, keys] : dates)
        result.dates.emplace(uid, std::vector<std::int64_t>(keys.begin(), keys.end()));
    return result;
}

EventSnapshot EventKitSource::snapshot(const EKEvent& event) {
    assert(event.startDate && event.endDate);
    EventSnapshot made;
    made.title = event.title.value_or("");
    made.start = Date{event.startDate.value_or(0)};
    made.end = Date{event.endDate.value_or(0)};
    if (!event.timeZone) {
        made.start = zones::wallClockOfInstant(made.start);
        made.end = zones::wallClockOfInstant(made.end);
    }
    made.isAllDay = event.isAllDay();
    made.timeZone = event.timeZone;
    made.location = event.location;
    made.notes = event.notes;
    made.url = event.URL;
    if (event.calendar) {
        made.calendarUUID = event.calendar->calendarIdentifier;
        made.calendarName =
            event.calendar->title + " (" + (event.calendar->source ? event.calendar->source->title : "?") + ")";
    } else {
        made.calendarName = "?";
    }
    if (!event.recurrenceRules.empty()) made.recurrence = RecurrenceRule::fromEK(event.recurrenceRules.front());
    for (const auto& alarm : event.alarms) {
        made.alarms.push_back(alarm.absoluteDate ? AlarmSpec::absolute(Date{*alarm.absoluteDate})
                                                 : AlarmSpec::relative(wholeSeconds(alarm.relativeOffset)));
    }
    std::stable_sort(made.alarms.begin(), made.alarms.end());
    return made;
}

DatabaseSource::DatabaseSource(CalendarDatabase& database)
    : DatabaseSource(database.events(std::nullopt), database.occurrences()) {}

DatabaseSource::DatabaseSource(EventKitSnapshot eventKit, std::optional<EventKitSource> lookup)
    : DatabaseSource([&] {
          EventKitStore store(std::move(eventKit));
          auto occurrences = store.occurrences();
          return DatabaseSource(std::move(store).allEvents(), std::move(occurrences));
      }()) {
    lookup_ = std::move(lookup);
}

DatabaseSource::DatabaseSource(std::vector<BackupEvent> events, OccurrenceSet occurrences)
    : occurrenceWindow_(occurrences.window) {
    for (auto& [uid, keys] : occurrences.dates)
        occurrenceDates_.emplace(uid, std::move(keys));
    for (auto& event : events) {
        if (event.uuid) uuids_.insert(*event.uuid);
        const std::string uid(seriesKey(event.uniqueIdentifier));
        if (event.masterRowID) {
            if (event.originalDate) detached_[uid][event.originalDate->occurrenceKey()] = std::move(event.snapshot);
            continue;
        }
        const auto type = storeType(event.calendar.storeType);
        if (type &&
            std::find(restorableStoreTypes.begin(), restorableStoreTypes.end(), *type) != restorableStoreTypes.end()) {
            titleStarts_.insert(titleStartKey(event.snapshot.title, event.snapshot.start));
        }
        byUID_[uid].push_back(std::move(event));
    }
}

std::string DatabaseSource::titleStartKey(std::string_view title, Date start) {
    std::string key(text::trimmingWhitespaceAndNewlines(title));
    key += '|';
    key += std::to_string(start.occurrenceKey());
    return key;
}

bool DatabaseSource::contains(const BackupEvent& event) {
    const std::string uid(seriesKey(event.uniqueIdentifier));
    if (byUID_.count(uid) != 0 || detached_.count(uid) != 0) return true;
    if (event.uuid && uuids_.count(*event.uuid) != 0) return true;
    return lookup_ && lookup_->contains(event);
}

bool DatabaseSource::hasEquivalent(const BackupEvent& event) {
    return hasEquivalent(event.snapshot.title, event.snapshot.start);
}

bool DatabaseSource::hasEquivalent(std::string_view title, Date start) const {
    return titleStarts_.count(titleStartKey(title, start)) != 0;
}

std::optional<EventSnapshot> DatabaseSource::snapshot(const BackupEvent& event) {
    const auto found = byUID_.find(std::string(seriesKey(event.uniqueIdentifier)));
    if (found != byUID_.end() && !found->second.empty()) {
        for (const auto& master : found->second) {
            if (master.calendar.uuid == event.calendar.uuid) return master.snapshot;
        }
        return found->second.front().snapshot;
    }
    if (lookup_) return lookup_->snapshot(event);
    return std::nullopt;
}

CurrentOccurrences DatabaseSource::occurrences(const std::set<std::string>& uids, DateInterval in) {
    CurrentOccurrences result;
    const DateInterval meeting{std::max(occurrenceWindow_.start, in.start), std::min(occurrenceWindow_.end, in.end)};
    result.window = meeting.start < meeting.end ? meeting : DateInterval{in.start, in.start};
    for (const auto& uid : uids) {
        if (const auto dates = occurrenceDates_.find(uid); dates != occurrenceDates_.end())
            result.dates.emplace(uid, dates->second);
        if (const auto content = detached_.find(uid); content != detached_.end())
            result.detached.emplace(uid, content->second);
    }
    return result;
}

std::optional<std::int64_t> liveOccurrenceKey(const EKEvent& event) {
    if (const auto& identifier = event.calendarItemExternalIdentifier()) {
        if (const auto at = identifier->find(occurrenceMarker); at != std::string::npos) {
            const auto number = std::string_view(*identifier).substr(at + occurrenceMarker.size());
            double value = 0;
            const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), value);
            if (!number.empty() && error == std::errc() && end == number.data() + number.size() &&
                std::isfinite(value)) {
                return Date{value}.occurrenceKey();
            }
        }
    }
    const auto occurrence = event.occurrenceDate();
    if (!occurrence) return std::nullopt;
    const Date date{*occurrence};
    return (event.timeZone ? date : zones::wallClockOfInstant(date)).occurrenceKey();
}

namespace CalendarAccess {

bool isGranted() {
    switch (EKEventStore::authorizationStatusForEntityType(EKEntityType::event)) {
    case EKAuthorizationStatus::fullAccess: return true;
    case EKAuthorizationStatus::notDetermined: return grantedInThisProcess.load();
    default: return false;
    }
}

EKAuthorizationStatus status() {
    const auto raw = EKEventStore::authorizationStatusForEntityType(EKEntityType::event);
    if (raw == EKAuthorizationStatus::notDetermined && grantedInThisProcess.load()) {
        return EKAuthorizationStatus::fullAccess;
    }
    return raw;
}

void recordGrant() { grantedInThisProcess.store(true); }

void forgetGrantForTesting() { grantedInThisProcess.store(false); }

} // namespace CalendarAccess

} // namespace morvane
