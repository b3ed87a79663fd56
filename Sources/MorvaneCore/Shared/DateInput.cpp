#include "MorvaneCore/Shared/DateInput.h"

#include "MorvaneCore/Shared/DateFormatting.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <string>
#include <unicode/gregocal.h>

namespace morvane::dates {
namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// A field of exactly `text.size()` ASCII digits.
std::optional<int> field(std::string_view text) {
    if (text.empty() || !std::all_of(text.begin(), text.end(), isDigit)) return std::nullopt;
    int value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

std::optional<Date> startOfDay(std::string_view text) {
    if (text.size() != 10 || text[4] != '-' || text[7] != '-') return std::nullopt;
    const auto year = field(text.substr(0, 4));
    const auto month = field(text.substr(5, 2));
    const auto day = field(text.substr(8, 2));
    if (!year || !month || !day) return std::nullopt;
    UErrorCode status = U_ZERO_ERROR;
    icu::GregorianCalendar calendar(status);
    // Strict, so that 30 February is refused rather than read as 1 March.
    calendar.setLenient(false);
    calendar.clear();
    calendar.set(*year, *month - 1, *day, 0, 0, 0);
    const UDate millis = calendar.getTime(status);
    if (U_FAILURE(status)) return std::nullopt;
    return Date::fromSecondsSince1970(millis / 1000.0);
}

// The digits after the decimal point. A date holds less than a microsecond's precision at
// today's distance from 2001, so digits past the eighteenth can't change it and are only checked.
std::optional<double> fraction(std::string_view digits) {
    if (digits.empty() || !std::all_of(digits.begin(), digits.end(), isDigit)) return std::nullopt;
    const auto kept = digits.substr(0, 18);
    std::uint64_t value = 0;
    std::from_chars(kept.data(), kept.data() + kept.size(), value);
    double scale = 1;
    for (size_t i = 0; i < kept.size(); ++i)
        scale *= 10;
    return static_cast<double>(value) / scale;
}

// "Z", "+HH:MM" or "+HHMM" (or "-"): seconds east of UTC.
std::optional<int> offset(std::string_view zone) {
    if (zone == "Z") return 0;
    if (zone.size() < 5 || (zone[0] != '+' && zone[0] != '-')) return std::nullopt;
    const auto rest = zone.substr(1);
    const bool colon = rest.size() == 5 && rest[2] == ':';
    if (rest.size() != 4 && !colon) return std::nullopt;
    const auto hours = field(rest.substr(0, 2));
    const auto minutes = field(rest.substr(colon ? 3 : 2));
    if (!hours || !minutes || *hours > 23 || *minutes > 59) return std::nullopt;
    return (zone[0] == '-' ? -1 : 1) * (*hours * 3600 + *minutes * 60);
}

} // namespace

std::optional<Date> parseDayOrDateTime(std::string_view text) {
    if (text.size() == 10) return startOfDay(text);
    if (text.size() < 20 || text[10] != 'T') return std::nullopt;
    // The strict reader checks the form and every field's range.
    auto moment = parseISO8601(std::string(text.substr(0, 19)) + "Z");
    if (!moment) return std::nullopt;

    auto rest = text.substr(19);
    if (rest.starts_with('.')) {
        const auto digitsEnd = std::find_if_not(rest.begin() + 1, rest.end(), isDigit);
        const auto seconds = fraction(rest.substr(1, static_cast<size_t>(digitsEnd - rest.begin()) - 1));
        if (!seconds) return std::nullopt;
        moment->seconds += *seconds;
        rest = rest.substr(static_cast<size_t>(digitsEnd - rest.begin()));
    }
    const auto east = offset(rest);
    if (!east) return std::nullopt;
    moment->seconds -= *east;
    return moment;
}

} // namespace morvane::dates
