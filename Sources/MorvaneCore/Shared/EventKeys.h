#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

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

// Puts a series' occurrence keys in the form comparisons walk in step: ascending, each once. Keys
// read in order, as most are, are only checked.
inline void sortOccurrenceKeys(std::vector<std::int64_t>& keys) {
    if (!std::is_sorted(keys.begin(), keys.end())) std::sort(keys.begin(), keys.end());
    keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
}

} // namespace morvane
