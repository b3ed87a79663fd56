#pragma once

#include "MorvaneCore/Shared/Date.h"

#include <optional>
#include <ostream>
#include <string>

namespace morvane::cli {

struct DateRange {
    Date from;
    Date to;
};

// Reads --from and --to as the commands over a date range take them (DATE of `morvane events`),
// `to` later than `from`. Nothing when they can't be read, after writing the usage error to `err`.
std::optional<DateRange> readDateRange(const std::string& from, const std::string& to, std::ostream& err);

} // namespace morvane::cli
