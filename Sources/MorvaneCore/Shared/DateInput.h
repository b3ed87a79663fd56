#pragma once

#include "MorvaneCore/Shared/Date.h"

#include <optional>
#include <string_view>

// Dates as a user types them on a command line.
namespace morvane::dates {

// "YYYY-MM-DD", the first moment of that day in the current zone, or an ISO 8601 date-time
// "YYYY-MM-DDTHH:MM:SS" with an optional fraction of any length and "Z" or an offset "+HH:MM"
// ("+HHMM" too). Anything else, or a field out of its range, gives nothing. Never throws.
std::optional<Date> parseDayOrDateTime(std::string_view text);

} // namespace morvane::dates
