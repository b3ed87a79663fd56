#pragma once

#include "MorvanePlatform/EventKit.h"
#include "Support/Pinned.h"

#include <memory>
#include <optional>
#include <string>

namespace morvane::testing {

// Saves a timed event in `calendar` (the store's default when absent), a series when `rule` is
// given, zoned in the pinned zone unless told otherwise (absent is floating); commits it unless
// `commit` is false.
std::shared_ptr<EKEvent> saveEvent(EKEventStore& store, const std::string& title, double start, double end,
                                   std::optional<std::string> zone = std::string(pinnedZone),
                                   std::optional<EKRecurrenceRule> rule = std::nullopt,
                                   std::shared_ptr<const EKCalendar> calendar = nullptr, bool commit = true);

// A rule of `frequency` that ends after `count` occurrences.
inline EKRecurrenceRule repeating(EKRecurrenceFrequency frequency, int count) {
    return {.frequency = frequency, .recurrenceEnd = EKRecurrenceEnd::recurrenceEndWithOccurrenceCount(count)};
}

// The occurrence of `series` that starts at `start`; fails the test and gives nothing when there is
// none.
std::shared_ptr<EKEvent> occurrenceAt(EKEventStore& store, const EKEvent& series, double start);

} // namespace morvane::testing
