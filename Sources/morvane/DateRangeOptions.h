#pragma once

#include "MorvaneCore/Shared/Date.h"

#include <optional>
#include <ostream>
#include <string>
#include <unordered_map>

namespace morvane::cli {

struct DateRange {
    Date from;
    Date to;
};

// Reads --from and --to as the commands over a date range take them (DATE of `morvane events`),
// `to` later than `from`. Nothing when they can't be read, after writing the usage error to `err`.
std::optional<DateRange> readDateRange(const std::string& from, const std::string& to, std::ostream& err);

// The text of a time range in the local zone: "start \u2013 end", or the day alone when all-day.
// A month of a large store lists tens of thousands of items on a few thousand distinct times, and
// each formatting goes through the zone's calendar: every time is formatted once.
class RangeTexts {
public:
    std::string operator()(Date start, Date end, bool allDay);

private:
    const std::string& formatted(Date date, bool allDay);

    std::unordered_map<double, std::string> times_;
    std::unordered_map<double, std::string> allDays_;
};

} // namespace morvane::cli
