#pragma once

#include "MorvaneCore/Shared/Date.h"
#include "MorvanePlatform/EventKit.h"

#include <functional>
#include <memory>

namespace morvane {

// Calls `visit` with every event of the store's calendars that meets `span`, repeating events
// expanded into one object per occurrence, as the store fetches them. The store answers at most
// a year per fetch, so the span is walked one Gregorian year of the current zone at a time
// (`dates::addingYears`), or less where the store cuts a fetch shorter. An occurrence that
// meets two fetched years (a night across New Year, an event longer than a year) is visited
// once, in the first; two occurrences are the same when they have the same item identifier and
// occurrence key (`liveOccurrenceKey`). Within a year the order is the store's.
//
// `yearDone`, when given, is called after the last event of each fetched year: an occurrence of a
// later year starts at or after every one of an earlier year, so a caller that sorts each year
// by start and writes it out has the whole span in order, holding one year at a time.
//
// The span is first cut to the dates that can be represented (years 1 to 9999). A span longer
// than `longestSpanYears` is refused with RestoreError before anything is fetched: every year of
// it expands each repeating event again, so the work grows with the span's length, and a
// century is more than any calendar is looked at over. Otherwise throws what the store throws,
// after `visit` has seen the years before. Blocks while the store answers, on the calling thread.
inline constexpr int longestSpanYears = 100;
void fetchYearByYear(EKEventStore& store, DateInterval span, const std::function<void(std::shared_ptr<EKEvent>)>& visit,
                     const std::function<void()>& yearDone = {});

// Whether `span`, cut to the dates that can be represented, is no longer than `longestSpanYears`.
bool isFetchable(DateInterval span);

} // namespace morvane
