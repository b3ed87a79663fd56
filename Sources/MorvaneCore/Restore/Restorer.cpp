#include "MorvaneCore/Restore/Restorer.h"

#include "MorvaneCore/LiveCalendars/CurrentEvents.h"
#include "MorvaneCore/Shared/DateFormatting.h"
#include "MorvaneCore/Shared/Errors.h"
#include "MorvaneCore/Shared/EventKeys.h"
#include "MorvaneCore/Shared/TimeZones.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <exception>
#include <set>

// A series can't be put back as it stood: the store gives it a new identity and has no way of
// creating it with occurrences already deleted. So it is re-created from its rule, and its deleted
// and edited occurrences are then removed and edited one by one in a single transaction, which
// is undone by removing the series if any step fails. Every lookup of the series goes by its
// calendar item identifier, which stays put; the event identifier is only reported.
namespace morvane {
namespace {

constexpr double day = 86400;
// A detached occurrence may have moved far from its original date.
constexpr double detachedSearch = 60 * day;
constexpr const char* rolledBack = " — the partially restored event was removed";
constexpr const char* unreadable = "restored event can't be read back";

std::string label(const EKCalendar& calendar, const char* withoutSource) {
    return calendar.title + " (" + (calendar.source ? calendar.source->title : withoutSource) + ")";
}

std::string joined(const std::vector<std::string>& pieces, std::string_view separator) {
    std::string text;
    for (const auto& piece : pieces) {
        if (!text.empty()) text += separator;
        text += piece;
    }
    return text;
}

// Whether the text is one the platform accepts as a URL: no blanks, controls or the characters
// that must be escaped in one.
bool formsURL(std::string_view text) {
    if (text.empty()) return false;
    return std::none_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte <= 0x20 || byte == 0x7F || std::string_view("\"<>\\^`{|}").find(c) != std::string_view::npos;
    });
}

std::string changeLine(const FieldChange& change, const std::string& prefix = {}) {
    return prefix + change.field + ": backup " + change.old + " / restored " + change.new_;
}

std::shared_ptr<EKEvent> readBack(EKEventStore& store, const std::string& identifier) {
    return std::dynamic_pointer_cast<EKEvent>(store.calendarItemWithIdentifier(identifier));
}

} // namespace

std::string RestorePlan::targetName() const { return target ? label(*target, "?") : "—"; }

Date Restorer::instantOfWallClock(Date wallClock) { return zones::instantOfWallClock(wallClock); }

Date Restorer::wallClockOfInstant(Date instant) { return zones::wallClockOfInstant(instant); }

RestorePlan Restorer::plan(const BackupEvent& event, std::vector<BackupEvent> detached,
                           std::vector<Date> exceptionDates, std::shared_ptr<const EKCalendar> into) const {
    std::shared_ptr<const EKCalendar> home;
    if (event.calendar.uuid) home = store_.calendarWithIdentifier(*event.calendar.uuid);
    RestorePlan plan{event, std::move(detached), std::move(exceptionDates), std::nullopt, into ? into : home, {}, {}};
    const auto displayName = event.calendar.displayName();

    if (plan.target && !plan.target->allowsContentModifications) {
        plan.problems.push_back("calendar " + plan.targetName() + " is read-only");
    } else if (!plan.target) {
        plan.problems.push_back("calendar \"" + displayName + "\" no longer exists; choose one with --into");
    }
    if (const auto& rule = event.snapshot.recurrence; rule && rule->unparsed)
        plan.problems.push_back("recurrence has parts this tool can't rebuild (" + *rule->unparsed + ")");

    if (plan.target && home && plan.target->calendarIdentifier != home->calendarIdentifier)
        plan.warnings.push_back("restoring into " + plan.targetName() + " instead of " + displayName);
    if (event.hasAttendees)
        plan.warnings.emplace_back("invitation: attendees can't be restored, it becomes a plain event");
    const bool attachments = event.hasAttachment || std::any_of(plan.detached.begin(), plan.detached.end(),
                                                                [](const BackupEvent& d) { return d.hasAttachment; });
    if (attachments) plan.warnings.emplace_back("attachments can't be restored");
    plan.warnings.emplace_back(
        "gets a new UID; links to the original (e.g. from Mail or other invitees' copies) won't follow");
    return plan;
}

std::shared_ptr<const EKCalendar> Restorer::calendar(std::string_view matching) const {
    const auto calendars = store_.calendarsForEntityType(EKEntityType::event);
    for (const auto& calendar : calendars) {
        if (calendar->calendarIdentifier == matching) return calendar;
    }
    for (const auto& calendar : calendars) {
        if (label(*calendar, "") == matching) return calendar;
    }
    std::shared_ptr<const EKCalendar> only;
    for (const auto& calendar : calendars) {
        if (calendar->title != matching) continue;
        if (only) return nullptr;
        only = calendar;
    }
    return only;
}

void Restorer::apply(const EventSnapshot& snapshot, EKEvent& event) {
    event.title = snapshot.title;
    event.allDay = snapshot.isAllDay;
    event.timeZone = snapshot.timeZone && zones::isKnown(*snapshot.timeZone) ? snapshot.timeZone : std::nullopt;
    const bool floating = snapshot.isFloating();
    event.startDate = (floating ? instantOfWallClock(snapshot.start) : snapshot.start).seconds;
    event.endDate = (floating ? instantOfWallClock(snapshot.end) : snapshot.end).seconds;
    event.location = snapshot.location;
    event.notes = snapshot.notes;
    event.URL = snapshot.url && formsURL(*snapshot.url) ? snapshot.url : std::nullopt;
    event.alarms.clear();
    for (const auto& alarm : snapshot.alarms) {
        event.alarms.push_back(alarm.which() == AlarmSpec::Case::absolute
                                   ? EKAlarm::alarmWithAbsoluteDate(alarm.date().seconds)
                                   : EKAlarm::alarmWithRelativeOffset(static_cast<double>(alarm.seconds())));
    }
}

RestoreResult Restorer::restore(RestorePlan plan) {
    if (!plan.problems.empty() || !plan.target) throw RestoreError(joined(plan.problems, "; "));
    const auto& snapshot = plan.event.snapshot;

    auto event = EKEvent::eventWithEventStore(store_);
    event->calendar = plan.target;
    apply(snapshot, *event);
    if (snapshot.recurrence) event->recurrenceRules = {snapshot.recurrence->ekRule()};
    // The one write that stands by itself: from here on the series exists.
    store_.saveEvent(*event, snapshot.recurrence ? EKSpan::futureEvents : EKSpan::thisEvent, true);

    const auto masterID = event->calendarItemIdentifier();
    const auto eventIdentifier = event->eventIdentifier();
    if (!eventIdentifier) throw RestoreError("EventKit saved the event but returned no identifier");

    if (snapshot.recurrence) {
        try {
            writeOccurrences(plan, masterID);
        } catch (const std::exception& error) {
            store_.reset();
            try {
                if (auto saved = readBack(store_, masterID)) store_.removeEvent(*saved, EKSpan::futureEvents, true);
            } catch (const std::exception&) {
                // The words are the same either way; nothing more can be done from here.
            }
            throw RestoreError(error.what() + std::string(rolledBack));
        }
    }
    // The event stands by now: a read-back that fails is a line of the report, not a failure.
    std::vector<std::string> verification;
    try {
        verification = verify(plan, masterID);
    } catch (const std::exception&) {
        verification = {unreadable};
    }
    return {std::move(plan), *eventIdentifier, std::move(verification)};
}

void Restorer::writeOccurrences(RestorePlan& plan, const std::string& masterID) {
    const auto& master = plan.event.snapshot;
    const bool floating = master.isFloating();
    if (plan.keptOccurrences) {
        // What the re-created rule generates decides, not the backup's list of exceptions, which
        // may have been written against another expansion of the rule.
        std::set<std::int64_t> edited;
        for (const auto& occurrence : plan.detached) {
            if (occurrence.originalDate) edited.insert(occurrence.originalDate->occurrenceKey());
        }
        plan.exceptionDates.clear();
        for (const auto key : occurrences(masterID, plan.target, floating, *plan.keptOccurrences)) {
            if (plan.keptOccurrences->keys.count(key) == 0 && edited.count(key) == 0)
                plan.exceptionDates.push_back(Date{static_cast<double>(key)});
        }
    }
    for (const auto date : plan.exceptionDates) {
        const auto found = occurrence(masterID, plan.target, date.occurrenceKey(), floating);
        if (!found) {
            throw RestoreError("deleted occurrence " + EventSnapshot::format(date, floating, master.isAllDay) +
                               " isn't part of the recreated series");
        }
        store_.removeEvent(*found, EKSpan::thisEvent, false);
    }
    for (const auto& edited : plan.detached) {
        std::shared_ptr<EKEvent> found;
        if (edited.originalDate)
            found = occurrence(masterID, plan.target, edited.originalDate->occurrenceKey(), floating);
        if (!found)
            throw RestoreError("edited occurrence " + edited.snapshot.startText() +
                               " isn't part of the recreated series");
        apply(edited.snapshot, *found);
        store_.saveEvent(*found, EKSpan::thisEvent, false);
    }
    store_.commit();
}

std::optional<std::int64_t> Restorer::keyOf(const EKEvent& event, bool floating) {
    const auto date = event.occurrenceDate();
    if (!date) return std::nullopt;
    return (floating ? wallClockOfInstant(Date{*date}) : Date{*date}).occurrenceKey();
}

std::vector<std::shared_ptr<EKEvent>> Restorer::fetch(double start, double end,
                                                      const std::shared_ptr<const EKCalendar>& in) {
    std::optional<std::vector<std::shared_ptr<const EKCalendar>>> calendars;
    if (in) calendars.emplace(1, in);
    return store_.eventsMatchingPredicate(store_.predicateForEvents(start, end, calendars));
}

std::vector<std::int64_t> Restorer::occurrences(const std::string& series, const std::shared_ptr<const EKCalendar>& in,
                                                bool floating, const KeptOccurrences& within) {
    // The store answers at most a year per fetch; what lies on the seam comes twice.
    std::set<std::int64_t> keys;
    for (Date cursor = within.window.start; cursor < within.window.end;) {
        const Date stepEnd = std::min(dates::addingYears(cursor, 1), within.window.end);
        std::optional<std::vector<std::shared_ptr<const EKCalendar>>> calendars;
        if (in) calendars.emplace(1, in);
        const auto predicate = store_.predicateForEvents(cursor.seconds, stepEnd.seconds, calendars);
        // Following the store's own end leaves no gap, and a step that doesn't advance would loop.
        const Date next{std::min(predicate.endDate, stepEnd.seconds)};
        if (!(cursor < next)) break;
        for (const auto& event : store_.eventsMatchingPredicate(predicate)) {
            if (event->calendarItemIdentifier() != series || event->isDetached()) continue;
            if (const auto key = keyOf(*event, floating)) keys.insert(*key);
        }
        cursor = next;
    }
    return {keys.begin(), keys.end()};
}

std::shared_ptr<EKEvent> Restorer::occurrence(const std::string& series, const std::shared_ptr<const EKCalendar>& in,
                                              std::int64_t at, bool floating) {
    Date t{static_cast<double>(at)};
    if (floating) t = instantOfWallClock(t);
    // Uneven on purpose: an occurrence's key may lie up to a day from where it is fetched.
    for (auto& event : fetch(t.seconds - day, t.seconds + 2 * day, in)) {
        if (event->calendarItemIdentifier() != series || event->isDetached()) continue;
        if (keyOf(*event, floating) == at) return std::move(event);
    }
    return nullptr;
}

std::shared_ptr<EKEvent> Restorer::detachedOccurrence(const EKEvent& series,
                                                      const std::shared_ptr<const EKCalendar>& in,
                                                      std::int64_t originalKey) {
    const auto& external = series.calendarItemExternalIdentifier();
    if (!external) return nullptr;
    const auto wanted = seriesKey(*external);
    const auto t = static_cast<double>(originalKey);
    // The platform keeps an occurrence's original date in its external identifier alone.
    for (auto& event : fetch(t - detachedSearch, t + detachedSearch, in)) {
        const auto& identifier = event->calendarItemExternalIdentifier();
        if (!event->isDetached() || !identifier) continue;
        const auto marker = identifier->find(occurrenceMarker);
        if (marker == std::string::npos || std::string_view(*identifier).substr(0, marker) != wanted) continue;
        const auto number = std::string_view(*identifier).substr(marker + occurrenceMarker.size());
        double value = 0;
        const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), value);
        if (error != std::errc() || end != number.data() + number.size() || !std::isfinite(value)) continue;
        if (Date{value}.occurrenceKey() == originalKey) return std::move(event);
    }
    return nullptr;
}

std::vector<std::string> Restorer::verify(const RestorePlan& plan, const std::string& masterID) {
    store_.reset();
    const auto master = readBack(store_, masterID);
    if (!master || !master->startDate || !master->endDate) return {unreadable};

    const auto& backup = plan.event.snapshot;
    CompareOptions options;
    // A calendar the user chose instead of the event's own is no difference.
    const auto targetID = plan.target ? std::optional(plan.target->calendarIdentifier) : std::nullopt;
    if (targetID != plan.event.calendar.uuid) options.calendar = false;
    std::vector<std::string> lines;
    for (const auto& change : backup.changes(EventKitSource::snapshot(*master), options))
        lines.push_back(changeLine(change));

    if (!backup.recurrence || !plan.target) return lines;
    const auto target = store_.calendarWithIdentifier(plan.target->calendarIdentifier);
    if (!target) return lines;
    const bool floating = backup.isFloating();
    for (const auto date : plan.exceptionDates) {
        if (occurrence(masterID, target, date.occurrenceKey(), floating)) {
            lines.push_back("occurrence " + EventSnapshot::format(date, floating, backup.isAllDay) +
                            " should be deleted but exists");
        }
    }
    const CompareOptions occurrenceOptions{.recurrence = false, .calendar = false, .alarms = true};
    for (const auto& edited : plan.detached) {
        if (!edited.originalDate) continue;
        const auto found = detachedOccurrence(*master, target, edited.originalDate->occurrenceKey());
        if (!found || !found->startDate || !found->endDate) {
            lines.push_back("edited occurrence " + edited.snapshot.startText() + " not found");
            continue;
        }
        for (const auto& change : edited.snapshot.changes(EventKitSource::snapshot(*found), occurrenceOptions))
            lines.push_back(changeLine(change, "occurrence " + edited.snapshot.startText() + " "));
    }
    return lines;
}

std::pair<std::string, std::vector<std::string>>
Restorer::restoreSingle(const EventSnapshot& snapshot, const std::shared_ptr<const EKCalendar>& into) {
    auto single = snapshot;
    single.recurrence.reset();
    auto event = EKEvent::eventWithEventStore(store_);
    event->calendar = into;
    apply(single, *event);
    store_.saveEvent(*event, EKSpan::thisEvent, true);
    const auto identifier = event->eventIdentifier();
    if (!identifier) throw RestoreError("EventKit saved the event but returned no identifier");
    const auto itemID = event->calendarItemIdentifier();

    std::shared_ptr<EKEvent> saved;
    try {
        store_.reset();
        saved = readBack(store_, itemID);
    } catch (const std::exception&) {
        // The event stands; only the report suffers.
    }
    if (!saved || !saved->startDate || !saved->endDate) return {*identifier, {unreadable}};
    std::vector<std::string> lines;
    for (const auto& change :
         single.changes(EventKitSource::snapshot(*saved), {.recurrence = false, .calendar = false, .alarms = true}))
        lines.push_back(changeLine(change));
    return {*identifier, std::move(lines)};
}

} // namespace morvane
