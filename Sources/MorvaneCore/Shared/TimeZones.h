#pragma once

#include "MorvaneCore/Shared/Date.h"

#include <memory>
#include <optional>
#include <string_view>

// Offsets of zones from UTC, from ICU's zone database.
namespace morvane::zones {

// One zone, looked up once and asked many times. Not for sharing between threads.
class Zone {
public:
    // The zone of an identifier ICU knows (links such as "US/Pacific" included); nothing else.
    static std::optional<Zone> named(std::string_view zoneID);
    // The machine's current zone, as it is now.
    static Zone current();

    Zone(Zone&&) noexcept;
    Zone& operator=(Zone&&) noexcept;
    ~Zone();

    // Seconds east of UTC at a moment.
    int secondsFromGMT(Date date) const;

private:
    struct Data; // ICU's zone
    explicit Zone(std::unique_ptr<Data> data);
    std::unique_ptr<Data> data_;
};

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
