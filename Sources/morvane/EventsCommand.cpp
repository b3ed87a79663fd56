#include "morvane/EventsCommand.h"

#include "MorvaneCore/LiveCalendars/CurrentEvents.h"
#include "MorvaneCore/LiveCalendars/YearByYearFetch.h"
#include "MorvaneCore/Shared/DateFormatting.h"
#include "MorvaneCore/Shared/Json.h"
#include "MorvaneCore/Shared/TimeZones.h"
#include "morvane/CommandLine.h"

#include <algorithm>
#include <ostream>
#include <regex>
#include <unicode/gregocal.h>

namespace morvane::cli {
namespace {

// The start of a calendar day in the current zone.
std::optional<Date> startOfDay(int year, int month, int day) {
    UErrorCode status = U_ZERO_ERROR;
    icu::GregorianCalendar calendar(status);
    calendar.setLenient(false);
    calendar.clear();
    calendar.set(year, month - 1, day, 0, 0, 0);
    const UDate millis = calendar.getTime(status);
    if (U_FAILURE(status)) return std::nullopt;
    return Date::fromSecondsSince1970(millis / 1000.0);
}

// "YYYY-MM-DD", or an ISO 8601 date-time with "Z" or an offset, optionally with fractions.
std::optional<Date> parseDate(const std::string& text) {
    static const std::regex day(R"((\d{4})-(\d{2})-(\d{2}))");
    static const std::regex dateTime(R"((\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2})(\.\d+)?(Z|[+-]\d{2}:?\d{2}))");
    std::smatch parts;
    if (std::regex_match(text, parts, day)) {
        return startOfDay(std::stoi(parts[1]), std::stoi(parts[2]), std::stoi(parts[3]));
    }
    if (!std::regex_match(text, parts, dateTime)) return std::nullopt;
    auto moment = dates::parseISO8601(parts[1].str() + "Z");
    if (!moment) return std::nullopt;
    if (parts[2].matched) moment->seconds += std::stod("0" + parts[2].str());
    const std::string zone = parts[3];
    if (zone != "Z") {
        const int sign = zone[0] == '-' ? -1 : 1;
        const std::string digits = zone.substr(1);
        const int hours = std::stoi(digits.substr(0, 2));
        const int minutes = std::stoi(digits.substr(digits.size() - 2));
        if (hours > 23 || minutes > 59) return std::nullopt;
        moment->seconds -= sign * (hours * 3600 + minutes * 60);
    }
    return moment;
}

struct Occurrence {
    std::shared_ptr<EKEvent> event;
    std::int64_t key = 0;
};

std::vector<Occurrence> occurrencesBetween(EKEventStore& store, Date from, Date to) {
    std::vector<Occurrence> found;
    fetchYearByYear(store, {from, to}, [&found](std::shared_ptr<EKEvent> event) {
        const auto key = liveOccurrenceKey(*event).value_or(0);
        found.push_back({std::move(event), key});
    });
    std::stable_sort(found.begin(), found.end(), [](const Occurrence& a, const Occurrence& b) {
        if (*a.event->startDate != *b.event->startDate) return *a.event->startDate < *b.event->startDate;
        return a.event->title.value_or("") < b.event->title.value_or("");
    });
    return found;
}

json::Value occurrenceJSON(const Occurrence& occurrence) {
    const auto& event = *occurrence.event;
    return {
        {"title", event.title.value_or("")},
        {"start", json::isoDate(Date{*event.startDate})},
        {"end", json::isoDate(Date{*event.endDate})},
        {"isAllDay", event.isAllDay()},
        {"timeZone", event.timeZone ? json::Value(*event.timeZone) : json::Value(nullptr)},
        {"calendar", event.calendar ? json::Value(event.calendar->calendarIdentifier) : json::Value(nullptr)},
        {"calendarTitle", event.calendar ? json::Value(event.calendar->title) : json::Value(nullptr)},
        {"uid", event.calendarItemExternalIdentifier() ? json::Value(*event.calendarItemExternalIdentifier())
                                                       : json::Value(nullptr)},
        {"occurrenceKey", occurrence.key},
        {"isDetached", event.isDetached()},
    };
}

} // namespace

int runEvents(const EventsOptions& options, std::ostream& out, std::ostream& err) {
    const auto from = parseDate(options.from);
    const auto to = parseDate(options.to);
    if (!from || !to) {
        err << "morvane: dates are YYYY-MM-DD or an ISO 8601 date-time such as 2024-03-01T09:00:00Z, not '"
            << (!from ? options.from : options.to) << "'.\n";
        return exitUsage;
    }
    if (!(*from < *to)) {
        err << "morvane: --to must be later than --from.\n";
        return exitUsage;
    }
    try {
        auto store = std::make_shared<EKEventStore>();
        EventKitSource(store).requestAccess();
        const auto occurrences = occurrencesBetween(*store, *from, *to);
        if (options.json) {
            json::Value list = json::Value::array();
            for (const auto& occurrence : occurrences)
                list.push_back(occurrenceJSON(occurrence));
            out << json::dump(list, true) << '\n';
            return exitSuccess;
        }
        for (const auto& occurrence : occurrences) {
            const auto& event = *occurrence.event;
            out << EventSnapshot::format(Date{*event.startDate}, false, event.isAllDay());
            if (!event.isAllDay()) out << " \u2013 " << EventSnapshot::format(Date{*event.endDate}, false, false);
            out << "  " << event.title.value_or("") << "  ["
                << (event.calendar ? event.calendar->title : std::string("?")) << "]"
                << (event.isDetached() ? "  (edited occurrence)" : "") << '\n';
        }
        return exitSuccess;
    } catch (const Error& error) {
        err << "morvane: " << error.description() << '\n';
        return exitFailure;
    }
}

} // namespace morvane::cli
