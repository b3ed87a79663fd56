#include "MorvanePlatform/EventStore/CalDAV/ICalendarResource.h"

#include "MorvanePlatform/CalendarDates.h"
#include "MorvanePlatform/EventStore/RecurrenceExpansion.h"
#include "MorvanePlatform/EventStore/ZoneOffsets.h"

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <libical/ical.h>
#include <map>
#include <mutex>
#include <unicode/timezone.h>

namespace morvane::caldav {
namespace {

constexpr double secondsPerDay = 86400;

struct ComponentFree {
    void operator()(icalcomponent* component) const { icalcomponent_free(component); }
};
using Component = std::unique_ptr<icalcomponent, ComponentFree>;

void quietLibical() {
    static std::once_flag once;
    std::call_once(once, [] { icalerror_set_errors_are_fatal(0); });
}

// Zones by name for one reading or edit: ICU's are costly to make.
struct Zones {
    std::map<std::string, ZoneOffsets> named;
    ZoneOffsets current = ZoneOffsets::current();

    ZoneOffsets& of(const std::optional<std::string>& zone) {
        if (!zone) return current;
        auto found = named.find(*zone);
        if (found == named.end()) found = named.emplace(*zone, ZoneOffsets(*zone)).first;
        return found->second;
    }
};

bool isKnownZone(const std::string& zone) { return ZoneOffsets::isKnown(zone); }

// An IANA name for a TZID: the name itself, the name after a vendor's prefix
// ("/example.org/2024/Europe/Berlin"), or a Windows zone's counterpart.
std::optional<std::string> ianaZone(const std::string& tzid) {
    if (tzid.empty()) return std::nullopt;
    if (isKnownZone(tzid)) return tzid;
    for (size_t slash = tzid.find('/'); slash != std::string::npos; slash = tzid.find('/', slash + 1)) {
        const auto rest = tzid.substr(slash + 1);
        if (rest.find('/') != std::string::npos && isKnownZone(rest)) return rest;
    }
    UErrorCode status = U_ZERO_ERROR;
    icu::UnicodeString id;
    icu::TimeZone::getIDForWindowsID(icu::UnicodeString::fromUTF8(tzid), nullptr, id, status);
    if (U_SUCCESS(status) && !id.isEmpty()) {
        std::string name;
        id.toUTF8String(name);
        return name;
    }
    return std::nullopt;
}

double wallSeconds(const icaltimetype& time) {
    return static_cast<double>(icaltime_as_timet(time)) - secondsFrom1970To2001;
}

time_t unixSeconds(double wallClock) {
    const double seconds = std::floor(wallClock + secondsFrom1970To2001);
    return static_cast<time_t>(std::clamp(seconds, -62135596800.0, 253402300799.0));
}

struct TimeValue {
    double wall = 0;
    std::optional<std::string> zone;
    bool isDate = false;
    // The moment for a zoned value.
    double moment = 0;
};

std::optional<TimeValue> readTime(icalproperty* property, icalcomponent* owner, Zones& zones) {
    if (property == nullptr) return std::nullopt;
    const auto time = icalproperty_get_datetime_with_component(property, owner);
    if (icaltime_is_null_time(time) || !icaltime_is_valid_time(time)) return std::nullopt;
    TimeValue value;
    value.wall = wallSeconds(time);
    if (time.is_date) {
        value.isDate = true;
        return value;
    }
    if (icaltime_is_utc(time)) {
        value.zone = "UTC";
        value.moment = value.wall;
        return value;
    }
    if (auto* parameter = icalproperty_get_first_parameter(property, ICAL_TZID_PARAMETER)) {
        const char* tzid = icalparameter_get_tzid(parameter);
        if (auto zone = ianaZone(tzid ? tzid : "")) {
            value.zone = zone;
            value.moment = zones.of(zone).moment(value.wall);
        } else if (time.zone != nullptr) {
            // A zone of the resource's own making: its VTIMEZONE gives the moment.
            value.moment = static_cast<double>(icaltime_as_timet_with_zone(time, time.zone)) - secondsFrom1970To2001;
            value.zone = "UTC";
            value.wall = value.moment;
        }
    }
    return value;
}

// A value stored as the dates of a master with `zone` are, whose start's wall clock is
// `masterWall` (a date alone takes the master's time of day).
double storedAs(const TimeValue& value, const std::optional<std::string>& zone, double masterWall, Zones& zones) {
    double wall = value.wall;
    if (value.isDate) {
        const double timeOfDay = masterWall - std::floor(masterWall / secondsPerDay) * secondsPerDay;
        wall = std::floor(wall / secondsPerDay) * secondsPerDay + timeOfDay;
    }
    if (zone) {
        if (value.zone && !value.isDate) return value.moment;
        return zones.of(zone).moment(wall);
    }
    if (value.zone && !value.isDate) return zones.current.wallClock(value.moment);
    return wall;
}

std::optional<std::string> textOf(const char* text) {
    if (text == nullptr || *text == '\0') return std::nullopt;
    return std::string(text);
}

std::optional<std::vector<int>> listOf(const short* values, int size, bool month = false) {
    std::vector<int> list;
    for (int i = 0; i < size && values[i] != ICAL_RECURRENCE_ARRAY_MAX; ++i) {
        list.push_back(month ? icalrecurrencetype_month_month(values[i]) : values[i]);
    }
    if (list.empty()) return std::nullopt;
    return list;
}

std::optional<EKRecurrenceRule> readRule(icalcomponent* event, const EventFields& master, Zones& zones) {
    auto* property = icalcomponent_get_first_property(event, ICAL_RRULE_PROPERTY);
    if (property == nullptr) return std::nullopt;
    const auto recurrence = icalproperty_get_rrule(property);
    EKRecurrenceRule rule;
    switch (recurrence.freq) {
    case ICAL_DAILY_RECURRENCE: rule.frequency = EKRecurrenceFrequency::daily; break;
    case ICAL_WEEKLY_RECURRENCE: rule.frequency = EKRecurrenceFrequency::weekly; break;
    case ICAL_MONTHLY_RECURRENCE: rule.frequency = EKRecurrenceFrequency::monthly; break;
    case ICAL_YEARLY_RECURRENCE: rule.frequency = EKRecurrenceFrequency::yearly; break;
    default: return std::nullopt;
    }
    rule.interval = std::max<int>(recurrence.interval, 1);
    std::vector<EKRecurrenceDayOfWeek> days;
    for (int i = 0; i < ICAL_BY_DAY_SIZE && recurrence.by_day[i] != ICAL_RECURRENCE_ARRAY_MAX; ++i) {
        days.push_back({static_cast<int>(icalrecurrencetype_day_day_of_week(recurrence.by_day[i])),
                        icalrecurrencetype_day_position(recurrence.by_day[i])});
    }
    if (!days.empty()) rule.daysOfTheWeek = days;
    rule.daysOfTheMonth = listOf(recurrence.by_month_day, ICAL_BY_MONTHDAY_SIZE);
    rule.monthsOfTheYear = listOf(recurrence.by_month, ICAL_BY_MONTH_SIZE, true);
    rule.weeksOfTheYear = listOf(recurrence.by_week_no, ICAL_BY_WEEKNO_SIZE);
    rule.daysOfTheYear = listOf(recurrence.by_year_day, ICAL_BY_YEARDAY_SIZE);
    rule.setPositions = listOf(recurrence.by_set_pos, ICAL_BY_SETPOS_SIZE);
    if (recurrence.count > 0) {
        rule.recurrenceEnd = EKRecurrenceEnd::recurrenceEndWithOccurrenceCount(recurrence.count);
    } else if (!icaltime_is_null_time(recurrence.until)) {
        const double wall = wallSeconds(recurrence.until);
        double end = 0;
        if (recurrence.until.is_date) {
            end = zones.of(master.zone).moment(wall + secondsPerDay - 1);
        } else if (icaltime_is_utc(recurrence.until)) {
            end = wall;
        } else {
            end = zones.of(master.zone).moment(wall);
        }
        rule.recurrenceEnd = EKRecurrenceEnd::recurrenceEndWithEndDate(end);
    }
    return rule;
}

EventFields readFields(icalcomponent* event, Zones& zones) {
    EventFields fields;
    fields.title = textOf(icalcomponent_get_summary(event));
    fields.location = textOf(icalcomponent_get_location(event));
    fields.notes = textOf(icalcomponent_get_description(event));
    if (auto* url = icalcomponent_get_first_property(event, ICAL_URL_PROPERTY)) {
        fields.url = textOf(icalproperty_get_url(url));
    }
    const auto start = readTime(icalcomponent_get_first_property(event, ICAL_DTSTART_PROPERTY), event, zones);
    if (!start) throw EventStoreError("an event has no usable DTSTART");
    fields.allDay = start->isDate;
    fields.zone = start->isDate ? std::nullopt : start->zone;
    fields.start = fields.zone ? start->moment : start->wall;
    const auto end = readTime(icalcomponent_get_first_property(event, ICAL_DTEND_PROPERTY), event, zones);
    if (end) {
        fields.end = storedAs(*end, fields.zone, start->wall, zones);
        if (end->isDate) fields.end = end->wall;
    } else if (auto* duration = icalcomponent_get_first_property(event, ICAL_DURATION_PROPERTY)) {
        fields.end = fields.start + icaldurationtype_as_int(icalproperty_get_duration(duration));
    } else {
        fields.end = fields.start + (fields.allDay ? secondsPerDay : 0);
    }
    if (fields.allDay) fields.end -= 1;
    fields.end = std::max(fields.end, fields.start);
    fields.hasAttendees = icalcomponent_get_first_property(event, ICAL_ATTENDEE_PROPERTY) != nullptr;
    if (auto* modified = icalcomponent_get_first_property(event, ICAL_LASTMODIFIED_PROPERTY)) {
        const auto time = icalproperty_get_lastmodified(modified);
        if (!icaltime_is_null_time(time)) fields.lastModified = wallSeconds(time);
    }
    for (auto* alarm = icalcomponent_get_first_component(event, ICAL_VALARM_COMPONENT); alarm != nullptr;
         alarm = icalcomponent_get_next_component(event, ICAL_VALARM_COMPONENT)) {
        auto* trigger = icalcomponent_get_first_property(alarm, ICAL_TRIGGER_PROPERTY);
        if (trigger == nullptr) continue;
        const auto value = icalproperty_get_trigger(trigger);
        if (!icaltime_is_null_time(value.time)) {
            fields.alarms.push_back(EKAlarm::alarmWithAbsoluteDate(wallSeconds(value.time)));
            continue;
        }
        double offset = icaldurationtype_as_int(value.duration);
        if (auto* related = icalproperty_get_first_parameter(trigger, ICAL_RELATED_PARAMETER);
            related != nullptr && icalparameter_get_related(related) == ICAL_RELATED_END) {
            offset += fields.end - fields.start + (fields.allDay ? 1 : 0);
        }
        fields.alarms.push_back(EKAlarm::alarmWithRelativeOffset(offset));
    }
    return fields;
}

Component parse(const std::string& text) {
    quietLibical();
    Component calendar(icalparser_parse_string(text.c_str()));
    if (!calendar) throw EventStoreError("it isn't iCalendar text");
    if (icalcomponent_isa(calendar.get()) != ICAL_VCALENDAR_COMPONENT) {
        // A bare VEVENT: wrapped, so that edits find their calendar.
        if (icalcomponent_isa(calendar.get()) != ICAL_VEVENT_COMPONENT) throw EventStoreError("it holds no VCALENDAR");
        Component wrapper(icalcomponent_new(ICAL_VCALENDAR_COMPONENT));
        icalcomponent_add_component(wrapper.get(), calendar.release());
        return wrapper;
    }
    return calendar;
}

// The master's wall-clock start and zone, which exception dates and overrides are read against.
struct MasterClock {
    std::optional<std::string> zone;
    double wall = 0;
    bool allDay = false;
};

MasterClock masterClock(icalcomponent* master, Zones& zones) {
    MasterClock clock;
    if (master == nullptr) return clock;
    if (const auto start = readTime(icalcomponent_get_first_property(master, ICAL_DTSTART_PROPERTY), master, zones)) {
        clock.zone = start->isDate ? std::nullopt : start->zone;
        clock.wall = start->zone ? zones.of(start->zone).wallClock(start->moment) : start->wall;
        clock.allDay = start->isDate;
    }
    return clock;
}

icalcomponent* firstEvent(icalcomponent* calendar) {
    return icalcomponent_get_first_component(calendar, ICAL_VEVENT_COMPONENT);
}

std::string uidOf(icalcomponent* calendar) {
    const auto* event = firstEvent(calendar);
    const char* uid = event ? icalcomponent_get_uid(const_cast<icalcomponent*>(event)) : nullptr;
    return uid ? uid : "";
}

// The events of the resource's UID: the master (null when absent) and the overrides.
std::pair<icalcomponent*, std::vector<icalcomponent*>> eventsOf(icalcomponent* calendar, const std::string& uid) {
    icalcomponent* master = nullptr;
    std::vector<icalcomponent*> overrides;
    for (auto* event = icalcomponent_get_first_component(calendar, ICAL_VEVENT_COMPONENT); event != nullptr;
         event = icalcomponent_get_next_component(calendar, ICAL_VEVENT_COMPONENT)) {
        const char* own = icalcomponent_get_uid(event);
        if ((own ? own : "") != uid) continue;
        if (icalcomponent_get_first_property(event, ICAL_RECURRENCEID_PROPERTY) != nullptr) {
            overrides.push_back(event);
        } else if (master == nullptr) {
            master = event;
        }
    }
    return {master, overrides};
}

} // namespace

double momentOf(const std::optional<std::string>& zone, double stored) {
    return zone ? stored : ZoneOffsets::current().moment(stored);
}

double storedOf(const std::optional<std::string>& zone, double moment) {
    return zone ? moment : ZoneOffsets::current().wallClock(moment);
}

SeriesResource readResource(const std::string& text) {
    const auto calendar = parse(text);
    Zones zones;
    SeriesResource resource;
    resource.uid = uidOf(calendar.get());
    const auto [master, overrides] = eventsOf(calendar.get(), resource.uid);
    if (master == nullptr && overrides.empty()) throw EventStoreError("it holds no event");
    const auto clock = masterClock(master, zones);
    if (master != nullptr) {
        resource.master = readFields(master, zones);
        resource.rule = readRule(master, *resource.master, zones);
        for (auto* exdate = icalcomponent_get_first_property(master, ICAL_EXDATE_PROPERTY); exdate != nullptr;
             exdate = icalcomponent_get_next_property(master, ICAL_EXDATE_PROPERTY)) {
            if (const auto value = readTime(exdate, master, zones)) {
                resource.exceptions.insert(occurrenceKey(storedAs(*value, clock.zone, clock.wall, zones)));
            }
        }
    }
    for (auto* event : overrides) {
        const auto original =
            readTime(icalcomponent_get_first_property(event, ICAL_RECURRENCEID_PROPERTY), event, zones);
        if (!original) continue;
        auto fields = readFields(event, zones);
        fields.recurrenceID =
            storedAs(*original, master ? clock.zone : fields.zone, master ? clock.wall : fields.start, zones);
        resource.overrides.push_back(std::move(fields));
    }
    return resource;
}

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
    auto& zones = parts_->zones;
    const auto [master, overrides] = eventsOf(parts_->calendar.get(), parts_->uid);
    if (master == nullptr) throw EventStoreError("the series has no master event");
    const auto clock = masterClock(master, zones);
    for (auto* override : overrides) {
        const auto stored = originalOf(override, clock, zones);
        if (stored && occurrenceKey(*stored) == occurrenceKey(original)) {
            icalcomponent_remove_component(parts_->calendar.get(), override);
            icalcomponent_free(override);
        }
    }
    icalcomponent_add_property(master, timeProperty(ICAL_EXDATE_PROPERTY, original, clock.zone, clock.allDay, zones));
}

void ResourceEditor::endBefore(double original) {
    auto& zones = parts_->zones;
    const auto [master, overrides] = eventsOf(parts_->calendar.get(), parts_->uid);
    if (master == nullptr) throw EventStoreError("the series has no master event");
    const auto clock = masterClock(master, zones);
    for (auto* override : overrides) {
        const auto stored = originalOf(override, clock, zones);
        if (stored && *stored >= original - 0.5) {
            icalcomponent_remove_component(parts_->calendar.get(), override);
            icalcomponent_free(override);
        }
    }
    std::vector<icalproperty*> later;
    for (auto* exdate = icalcomponent_get_first_property(master, ICAL_EXDATE_PROPERTY); exdate != nullptr;
         exdate = icalcomponent_get_next_property(master, ICAL_EXDATE_PROPERTY)) {
        const auto value = readTime(exdate, master, zones);
        if (value && storedAs(*value, clock.zone, clock.wall, zones) >= original - 0.5) later.push_back(exdate);
    }
    for (auto* exdate : later) {
        icalcomponent_remove_property(master, exdate);
        icalproperty_free(exdate);
    }
    auto fields = readFields(master, zones);
    auto rule = readRule(master, fields, zones);
    if (!rule) return;
    rule->recurrenceEnd = EKRecurrenceEnd::recurrenceEndWithEndDate(momentOf(clock.zone, original) - 1);
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
