#include "MorvanePlatform/RecurrenceExpansion.h"

#include <cmath>
#include <ctime>
#include <libical/ical.h>
#include <memory>
#include <mutex>

namespace morvane::recurrence {
namespace {

constexpr double secondsFrom1970To2001 = 978307200.0;
// A daily rule over a century is about 37,000 steps; a rule that never matches gives up here.
constexpr int stepLimit = 1'000'000;

constexpr const char* dayCodes[] = {"SU", "MO", "TU", "WE", "TH", "FR", "SA"};

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
            days += dayCodes[day.dayOfTheWeek - 1];
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

void expand(const EKRecurrenceRule& rule, double startWallClock, std::optional<double> untilWallClock, double from,
            double to, const std::function<bool(double)>& visit) {
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

} // namespace morvane::recurrence
