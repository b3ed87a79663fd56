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
// Throws what the store throws, after `visit` has seen the years before. Blocks while the store
// answers, on the calling thread.
void fetchYearByYear(EKEventStore& store, DateInterval span,
                     const std::function<void(std::shared_ptr<EKEvent>)>& visit);

} // namespace morvane
