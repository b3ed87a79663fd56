#pragma once

#include "MorvaneCore/Date.h"

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

namespace morvane {

// The kinds of account that own calendars, with the value the database's Store.type holds.
enum class StoreType : std::int64_t {
    local = 0,
    exchange = 1,
    calDAV = 2,
    subscribed = 4,
    birthdays = 5,
    reminders = 6,
};

// The StoreType of a stored value; nothing for 3 and every other unknown value.
std::optional<StoreType> storeType(std::int64_t value);

// The stores whose events a restore may want: local, Exchange and CalDAV, in that order.
inline constexpr std::array<StoreType, 3> restorableStoreTypes = {StoreType::local, StoreType::exchange,
                                                                  StoreType::calDAV};

// One calendar as it stood in a backup.
struct BackupCalendar {
    std::int64_t rowID = 0;
    std::optional<std::string> uuid;
    std::string title = "?";
    std::optional<std::string> externalID;
    std::string storeName = "?";
    // As stored, -1 where NULL; a plain integer so that unknown kinds survive.
    std::int64_t storeType = -1;
    // As stored, verbatim.
    std::optional<std::string> colorHex;

    // "{name} ({store})", with the system's placeholder names and the local store spelt out.
    std::string displayName() const;

    friend bool operator==(const BackupCalendar&, const BackupCalendar&) = default;
};

// Every occurrence moment a store knows of, per series, within the span where it is complete.
struct OccurrenceSet {
    DateInterval window;
    // By series key (a series' external identifier): occurrence keys.
    std::map<std::string, std::set<std::int64_t>> dates;

    friend bool operator==(const OccurrenceSet&, const OccurrenceSet&) = default;
};

} // namespace morvane
