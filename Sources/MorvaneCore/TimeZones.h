#pragma once

#include "MorvaneCore/Date.h"

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

// Whether ICU knows the zone identifier.
bool isKnown(std::string_view zoneID);

} // namespace morvane::zones
