#include "MorvaneCore/LiveCalendars/YearByYearFetch.h"

#include "MorvaneCore/LiveCalendars/CurrentEvents.h"
#include "MorvaneCore/Shared/DateFormatting.h"
#include "MorvaneCore/Shared/Errors.h"
#include "MorvanePlatform/CalendarDates.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

namespace morvane {
namespace {

// Occurrences that reach past the end of a fetched year, by item identifier, so that the next
// year's fetch can tell them again. Only these are remembered: everything else of a year can't
// come back, and a whole capture's occurrences would cost far more.
using Seam = std::map<std::string, std::set<std::optional<std::int64_t>>, std::less<>>;

constexpr Date earliest{earliestRepresentable};
constexpr Date latest{latestRepresentable};

// The span cut to the dates that can be represented; NaN counts as out of range.
DateInterval representable(DateInterval span) {
    if (!(span.start >= earliest)) span.start = earliest;
    if (!(span.end <= latest)) span.end = latest;
    return span;
}

} // namespace

bool isFetchable(DateInterval span) {
    span = representable(span);
    return !(span.start < span.end) || !(dates::addingYears(span.start, longestSpanYears) < span.end);
}

void fetchYearByYear(EKEventStore& store, DateInterval wanted,
                     const std::function<void(std::shared_ptr<EKEvent>)>& visit,
                     const std::function<void()>& yearDone) {
    const auto span = representable(wanted);
    if (!isFetchable(span)) {
        throw RestoreError("Can't read the calendars from " + dates::iso8601(span.start) + " to " +
                           dates::iso8601(span.end) + ": a span of more than " + std::to_string(longestSpanYears) +
                           " years is refused, since every year of it expands each repeating event again.");
    }
    Seam seen;
    for (Date cursor = span.start; cursor < span.end;) {
        const Date yearEnd = std::min(dates::addingYears(cursor, 1), span.end);
        const auto predicate = store.predicateForEvents(cursor.seconds, yearEnd.seconds, std::nullopt);
        // The store cuts a predicate to its own idea of a year; following its end leaves no gap
        // should the two ever disagree. A year that doesn't advance would loop for ever.
        const Date next{std::min(predicate.endDate, yearEnd.seconds)};
        if (!(cursor < next)) break;

        Seam crossing;
        for (auto& event : store.eventsMatchingPredicate(predicate)) {
            if (!event) continue;
            const auto& identifier = event->calendarItemIdentifier();
            // Only what started before this year can have been fetched with the last one: the other
            // occurrences of a series seen at the seam need no key.
            const bool startedBefore = !event->startDate || *event->startDate < cursor.seconds;
            const auto earlier = startedBefore ? seen.find(identifier) : seen.end();
            // Whatever ends at the seam may be fetched again on its other side.
            const bool crosses = !event->endDate || *event->endDate >= next.seconds;
            if (earlier == seen.end() && !crosses) {
                visit(std::move(event));
                continue;
            }
            const auto key = liveOccurrenceKey(*event);
            if (crosses) crossing[identifier].insert(key);
            if (earlier != seen.end() && earlier->second.count(key) > 0) continue;
            visit(std::move(event));
        }
        seen = std::move(crossing);
        cursor = next;
        if (yearDone) yearDone();
    }
}

} // namespace morvane
