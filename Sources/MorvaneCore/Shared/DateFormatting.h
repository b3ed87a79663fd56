#pragma once

#include "MorvaneCore/Shared/Date.h"

#include <optional>
#include <string>
#include <string_view>

// Date texts, all through ICU. "Current zone" is ICU's default zone, which follows TZ and the
// machine's settings; "user's locale" is ICU's default locale, which follows the environment.
// Formatters are built per thread (and `format` keeps those it built), so every function may run
// on any thread.
namespace morvane::dates {

// A stamp: pattern yyyy-MM-dd-HHmmss, locale en_US_POSIX, the current zone. Whole seconds, so
// two moments within one second, or an hour apart around a clock change, may share a stamp.
std::string stamp(Date date);

// Reads a stamp as local wall-clock time in the current zone. Strict: the whole text must be
// the pattern, with valid field values; anything else gives nothing.
std::optional<Date> parseStamp(std::string_view text);

// ISO 8601 in UTC with whole seconds, e.g. "2024-03-01T09:15:00Z".
std::string iso8601(Date date);
std::optional<Date> parseISO8601(std::string_view text);

// The date in the abbreviated date style and the shortened time style of the user's locale,
// in the current zone, e.g. "Mar 1, 2024, 10:15 AM" in en_US.
std::string abbreviatedDateTime(Date date);

// The date alone in the long date style of the user's locale, in the current zone, e.g.
// "March 1, 2024" in en_US.
std::string longDate(Date date);

// Formats with an explicit pattern and locale; `zoneID` names an ICU zone, or is empty for the
// current zone. A date before year 1 or after year 9999 is formatted as the first or last second
// of that range, as are the texts built on this one.
std::string format(Date date, std::string_view pattern, std::string_view localeID, std::string_view zoneID = {});

// Calendar arithmetic in the Gregorian calendar of the current zone, as the platform's calendar
// with the machine's defaults does it.

// Keys that two dates share when they fall in one calendar week, or one calendar month, of the
// current zone: "{year of the week}-{week}" and "{year}-{month}". Weeks follow one fixed rule,
// ISO 8601's (they begin on Monday, and a year's first week is the one holding its first
// Thursday), whatever the locale, so that keys agree on every machine; around New Year a week
// belongs to one year only ("2025-1" holds 2024-12-30).
std::string weekKey(Date date);
std::string monthKey(Date date);

// The first moment of the day of `date`.
Date startOfDay(Date date);
// The same wall-clock time `years` years away (29 February lands on 28 February); the moment may
// differ from `date` by whole years plus the change of the zone's offset. The event store bounds
// a fetch's span by the same rule, so a span of one year here is never cut there.
Date addingYears(Date date, int years);

} // namespace morvane::dates
