#pragma once

#include "MorvanePlatform/CalendarDates.h"

#include <compare>
#include <cstdint>

namespace morvane {

// An instant: seconds since 2001-01-01 00:00:00 UTC as a 64-bit float, the unit of the calendar
// database, carried without change. Floating times use the same type, holding their wall-clock
// reading as if it were UTC.
struct Date {
    static constexpr double secondsFrom1970To2001 = morvane::secondsFrom1970To2001;

    double seconds = 0;

    static Date now();
    static Date fromSecondsSince1970(double seconds) { return {seconds - secondsFrom1970To2001}; }

    double secondsSince1970() const { return seconds + secondsFrom1970To2001; }

    // The integer that identifies an occurrence: whole seconds since 2001, rounded to nearest
    // with halves away from zero. Out-of-range values saturate; NaN keys as 0.
    std::int64_t occurrenceKey() const;

    friend auto operator<=>(const Date&, const Date&) = default;
};

struct DateInterval {
    Date start;
    Date end;

    friend bool operator==(const DateInterval&, const DateInterval&) = default;
};

} // namespace morvane
