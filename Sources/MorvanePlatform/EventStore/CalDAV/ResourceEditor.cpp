#include "MorvanePlatform/EventStore/CalDAV/ICalendarResource.h"

#include "MorvanePlatform/EventStore/CalDAV/ICalendarComponents.h"
#include "MorvanePlatform/EventStore/RecurrenceExpansion.h"

#include <algorithm>
#include <cmath>
#include <ctime>

namespace morvane::caldav {

using namespace detail;

struct ResourceEditor::Parts {
    Component calendar;
    std::string uid;
    Zones zones;
};

namespace {

icalproperty* timeProperty(icalproperty_kind kind, double stored, const std::optional<std::string>& zone, bool allDay,
                           Zones& zones) {
    icaltimetype time;
    if (allDay) {
        time = icaltime_from_timet_with_zone(unixSeconds(stored), 1, nullptr);
    } else if (zone && (*zone == "UTC" || *zone == "GMT")) {
        time = icaltime_from_timet_with_zone(unixSeconds(stored), 0, icaltimezone_get_utc_timezone());
    } else if (zone) {
        time = icaltime_from_timet_with_zone(unixSeconds(zones.of(zone).wallClock(stored)), 0, nullptr);
    } else {
        time = icaltime_from_timet_with_zone(unixSeconds(stored), 0, nullptr);
    }
    auto* property = icalproperty_new(kind);
    icalproperty_set_value(property, allDay ? icalvalue_new_date(time) : icalvalue_new_datetime(time));
    if (!allDay && zone && *zone != "UTC" && *zone != "GMT") {
        icalproperty_add_parameter(property, icalparameter_new_tzid(zone->c_str()));
    }
    return property;
}

void removeProperties(icalcomponent* component, icalproperty_kind kind) {
    while (auto* property = icalcomponent_get_first_property(component, kind)) {
        icalcomponent_remove_property(component, property);
        icalproperty_free(property);
    }
}

void addZone(icalcomponent* calendar, const std::optional<std::string>& zone) {
    if (!zone || *zone == "UTC" || *zone == "GMT") return;
    for (auto* existing = icalcomponent_get_first_component(calendar, ICAL_VTIMEZONE_COMPONENT); existing != nullptr;
         existing = icalcomponent_get_next_component(calendar, ICAL_VTIMEZONE_COMPONENT)) {
        auto* tzid = icalcomponent_get_first_property(existing, ICAL_TZID_PROPERTY);
        if (tzid != nullptr && icalproperty_get_tzid(tzid) == *zone) return;
    }
    auto* builtin = icaltimezone_get_builtin_timezone(zone->c_str());
    auto* definition = builtin ? icaltimezone_get_component(builtin) : nullptr;
    if (definition == nullptr) return;
    auto* copy = icalcomponent_new_clone(definition);
    if (auto* tzid = icalcomponent_get_first_property(copy, ICAL_TZID_PROPERTY))
        icalproperty_set_tzid(tzid, zone->c_str());
    // Zones go before the events that use them.
    icalcomponent_add_component(calendar, copy);
}

struct EventDates {
    std::optional<std::string> zone;
    double start = 0;
    double end = 0;
};

// The event's dates as the resource keeps them: all-day events floating, ending at the next
// midnight after their last second.
EventDates datesOf(const EKEvent& event, Zones& zones) {
    EventDates dates;
    dates.zone = event.allDay ? std::nullopt : event.timeZone;
    if (event.allDay) {
        auto& zone = zones.of(event.timeZone);
        dates.start = std::floor(zone.wallClock(*event.startDate) / secondsPerDay) * secondsPerDay;
        dates.end = std::ceil((zone.wallClock(*event.endDate) + 1) / secondsPerDay) * secondsPerDay;
        dates.end = std::max(dates.end, dates.start + secondsPerDay);
    } else {
        dates.start = dates.zone ? *event.startDate : zones.current.wallClock(*event.startDate);
        dates.end = dates.zone ? *event.endDate : zones.current.wallClock(*event.endDate);
    }
    return dates;
}

std::string untilText(double endDate, const EventDates& dates, bool allDay, Zones& zones) {
    char buffer[32];
    std::tm parts{};
    if (dates.zone) {
        const auto seconds = unixSeconds(endDate);
        gmtime_r(&seconds, &parts);
        std::strftime(buffer, sizeof buffer, "%Y%m%dT%H%M%SZ", &parts);
    } else {
        const auto seconds = unixSeconds(zones.current.wallClock(endDate));
        gmtime_r(&seconds, &parts);
        std::strftime(buffer, sizeof buffer, allDay ? "%Y%m%d" : "%Y%m%dT%H%M%S", &parts);
    }
    return buffer;
}

icalproperty* ruleProperty(const EKRecurrenceRule& rule, const EventDates& dates, bool allDay, Zones& zones) {
    auto text = recurrence::rruleText(rule, std::nullopt);
    if (rule.recurrenceEnd && rule.recurrenceEnd->occurrenceCount <= 0 && rule.recurrenceEnd->endDate) {
        text += ";UNTIL=" + untilText(*rule.recurrenceEnd->endDate, dates, allDay, zones);
    }
    return icalproperty_new_rrule(icalrecurrencetype_from_string(text.c_str()));
}

std::string stampText() {
    const auto now = std::time(nullptr);
    std::tm parts{};
    gmtime_r(&now, &parts);
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%Y%m%dT%H%M%SZ", &parts);
    return buffer;
}

// The fields an EKEvent holds, written over the component's; the rest of it stays.
void writeFields(icalcomponent* calendar, icalcomponent* component, const EKEvent& event, bool withRule, Zones& zones) {
    for (const auto kind : {ICAL_SUMMARY_PROPERTY, ICAL_DTSTART_PROPERTY, ICAL_DTEND_PROPERTY, ICAL_DURATION_PROPERTY,
                            ICAL_LOCATION_PROPERTY, ICAL_DESCRIPTION_PROPERTY, ICAL_URL_PROPERTY,
                            ICAL_LASTMODIFIED_PROPERTY, ICAL_DTSTAMP_PROPERTY}) {
        removeProperties(component, kind);
    }
    if (withRule) removeProperties(component, ICAL_RRULE_PROPERTY);
    while (auto* alarm = icalcomponent_get_first_component(component, ICAL_VALARM_COMPONENT)) {
        icalcomponent_remove_component(component, alarm);
        icalcomponent_free(alarm);
    }
    const auto dates = datesOf(event, zones);
    addZone(calendar, dates.zone);
    const auto stamp = icaltime_from_string(stampText().c_str());
    icalcomponent_add_property(component, icalproperty_new_dtstamp(stamp));
    icalcomponent_add_property(component, icalproperty_new_lastmodified(stamp));
    icalcomponent_add_property(component,
                               timeProperty(ICAL_DTSTART_PROPERTY, dates.start, dates.zone, event.allDay, zones));
    icalcomponent_add_property(component,
                               timeProperty(ICAL_DTEND_PROPERTY, dates.end, dates.zone, event.allDay, zones));
    if (event.title) icalcomponent_add_property(component, icalproperty_new_summary(event.title->c_str()));
    if (event.location && !event.location->empty()) {
        icalcomponent_add_property(component, icalproperty_new_location(event.location->c_str()));
    }
    if (event.notes && !event.notes->empty()) {
        icalcomponent_add_property(component, icalproperty_new_description(event.notes->c_str()));
    }
    if (event.URL && !event.URL->empty())
        icalcomponent_add_property(component, icalproperty_new_url(event.URL->c_str()));
    if (withRule && !event.recurrenceRules.empty()) {
        icalcomponent_add_property(component, ruleProperty(event.recurrenceRules.front(), dates, event.allDay, zones));
    }
    for (const auto& alarm : event.alarms) {
        auto* component_ = icalcomponent_new(ICAL_VALARM_COMPONENT);
        icalcomponent_add_property(component_, icalproperty_new_action(ICAL_ACTION_DISPLAY));
        icalcomponent_add_property(component_, icalproperty_new_description(event.title.value_or("").c_str()));
        icaltriggertype trigger{};
        trigger.time = icaltime_null_time();
        trigger.duration = icaldurationtype_null_duration();
        if (alarm.absoluteDate) {
            trigger.time =
                icaltime_from_timet_with_zone(unixSeconds(*alarm.absoluteDate), 0, icaltimezone_get_utc_timezone());
        } else {
            const double offset = std::isfinite(alarm.relativeOffset) ? std::clamp(alarm.relativeOffset, -1e9, 1e9) : 0;
            trigger.duration = icaldurationtype_from_int(static_cast<int>(offset));
        }
        icalcomponent_add_property(component_, icalproperty_new_trigger(trigger));
        icalcomponent_add_component(component, component_);
    }
}

} // namespace

ResourceEditor::ResourceEditor(const EKEvent& event, const std::string& uid) : parts_(std::make_unique<Parts>()) {
    quietLibical();
    parts_->calendar.reset(icalcomponent_new(ICAL_VCALENDAR_COMPONENT));
    parts_->uid = uid;
    icalcomponent_add_property(parts_->calendar.get(), icalproperty_new_version("2.0"));
    icalcomponent_add_property(parts_->calendar.get(), icalproperty_new_prodid("-//Morvane//CalDAV//EN"));
    auto* component = icalcomponent_new(ICAL_VEVENT_COMPONENT);
    icalcomponent_add_property(component, icalproperty_new_uid(uid.c_str()));
    writeFields(parts_->calendar.get(), component, event, true, parts_->zones);
    icalcomponent_add_component(parts_->calendar.get(), component);
}

ResourceEditor::ResourceEditor(const std::string& text) : parts_(std::make_unique<Parts>()) {
    parts_->calendar = parse(text);
    parts_->uid = uidOf(parts_->calendar.get());
}

ResourceEditor::~ResourceEditor() = default;

void ResourceEditor::setMaster(const EKEvent& event) {
    auto [master, overrides] = eventsOf(parts_->calendar.get(), parts_->uid);
    if (master == nullptr) {
        master = icalcomponent_new(ICAL_VEVENT_COMPONENT);
        icalcomponent_add_property(master, icalproperty_new_uid(parts_->uid.c_str()));
        icalcomponent_add_component(parts_->calendar.get(), master);
    }
    writeFields(parts_->calendar.get(), master, event, true, parts_->zones);
    if (event.recurrenceRules.empty()) {
        // A single event keeps no trace of a series.
        removeProperties(master, ICAL_EXDATE_PROPERTY);
        for (auto* override : overrides) {
            icalcomponent_remove_component(parts_->calendar.get(), override);
            icalcomponent_free(override);
        }
    }
}

namespace {

std::optional<double> originalOf(icalcomponent* event, const MasterClock& clock, Zones& zones) {
    const auto value = readTime(icalcomponent_get_first_property(event, ICAL_RECURRENCEID_PROPERTY), event, zones);
    if (!value) return std::nullopt;
    return storedAs(*value, clock.zone, clock.wall, zones);
}

// The master of the series and its clock, after taking out the overrides and exception dates
// whose original date (stored) `cut` picks. Throws when the resource has no master.
template <typename Cut> std::pair<icalcomponent*, MasterClock> cutSeries(ResourceEditor::Parts& parts, const Cut& cut) {
    const auto [master, overrides] = eventsOf(parts.calendar.get(), parts.uid);
    if (master == nullptr) throw EventStoreError("the series has no master event");
    const auto clock = masterClock(master, parts.zones);
    for (auto* override : overrides) {
        if (const auto stored = originalOf(override, clock, parts.zones); stored && cut(*stored)) {
            icalcomponent_remove_component(parts.calendar.get(), override);
            icalcomponent_free(override);
        }
    }
    std::vector<icalproperty*> cutDates;
    for (auto* exdate = icalcomponent_get_first_property(master, ICAL_EXDATE_PROPERTY); exdate != nullptr;
         exdate = icalcomponent_get_next_property(master, ICAL_EXDATE_PROPERTY)) {
        const auto value = readTime(exdate, master, parts.zones);
        if (value && cut(storedAs(*value, clock.zone, clock.wall, parts.zones))) cutDates.push_back(exdate);
    }
    for (auto* exdate : cutDates) {
        icalcomponent_remove_property(master, exdate);
        icalproperty_free(exdate);
    }
    return {master, clock};
}

} // namespace

void ResourceEditor::setOverride(double original, const EKEvent& event) {
    auto& zones = parts_->zones;
    const auto [master, overrides] = eventsOf(parts_->calendar.get(), parts_->uid);
    const auto clock = masterClock(master, zones);
    icalcomponent* target = nullptr;
    for (auto* override : overrides) {
        const auto stored = originalOf(override, clock, zones);
        if (stored && occurrenceKey(*stored) == occurrenceKey(original)) target = override;
    }
    if (target == nullptr) {
        target = icalcomponent_new(ICAL_VEVENT_COMPONENT);
        icalcomponent_add_property(target, icalproperty_new_uid(parts_->uid.c_str()));
        icalcomponent_add_property(target,
                                   timeProperty(ICAL_RECURRENCEID_PROPERTY, original, clock.zone, clock.allDay, zones));
        icalcomponent_add_component(parts_->calendar.get(), target);
    }
    writeFields(parts_->calendar.get(), target, event, false, zones);
    removeProperties(target, ICAL_RRULE_PROPERTY);
}

void ResourceEditor::removeOccurrence(double original) {
    const auto key = occurrenceKey(original);
    const auto [master, clock] = cutSeries(*parts_, [key](double stored) { return occurrenceKey(stored) == key; });
    icalcomponent_add_property(master,
                               timeProperty(ICAL_EXDATE_PROPERTY, original, clock.zone, clock.allDay, parts_->zones));
}

void ResourceEditor::endBefore(double original) {
    auto& zones = parts_->zones;
    const auto [master, clock] = cutSeries(*parts_, [original](double stored) { return stored >= original - 0.5; });
    auto fields = readFields(master, zones);
    auto rule = readRule(master, fields, zones);
    if (!rule) return;
    rule->recurrenceEnd = EKRecurrenceEnd::recurrenceEndWithEndDate(zones.moment(clock.zone, original) - 1);
    removeProperties(master, ICAL_RRULE_PROPERTY);
    EventDates dates{clock.zone, fields.start, fields.end};
    icalcomponent_add_property(master, ruleProperty(*rule, dates, clock.allDay, zones));
}

std::string ResourceEditor::text() const {
    char* text = icalcomponent_as_ical_string_r(parts_->calendar.get());
    if (text == nullptr) throw EventStoreError("the event couldn't be written as iCalendar text");
    std::string result(text);
    icalmemory_free_buffer(text);
    return result;
}

} // namespace morvane::caldav
