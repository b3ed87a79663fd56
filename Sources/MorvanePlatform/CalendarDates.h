#pragma once

namespace morvane {

// Dates of the calendar database: seconds since 2001-01-01 00:00:00 UTC. This many seconds lie
// between 1970-01-01 and then, both UTC.
inline constexpr double secondsFrom1970To2001 = 978307200.0;

// 0001-01-01 and 10000-01-01, both 00:00 UTC: the dates with a four-digit year, the ones that
// can be represented, lie from the first up to before the second.
inline constexpr double earliestRepresentable = -63113904000.0;
inline constexpr double latestRepresentable = 252423993600.0;

// The same wall-clock time `years` calendar years from `moment`, in the machine's current zone
// (ICU's default, which any thread may read; changing it while others read is not safe).
// 29 February lands on 28 February in a common year. The result may differ from `moment` by whole
// years plus the change of the zone's offset.
double addingCalendarYears(double moment, int years);

} // namespace morvane
