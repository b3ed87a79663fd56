#include "morvane/EventsCommand.h"

#include "MorvaneCore/LiveCalendars/CurrentEvents.h"
#include "MorvaneCore/LiveCalendars/YearByYearFetch.h"
#include "MorvaneCore/Shared/DateInput.h"
#include "MorvaneCore/Shared/Json.h"
#include "MorvaneCore/Shared/TimeZones.h"
#include "morvane/CommandLine.h"

#include <algorithm>
#include <ostream>

namespace morvane::cli {
namespace {

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
    const auto from = dates::parseDayOrDateTime(options.from);
    const auto to = dates::parseDayOrDateTime(options.to);
    if (!from || !to) {
        err << "morvane: " << (!from ? "--from" : "--to")
            << " takes YYYY-MM-DD or an ISO 8601 date-time such as 2024-03-01T09:00:00Z or "
               "2024-03-01T09:00:00+01:00, not '"
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
