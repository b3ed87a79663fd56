#include "MorvaneCore/Shared/DateFormatting.h"

#include "MorvanePlatform/CalendarDates.h"

#include <limits>
#include <map>
#include <memory>
#include <tuple>
#include <unicode/datefmt.h>
#include <unicode/gregocal.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>

namespace morvane::dates {
namespace {

constexpr std::string_view stampPattern = "yyyy-MM-dd-HHmmss";
constexpr std::string_view isoPattern = "yyyy-MM-dd'T'HH:mm:ss'Z'";
constexpr std::string_view posixLocale = "en_US_POSIX";

UDate toUDate(Date date) { return date.secondsSince1970() * 1000.0; }
Date fromUDate(UDate milliseconds) { return Date::fromSecondsSince1970(milliseconds / 1000.0); }

icu::UnicodeString unicode(std::string_view text) {
    return icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
}

std::string utf8(const icu::UnicodeString& text) {
    std::string result;
    text.toUTF8String(result);
    return result;
}

std::unique_ptr<icu::SimpleDateFormat> makeFormatter(std::string_view pattern, std::string_view localeID,
                                                     std::string_view zoneID) {
    UErrorCode status = U_ZERO_ERROR;
    auto formatter =
        std::make_unique<icu::SimpleDateFormat>(unicode(pattern), icu::Locale(std::string(localeID).c_str()), status);
    if (U_FAILURE(status)) return nullptr;
    // ICU counts days before 15 October 1582 in the Julian calendar; ISO 8601, and the database's
    // seconds, count them in the Gregorian one.
    std::unique_ptr<icu::Calendar> calendar(formatter->getCalendar()->clone());
    if (auto* gregorian = dynamic_cast<icu::GregorianCalendar*>(calendar.get())) {
        gregorian->setGregorianChange(-std::numeric_limits<double>::max(), status);
        if (U_SUCCESS(status)) formatter->adoptCalendar(calendar.release());
    }
    if (!zoneID.empty()) formatter->adoptTimeZone(icu::TimeZone::createTimeZone(unicode(zoneID)));
    return formatter;
}

std::optional<Date> parseStrictly(std::string_view text, std::string_view pattern, std::string_view zoneID) {
    auto formatter = makeFormatter(pattern, posixLocale, zoneID);
    if (!formatter) return std::nullopt;
    formatter->setLenient(false);
    const auto input = unicode(text);
    icu::ParsePosition position(0);
    const UDate parsed = formatter->parse(input, position);
    if (position.getErrorIndex() >= 0 || position.getIndex() != input.length()) return std::nullopt;
    // ICU skips leading blanks and forgives a missing trailing literal even when strict; the
    // text is only taken when it is exactly what the pattern writes for that moment.
    icu::UnicodeString written;
    formatter->format(parsed, written);
    if (written != input) return std::nullopt;
    return fromUDate(parsed);
}

// A Gregorian calendar in the current zone set to `date`; nothing if ICU can't make one.
std::unique_ptr<icu::GregorianCalendar> calendarAt(Date date) {
    UErrorCode status = U_ZERO_ERROR;
    auto calendar = std::make_unique<icu::GregorianCalendar>(status);
    calendar->setTime(toUDate(date), status);
    if (U_FAILURE(status)) return nullptr;
    return calendar;
}

// Building a formatter costs fifty times what formatting one date does, and a formatter can't be
// shared between threads: each thread keeps those it has built, by pattern, locale and zone, the
// current zone by its identifier at the time, so that a change of it is followed.
icu::SimpleDateFormat* cachedFormatter(std::string_view pattern, std::string_view localeID, std::string_view zoneID) {
    using Key = std::tuple<std::string, std::string, std::string>;
    thread_local std::map<Key, std::unique_ptr<icu::SimpleDateFormat>> formatters;
    std::string zone(zoneID);
    if (zone.empty()) {
        const std::unique_ptr<icu::TimeZone> current(icu::TimeZone::createDefault());
        icu::UnicodeString identifier;
        current->getID(identifier);
        zone = "current " + utf8(identifier);
    }
    Key key(pattern, localeID, std::move(zone));
    if (const auto found = formatters.find(key); found != formatters.end()) return found->second.get();
    auto formatter = makeFormatter(pattern, localeID, zoneID);
    if (!formatter) return nullptr;
    // Few patterns and zones are ever used; this only bounds a thread that would use many.
    if (formatters.size() >= 64) formatters.clear();
    return formatters.emplace(std::move(key), std::move(formatter)).first->second.get();
}

} // namespace

std::string format(Date date, std::string_view pattern, std::string_view localeID, std::string_view zoneID) {
    auto* formatter = cachedFormatter(pattern, localeID, zoneID);
    if (!formatter) return {};
    // A date without a four-digit year is shown at the nearest one that has one.
    if (!(date.seconds >= earliestRepresentable)) date.seconds = earliestRepresentable;
    if (!(date.seconds < latestRepresentable)) date.seconds = latestRepresentable - 1;
    icu::UnicodeString text;
    formatter->format(toUDate(date), text);
    return utf8(text);
}

std::string stamp(Date date) { return format(date, stampPattern, posixLocale); }

std::optional<Date> parseStamp(std::string_view text) { return parseStrictly(text, stampPattern, {}); }

std::string iso8601(Date date) { return format(date, isoPattern, posixLocale, "UTC"); }

std::optional<Date> parseISO8601(std::string_view text) {
    // Every index entry holds such a date, and ICU builds a formatter per call: indexes of a few
    // hundred entries took tens of milliseconds to read. The one fixed shape in UTC reads by
    // hand, with the same strictness, in the proleptic Gregorian calendar that the formatters
    // count in too.
    const auto digits = [&text](size_t at, size_t count) -> std::optional<int> {
        int value = 0;
        for (size_t i = at; i < at + count; ++i) {
            if (text[i] < '0' || text[i] > '9') return std::nullopt;
            value = value * 10 + (text[i] - '0');
        }
        return value;
    };
    if (text.size() != 20 || text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' ||
        text[16] != ':' || text[19] != 'Z')
        return std::nullopt;
    const auto year = digits(0, 4), month = digits(5, 2), day = digits(8, 2);
    const auto hour = digits(11, 2), minute = digits(14, 2), second = digits(17, 2);
    if (!year || !month || !day || !hour || !minute || !second) return std::nullopt;
    if (*year < 1) return std::nullopt;
    const bool leap = (*year % 4 == 0 && *year % 100 != 0) || *year % 400 == 0;
    static constexpr int monthDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (*month < 1 || *month > 12 || *day < 1 || *hour > 23 || *minute > 59 || *second > 59) return std::nullopt;
    if (*day > monthDays[*month - 1] + (*month == 2 && leap ? 1 : 0)) return std::nullopt;

    // Days since 1970-01-01 of a proleptic Gregorian date, counting years from March.
    const int y = *year - (*month <= 2 ? 1 : 0);
    const int era = y / 400;
    const int yearOfEra = y - era * 400;
    const int dayOfYear = (153 * (*month + (*month > 2 ? -3 : 9)) + 2) / 5 + *day - 1;
    const int dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    const auto days = static_cast<std::int64_t>(era) * 146097 + dayOfEra - 719468;
    return Date::fromSecondsSince1970(static_cast<double>(days * 86400 + *hour * 3600 + *minute * 60 + *second));
}

std::string longDate(Date date) {
    std::unique_ptr<icu::DateFormat> formatter(icu::DateFormat::createDateInstance(icu::DateFormat::kLong));
    if (!formatter) return {};
    icu::UnicodeString text;
    formatter->format(toUDate(date), text);
    return utf8(text);
}

std::string abbreviatedDateTime(Date date) {
    std::unique_ptr<icu::DateFormat> formatter(
        icu::DateFormat::createDateTimeInstance(icu::DateFormat::kMedium, icu::DateFormat::kShort));
    if (!formatter) return {};
    icu::UnicodeString text;
    formatter->format(toUDate(date), text);
    return utf8(text);
}

std::string weekKey(Date date) {
    auto calendar = calendarAt(date);
    if (!calendar) return {};
    calendar->setFirstDayOfWeek(UCAL_MONDAY);
    calendar->setMinimalDaysInFirstWeek(4);
    UErrorCode status = U_ZERO_ERROR;
    const auto year = calendar->get(UCAL_YEAR_WOY, status);
    const auto week = calendar->get(UCAL_WEEK_OF_YEAR, status);
    if (U_FAILURE(status)) return {};
    return std::to_string(year) + "-" + std::to_string(week);
}

std::string monthKey(Date date) {
    auto calendar = calendarAt(date);
    if (!calendar) return {};
    UErrorCode status = U_ZERO_ERROR;
    const auto year = calendar->get(UCAL_EXTENDED_YEAR, status);
    const auto month = calendar->get(UCAL_MONTH, status) + 1;
    if (U_FAILURE(status)) return {};
    return std::to_string(year) + "-" + std::to_string(month);
}

Date startOfDay(Date date) {
    auto calendar = calendarAt(date);
    if (!calendar) return date;
    // Where a zone skips midnight, ICU resolves the missing 00:00 to the first moment of the day.
    calendar->set(UCAL_HOUR_OF_DAY, 0);
    calendar->set(UCAL_MINUTE, 0);
    calendar->set(UCAL_SECOND, 0);
    calendar->set(UCAL_MILLISECOND, 0);
    UErrorCode status = U_ZERO_ERROR;
    const UDate start = calendar->getTime(status);
    return U_SUCCESS(status) ? fromUDate(start) : date;
}

Date addingYears(Date date, int years) { return {addingCalendarYears(date.seconds, years)}; }

} // namespace morvane::dates
