#include "morvane/EventsCommand.h"

#include "MorvaneCore/LiveCalendars/CurrentEvents.h"
#include "MorvaneCore/LiveCalendars/YearByYearFetch.h"
#include "MorvaneCore/Shared/Json.h"
#include "MorvaneCore/Shared/TimeZones.h"
#include "morvane/CommandLine.h"
#include "morvane/DateRangeOptions.h"

#include <algorithm>
#include <ostream>

namespace morvane::cli {
namespace {

struct Occurrence {
    std::shared_ptr<EKEvent> event;
    std::int64_t key = 0;
};

void sortByStart(std::vector<Occurrence>& occurrences) {
    std::stable_sort(occurrences.begin(), occurrences.end(), [](const Occurrence& a, const Occurrence& b) {
        if (*a.event->startDate != *b.event->startDate) return *a.event->startDate < *b.event->startDate;
        return a.event->title.value_or("") < b.event->title.value_or("");
    });
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
    const auto range = readDateRange(options.from, options.to, err);
    if (!range) return exitUsage;
    const auto [from, to] = *range;
    if (!isFetchable({from, to})) {
        err << "morvane: the range may span at most " << longestSpanYears
            << " years: every year of it expands each repeating event again.\n";
        return exitUsage;
    }
    try {
        auto store = std::make_shared<EKEventStore>();
        EventKitSource(store).requestAccess();
        // Written a year at a time as the years are read, so memory holds one year, however long
        // the range; the JSON array is written piece by piece in the form a whole dump has.
        std::vector<Occurrence> year;
        RangeTexts rangeText;
        bool first = true;
        if (options.json) out << '[';
        const auto writeYear = [&] {
            sortByStart(year);
            for (const auto& occurrence : year) {
                if (options.json) {
                    std::string item = json::dump(occurrenceJSON(occurrence), true);
                    for (size_t line = item.find('\n'); line != std::string::npos; line = item.find('\n', line + 3))
                        item.replace(line, 1, "\n  ");
                    out << (first ? "\n  " : ",\n  ") << item;
                } else {
                    const auto& event = *occurrence.event;
                    out << rangeText(Date{*event.startDate}, Date{*event.endDate}, event.isAllDay()) << "  "
                        << event.title.value_or("") << "  ["
                        << (event.calendar ? event.calendar->title : std::string("?")) << "]"
                        << (event.isDetached() ? "  (edited occurrence)" : "") << '\n';
                }
                first = false;
            }
            year.clear();
        };
        fetchYearByYear(
            *store, {from, to},
            [&year](std::shared_ptr<EKEvent> event) {
                const auto key = liveOccurrenceKey(*event).value_or(0);
                year.push_back({std::move(event), key});
            },
            writeYear);
        if (options.json) out << (first ? "]\n" : "\n]\n");
        return exitSuccess;
    } catch (const Error& error) {
        err << "morvane: " << error.description() << '\n';
        return exitFailure;
    }
}

} // namespace morvane::cli
