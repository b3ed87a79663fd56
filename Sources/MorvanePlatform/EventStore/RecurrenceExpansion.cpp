#include "MorvanePlatform/EventStore/RecurrenceExpansion.h"

#include "MorvanePlatform/CalendarColumns.h"
#include "MorvanePlatform/CalendarDates.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>
#include <libical/ical.h>
#include <limits>
#include <memory>
#include <mutex>

namespace morvane::recurrence {
namespace {

// A daily rule over a century is about 37,000 steps; a rule that never matches gives up here.
constexpr int stepLimit = 1'000'000;

struct IteratorFree {
    void operator()(icalrecur_iterator* iterator) const { icalrecur_iterator_free(iterator); }
};
using Iterator = std::unique_ptr<icalrecur_iterator, IteratorFree>;

bool inRange(int value, int low, int high) { return value != 0 && std::abs(value) >= low && std::abs(value) <= high; }

void appendList(std::string& text, const char* key, const std::optional<std::vector<int>>& values, int low, int high,
                bool signedValues) {
    if (!values) return;
    std::string items;
    for (const int value : *values) {
        if (!inRange(value, low, high) || (!signedValues && value < 0)) continue;
        items += (items.empty() ? "" : ",") + std::to_string(value);
    }
    if (!items.empty()) text += std::string(";") + key + "=" + items;
}

// Whole seconds since 1970, held to years 1 to 9999 so that a hostile date can't overflow.
time_t unixSeconds(double wallClock) {
    const double seconds = std::floor(wallClock + secondsFrom1970To2001);
    if (!(seconds > -62135596800.0)) return -62135596800;
    if (!(seconds < 253402300799.0)) return 253402300799;
    return static_cast<time_t>(seconds);
}

icaltimetype wallTime(double wallClock) {
    const auto seconds = unixSeconds(wallClock);
    return icaltime_from_timet_with_zone(seconds, 0, nullptr);
}

double wallSeconds(const icaltimetype& time) {
    return static_cast<double>(icaltime_as_timet(time)) - secondsFrom1970To2001;
}

std::string untilText(double wallClock) {
    const auto seconds = unixSeconds(wallClock);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char buffer[32];
    std::strftime(buffer, sizeof buffer, "%Y%m%dT%H%M%S", &parts);
    return buffer;
}

void quietLibical() {
    static std::once_flag once;
    std::call_once(once, [] { icalerror_set_errors_are_fatal(0); });
}

} // namespace

bool isValid(const EKRecurrenceRule& rule) {
    if (rule.interval < 1) return false;
    if (rule.daysOfTheWeek) {
        for (const auto& day : *rule.daysOfTheWeek) {
            if (day.dayOfTheWeek < 1 || day.dayOfTheWeek > 7 || std::abs(day.weekNumber) > 53) return false;
        }
    }
    auto allIn = [](const std::optional<std::vector<int>>& values, int low, int high, bool signedValues) {
        if (!values) return true;
        for (const int value : *values) {
            if (!inRange(value, low, high) || (!signedValues && value < 0)) return false;
        }
        return true;
    };
    if (rule.recurrenceEnd && rule.recurrenceEnd->occurrenceCount < 0) return false;
    return allIn(rule.daysOfTheMonth, 1, 31, true) && allIn(rule.monthsOfTheYear, 1, 12, false) &&
           allIn(rule.weeksOfTheYear, 1, 53, true) && allIn(rule.daysOfTheYear, 1, 366, true) &&
           allIn(rule.setPositions, 1, 366, true);
}

std::string rruleText(const EKRecurrenceRule& rule, std::optional<double> untilWallClock) {
    static constexpr const char* frequencies[] = {"DAILY", "WEEKLY", "MONTHLY", "YEARLY"};
    const auto frequency = static_cast<int>(rule.frequency);
    std::string text = std::string("FREQ=") + frequencies[frequency >= 0 && frequency <= 3 ? frequency : 0];
    text += ";INTERVAL=" + std::to_string(std::max(rule.interval, 1));
    if (rule.daysOfTheWeek) {
        std::string days;
        for (const auto& day : *rule.daysOfTheWeek) {
            if (day.dayOfTheWeek < 1 || day.dayOfTheWeek > 7 || std::abs(day.weekNumber) > 53) continue;
            days += days.empty() ? "" : ",";
            if (day.weekNumber != 0) days += std::to_string(day.weekNumber);
            days += calendarColumns::weekdayCode(day.dayOfTheWeek);
        }
        if (!days.empty()) text += ";BYDAY=" + days;
    }
    appendList(text, "BYMONTHDAY", rule.daysOfTheMonth, 1, 31, true);
    appendList(text, "BYMONTH", rule.monthsOfTheYear, 1, 12, false);
    appendList(text, "BYWEEKNO", rule.weeksOfTheYear, 1, 53, true);
    appendList(text, "BYYEARDAY", rule.daysOfTheYear, 1, 366, true);
    appendList(text, "BYSETPOS", rule.setPositions, 1, 366, true);
    if (rule.recurrenceEnd && rule.recurrenceEnd->occurrenceCount > 0) {
        text += ";COUNT=" + std::to_string(rule.recurrenceEnd->occurrenceCount);
    } else if (untilWallClock) {
        text += ";UNTIL=" + untilText(*untilWallClock);
    }
    return text;
}

void expandWithLibical(const EKRecurrenceRule& rule, double startWallClock, std::optional<double> untilWallClock,
                       double from, double to, const std::function<bool(double)>& visit) {
    quietLibical();
    // libical counts whole seconds; a fraction of the series' start carries over to each occurrence.
    const double fraction = startWallClock - std::floor(startWallClock);
    const auto recurrence = icalrecurrencetype_from_string(rruleText(rule, untilWallClock).c_str());
    if (recurrence.freq == ICAL_NO_RECURRENCE) {
        if (startWallClock >= from && startWallClock < to) visit(startWallClock);
        return;
    }
    Iterator iterator(icalrecur_iterator_new(recurrence, wallTime(startWallClock)));
    if (!iterator) {
        if (startWallClock >= from && startWallClock < to) visit(startWallClock);
        return;
    }
    // Skipping ahead is only possible without a count, which needs every occurrence counted.
    if (recurrence.count == 0 && from > startWallClock + 86400)
        icalrecur_iterator_set_start(iterator.get(), wallTime(from));

    for (int step = 0; step < stepLimit; ++step) {
        const auto next = icalrecur_iterator_next(iterator.get());
        if (icaltime_is_null_time(next)) return;
        const double wallClock = wallSeconds(next) + fraction;
        if (wallClock >= to) return;
        if (wallClock < from) continue;
        if (!visit(wallClock)) return;
    }
}

namespace {

constexpr double secondsPerDay = 86400;
// Days from 1970-01-01 to 2001-01-01, a Monday.
constexpr std::int64_t daysFrom1970To2001 = 11323;

template <typename List> bool hasItems(const List& list) { return list && !list->empty(); }

std::chrono::year_month_day civilDate(std::int64_t daysSince2001) {
    return std::chrono::year_month_day(std::chrono::sys_days(std::chrono::days(daysSince2001 + daysFrom1970To2001)));
}

std::int64_t daysSince2001(const std::chrono::year_month_day& date) {
    return std::chrono::sys_days(date).time_since_epoch().count() - daysFrom1970To2001;
}

} // namespace

bool expandPlainly(const EKRecurrenceRule& rule, double startWallClock, std::optional<double> untilWallClock,
                   double from, double to, const std::function<bool(double)>& visit) {
    if (hasItems(rule.daysOfTheMonth) || hasItems(rule.monthsOfTheYear) || hasItems(rule.weeksOfTheYear) ||
        hasItems(rule.daysOfTheYear) || hasItems(rule.setPositions)) {
        return false;
    }
    const bool byDay = hasItems(rule.daysOfTheWeek);
    if (byDay && rule.frequency != EKRecurrenceFrequency::weekly) return false;
    std::vector<std::int64_t> weekdayOffsets; // days after Monday
    if (byDay) {
        for (const auto& day : *rule.daysOfTheWeek) {
            if (day.weekNumber != 0 || day.dayOfTheWeek < 1 || day.dayOfTheWeek > 7) return false;
            weekdayOffsets.push_back((day.dayOfTheWeek + 5) % 7);
        }
    }
    std::sort(weekdayOffsets.begin(), weekdayOffsets.end());
    weekdayOffsets.erase(std::unique(weekdayOffsets.begin(), weekdayOffsets.end()), weekdayOffsets.end());
    // Out of the range of the calendar arithmetic below: libical decides.
    if (!(std::abs(startWallClock) < 1e11) || !(std::abs(from) < 1e11)) return false;

    const std::int64_t count = rule.recurrenceEnd ? std::max(rule.recurrenceEnd->occurrenceCount, 0) : 0;
    const double until = count == 0 && untilWallClock ? *untilWallClock : std::numeric_limits<double>::infinity();
    const std::int64_t interval = std::max(rule.interval, 1);
    const auto startDay = static_cast<std::int64_t>(std::floor(startWallClock / secondsPerDay));
    const double timeOfDay = startWallClock - static_cast<double>(startDay) * secondsPerDay;
    std::int64_t produced = 0;
    // Offers one occurrence; false once the series or the caller is done.
    auto offer = [&](double wallClock) {
        if ((count > 0 && produced >= count) || wallClock > until || wallClock >= to) return false;
        ++produced;
        return wallClock < from || visit(wallClock);
    };

    if (rule.frequency == EKRecurrenceFrequency::daily || (rule.frequency == EKRecurrenceFrequency::weekly && !byDay)) {
        // Every step makes one occurrence, so the count allows skipping ahead too.
        const double step =
            static_cast<double>(interval * (rule.frequency == EKRecurrenceFrequency::daily ? 1 : 7)) * secondsPerDay;
        const auto skipped = std::max<std::int64_t>(0, static_cast<std::int64_t>((from - startWallClock) / step) - 1);
        produced = skipped;
        for (std::int64_t k = skipped, steps = 0; steps < stepLimit; ++k, ++steps) {
            if (!offer(startWallClock + static_cast<double>(k) * step)) return true;
        }
        return true;
    }
    if (rule.frequency == EKRecurrenceFrequency::weekly) {
        const std::int64_t firstMonday = startDay - ((startDay % 7) + 7) % 7;
        const std::int64_t weekSpan = interval * 7;
        std::int64_t week = 0;
        if (count == 0 && from > startWallClock) {
            week = std::max<std::int64_t>(
                0, static_cast<std::int64_t>((from / secondsPerDay - static_cast<double>(firstMonday)) /
                                             static_cast<double>(weekSpan)) -
                       1);
        }
        for (std::int64_t steps = 0; steps < stepLimit; ++week, ++steps) {
            for (const auto offset : weekdayOffsets) {
                const double wallClock =
                    static_cast<double>(firstMonday + week * weekSpan + offset) * secondsPerDay + timeOfDay;
                if (wallClock < startWallClock) continue;
                if (!offer(wallClock)) return true;
            }
        }
        return true;
    }
    // Monthly on the start's day of the month, yearly on its date; a month without that day has
    // no occurrence.
    const auto first = civilDate(startDay);
    std::int64_t step = 0;
    if (count == 0 && from > startWallClock) {
        // Straight to the period before the one that holds `from`, as for weeks above.
        const auto target = civilDate(static_cast<std::int64_t>(std::floor(from / secondsPerDay)));
        const std::int64_t months = (static_cast<int>(target.year()) - static_cast<int>(first.year())) * 12 +
                                    (static_cast<std::int64_t>(static_cast<unsigned>(target.month())) -
                                     static_cast<std::int64_t>(static_cast<unsigned>(first.month())));
        const std::int64_t periods =
            (rule.frequency == EKRecurrenceFrequency::monthly ? months : months / 12) / interval;
        step = std::max<std::int64_t>(0, periods - 1);
    }
    for (std::int64_t steps = 0; steps < stepLimit; ++step, ++steps) {
        std::chrono::year_month_day date = first;
        if (rule.frequency == EKRecurrenceFrequency::monthly) {
            const auto month =
                std::chrono::year_month(first.year(), first.month()) + std::chrono::months(step * interval);
            date = month / first.day();
        } else {
            date = (first.year() + std::chrono::years(step * interval)) / first.month() / first.day();
        }
        if (!date.ok()) continue;
        if (!offer(static_cast<double>(daysSince2001(date)) * secondsPerDay + timeOfDay)) return true;
    }
    return true;
}

void expand(const EKRecurrenceRule& rule, double startWallClock, std::optional<double> untilWallClock, double from,
            double to, const std::function<bool(double)>& visit) {
    if (expandPlainly(rule, startWallClock, untilWallClock, from, to, visit)) return;
    expandWithLibical(rule, startWallClock, untilWallClock, from, to, visit);
}

} // namespace morvane::recurrence
