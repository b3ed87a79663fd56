#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace morvane {

// The marker between a series' identifier and an occurrence's key in a detached occurrence's
// identifier: "{series key}/RID={occurrence key}".
inline constexpr std::string_view occurrenceMarker = "/RID=";

// An identifier cut before the first "/RID=": a detached occurrence and its master share it.
inline std::string_view seriesKey(std::string_view identifier) {
    return identifier.substr(0, identifier.find(occurrenceMarker));
}

// The identifier of the detached occurrence of a series at an occurrence key.
inline std::string occurrenceIdentifier(std::string_view seriesKey, std::int64_t occurrenceKey) {
    return std::string(seriesKey) + std::string(occurrenceMarker) + std::to_string(occurrenceKey);
}

} // namespace morvane
