#pragma once

#include "MorvaneCore/Date.h"

#include <optional>
#include <string_view>

// Offsets of zones from UTC, from ICU's zone database.
namespace morvane::zones {

// Whether ICU knows the zone identifier (including links such as "US/Pacific").
bool isKnown(std::string_view zoneID);

// Seconds east of UTC of a zone at a moment; nothing for an unknown zone.
std::optional<int> secondsFromGMT(std::string_view zoneID, Date date);

// Seconds east of UTC of the machine's current zone at a moment.
int currentSecondsFromGMT(Date date);

} // namespace morvane::zones
