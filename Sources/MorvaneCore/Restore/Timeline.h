#pragma once

#include "MorvaneCore/EventModel/EventSnapshot.h"
#include "MorvaneCore/Shared/Date.h"
#include "MorvaneCore/Shared/Json.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace morvane {

// One row of the timeline: an occurrence (or a single event) as the backup and the live
// calendars hold it together. Its `id` is the match key, which `restoreAsSingleEvent` takes.
struct TimelineItem {
    enum class State : std::uint8_t { unchanged, deleted, changed, added };

    std::string id;
    // Trimmed of blanks, but not of line ends.
    std::string title;
    // True instants, floating times as they fall in the machine's zone today.
    Date start;
    Date end;
    bool isAllDay = false;
    std::optional<std::string> location;
    std::string calendarName;
    std::optional<std::string> calendarID;
    std::optional<std::string> colorHex;
    State state = State::unchanged;
    // Where the item was in the backup, when it has moved since.
    std::optional<Date> previousStart;
    std::optional<Date> previousEnd;
    std::vector<FieldChange> changes;
    // The backup event's row when the whole event can be restored.
    std::optional<std::int64_t> restoreID;
    bool isRepeating = false;

    bool moved() const { return previousStart.has_value(); }

    // The fields under their own names, dates in ISO 8601 (UTC), absent fields as null, the state
    // by its name and each change as {"field", "old", "new"}.
    json::Ordered json() const;

    static std::string_view name(State state);

    friend bool operator==(const TimelineItem&, const TimelineItem&) = default;
};

} // namespace morvane
