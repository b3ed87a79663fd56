#include "MorvaneCore/EventModel/EventSnapshot.h"

#include "MorvaneCore/Shared/DateFormatting.h"
#include "MorvaneCore/Shared/Text.h"

#include <cmath>

namespace morvane {
namespace {

constexpr std::string_view posixLocale = "en_US_POSIX";
// Added to an absolute alarm's seconds since 2001 so that it sorts after every relative offset.
constexpr double absoluteAlarmKeyOffset = 1e12;

std::string_view trimmed(const std::optional<std::string>& text) {
    return text ? text::trimmingWhitespaceAndNewlines(*text) : std::string_view();
}

void compareTexts(std::vector<FieldChange>& changes, const char* field, std::string_view old, std::string_view new_) {
    if (!text::canonicallyEqual(old, new_)) changes.push_back({field, std::string(old), std::string(new_)});
}

// Only dates a second or more apart are formatted at all: comparing thousands of unchanged events
// must not build thousands of formatters.
void compareDates(std::vector<FieldChange>& changes, const char* field, Date old, const EventSnapshot& oldEvent,
                  Date new_, const EventSnapshot& newEvent) {
    if (std::abs(old.seconds - new_.seconds) < 1.0) return;
    auto oldText = EventSnapshot::format(old, oldEvent.isFloating(), oldEvent.isAllDay);
    auto newText = EventSnapshot::format(new_, newEvent.isFloating(), newEvent.isAllDay);
    if (oldText != newText) changes.push_back({field, std::move(oldText), std::move(newText)});
}

bool sameCalendarIdentity(const std::optional<std::string>& a, const std::optional<std::string>& b) {
    if (!a && !b) return true;
    return a && b && text::canonicallyEqual(*a, *b);
}

std::string recurrenceText(const std::optional<RecurrenceRule>& rule) { return rule ? rule->description() : "none"; }

std::string alarmsText(const std::vector<AlarmSpec>& alarms) {
    std::string result;
    for (size_t i = 0; i < alarms.size(); ++i) {
        if (i > 0) result.append(", ");
        result.append(alarms[i].description());
    }
    return result;
}

} // namespace

std::string AlarmSpec::description() const {
    if (which_ == Case::absolute) return "at " + EventSnapshot::format(date_, false, false);
    if (seconds_ == 0) return "at start";
    // Unsigned, so that the magnitude of the most negative offset doesn't overflow.
    const auto magnitude =
        seconds_ < 0 ? 0 - static_cast<std::uint64_t>(seconds_) : static_cast<std::uint64_t>(seconds_);
    const auto minutes = magnitude / 60;
    std::string amount;
    if (minutes % 1440 == 0) {
        amount = std::to_string(magnitude / 86400) + "d";
    } else if (minutes % 60 == 0) {
        amount = std::to_string(magnitude / 3600) + "h";
    } else {
        amount = std::to_string(minutes) + "m";
    }
    return amount + (seconds_ < 0 ? " before" : " after");
}

double AlarmSpec::sortKey() const {
    if (which_ == Case::relative) return static_cast<double>(seconds_);
    return date_.seconds + absoluteAlarmKeyOffset;
}

json::Ordered AlarmSpec::json(json::DateEncoding dates) const {
    json::Ordered payload = json::Ordered::object();
    if (which_ == Case::relative) {
        payload["_0"] = seconds_;
        return json::Ordered{{"relative", std::move(payload)}};
    }
    payload["_0"] = json::date(date_, dates);
    return json::Ordered{{"absolute", std::move(payload)}};
}

AlarmSpec AlarmSpec::fromJson(const json::Ordered& value, json::DateEncoding dates, const std::string& path) {
    const json::ObjectReader reader(value, path);
    const bool isRelative = reader.object().contains("relative");
    const bool isAbsolute = reader.object().contains("absolute");
    if (isRelative == isAbsolute) {
        throw json::DecodingError(json::DecodingError::Case::typeMismatch, path,
                                  "Invalid number of keys found, expected one.");
    }
    const auto key = isRelative ? "relative" : "absolute";
    const json::ObjectReader payload(reader.object().at(key), reader.pathOf(key));
    const auto& inner = payload.required("_0");
    if (isRelative) return relative(json::integer(inner, payload.pathOf("_0")));
    return absolute(json::date(inner, dates, payload.pathOf("_0")));
}

std::vector<FieldChange> EventSnapshot::changes(const EventSnapshot& to, const CompareOptions& options) const {
    std::vector<FieldChange> result;
    compareTexts(result, "title", text::trimmingWhitespaceAndNewlines(title),
                 text::trimmingWhitespaceAndNewlines(to.title));
    if (isAllDay != to.isAllDay) result.push_back({"all-day", isAllDay ? "yes" : "no", to.isAllDay ? "yes" : "no"});
    compareDates(result, "start", start, *this, to.start, to);
    compareDates(result, "end", end, *this, to.end, to);
    compareTexts(result, "location", trimmed(location), trimmed(to.location));
    compareTexts(result, "notes", trimmed(notes), trimmed(to.notes));
    compareTexts(result, "url", trimmed(url), trimmed(to.url));
    // A calendar re-created under the same name is the same calendar to the user, and two
    // calendars of one name can't be told apart in a report.
    if (options.calendar && !sameCalendarIdentity(calendarUUID, to.calendarUUID)) {
        compareTexts(result, "calendar", calendarName, to.calendarName);
    }
    // Equal values have equal texts: the texts are only built, for many thousands of events in a
    // comparison, where the values differ.
    if (options.recurrence && recurrence != to.recurrence)
        compareTexts(result, "recurrence", recurrenceText(recurrence), recurrenceText(to.recurrence));
    if (options.alarms && alarms != to.alarms)
        compareTexts(result, "alarms", alarmsText(alarms), alarmsText(to.alarms));
    return result;
}

std::string EventSnapshot::format(Date date, bool floating, bool allDay) {
    return dates::format(date, allDay ? "yyyy-MM-dd '(all day)'" : "yyyy-MM-dd HH:mm", posixLocale,
                         floating ? "UTC" : "");
}

json::Ordered EventSnapshot::json(json::DateEncoding dates) const {
    json::Ordered object = json::Ordered::object();
    object["title"] = title;
    object["start"] = json::date(start, dates);
    object["end"] = json::date(end, dates);
    object["isAllDay"] = isAllDay;
    if (timeZone) object["timeZone"] = *timeZone;
    if (location) object["location"] = *location;
    if (notes) object["notes"] = *notes;
    if (url) object["url"] = *url;
    if (calendarUUID) object["calendarUUID"] = *calendarUUID;
    object["calendarName"] = calendarName;
    if (recurrence) object["recurrence"] = recurrence->json(dates);
    auto list = json::Ordered::array();
    for (const auto& alarm : alarms)
        list.push_back(alarm.json(dates));
    object["alarms"] = std::move(list);
    return object;
}

EventSnapshot EventSnapshot::fromJson(const json::Ordered& value, json::DateEncoding dates, const std::string& path) {
    const json::ObjectReader reader(value, path);
    EventSnapshot event;
    event.title = json::string(reader.required("title"), reader.pathOf("title"));
    event.start = json::date(reader.required("start"), dates, reader.pathOf("start"));
    event.end = json::date(reader.required("end"), dates, reader.pathOf("end"));
    event.isAllDay = json::boolean(reader.required("isAllDay"), reader.pathOf("isAllDay"));
    event.timeZone = reader.optionalString("timeZone");
    event.location = reader.optionalString("location");
    event.notes = reader.optionalString("notes");
    event.url = reader.optionalString("url");
    event.calendarUUID = reader.optionalString("calendarUUID");
    event.calendarName = json::string(reader.required("calendarName"), reader.pathOf("calendarName"));
    if (const auto* rule = reader.optional("recurrence")) {
        event.recurrence = RecurrenceRule::fromJson(*rule, dates, reader.pathOf("recurrence"));
    }
    const auto& alarms = json::array(reader.required("alarms"), reader.pathOf("alarms"));
    for (size_t i = 0; i < alarms.size(); ++i) {
        event.alarms.push_back(AlarmSpec::fromJson(alarms[i], dates, json::indexPath(reader.pathOf("alarms"), i)));
    }
    return event;
}

} // namespace morvane

size_t std::hash<morvane::AlarmSpec>::operator()(const morvane::AlarmSpec& alarm) const noexcept {
    const auto caseNumber = static_cast<size_t>(alarm.which());
    const size_t payload = alarm.which() == morvane::AlarmSpec::Case::relative
                               ? std::hash<std::int64_t>()(alarm.seconds())
                               : std::hash<double>()(alarm.date().seconds);
    return caseNumber * 0x9e3779b97f4a7c15ULL ^ payload;
}
