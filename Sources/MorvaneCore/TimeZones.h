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

// A floating time (a wall clock read as UTC) as a moment in the current zone, in two steps so
// that a time on the far side of a clock change lands right.
Date instantOfWallClock(Date wallClock);

// The wall clock of the current zone at a moment, read as UTC.
Date wallClockOfInstant(Date instant);

} // namespace morvane::zones
