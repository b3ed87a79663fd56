#pragma once

#include <ctime>

namespace morvane::testing {

// Seconds since 2001-01-01 00:00:00 UTC of a UTC calendar time, for writing test dates plainly.
inline double utc(int year, int month, int day, int hour = 0, int minute = 0) {
    std::tm parts{};
    parts.tm_year = year - 1900;
    parts.tm_mon = month - 1;
    parts.tm_mday = day;
    parts.tm_hour = hour;
    parts.tm_min = minute;
    return static_cast<double>(timegm(&parts)) - 978307200.0;
}

} // namespace morvane::testing
