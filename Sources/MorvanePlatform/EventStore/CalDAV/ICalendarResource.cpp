#include "MorvanePlatform/EventStore/CalDAV/ICalendarResource.h"

#include "MorvanePlatform/CalendarDates.h"
#include "MorvanePlatform/EventStore/CalDAV/ICalendarComponents.h"

#include <cmath>
#include <mutex>
#include <unicode/timezone.h>

namespace morvane::caldav {
namespace {

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

icalcomponent* firstEvent(icalcomponent* calendar) {
    return icalcomponent_get_first_component(calendar, ICAL_VEVENT_COMPONENT);
}

} // namespace

namespace detail {

void quietLibical() {
    static std::once_flag once;
    std::call_once(once, [] { icalerror_set_errors_are_fatal(0); });
}

time_t unixSeconds(double wallClock) {
    const double seconds = std::floor(wallClock + secondsFrom1970To2001);
    return static_cast<time_t>(std::clamp(seconds, -62135596800.0, 253402300799.0));
}

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

std::string uidOf(icalcomponent* calendar) {
    const auto* event = firstEvent(calendar);
    const char* uid = event ? icalcomponent_get_uid(const_cast<icalcomponent*>(event)) : nullptr;
    return uid ? uid : "";
}

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

} // namespace detail

using namespace detail;

SeriesResource readResource(const std::string& text) {
    Zones zones;
    return readResource(text, zones);
}

SeriesResource readResource(const std::string& text, ZoneCache& zones) {
    const auto calendar = parse(text);
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

} // namespace morvane::caldav
