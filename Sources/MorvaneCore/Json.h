#pragma once

#include "MorvaneCore/Date.h"

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

// The one JSON vocabulary of the system. Objects keep their keys sorted, which the stored formats
// rely on; every writer goes through `dump` so that invalid UTF-8 never aborts a write.
namespace morvane::json {

using Value = nlohmann::json;

// ISO 8601 in UTC with whole seconds, or null.
Value isoDate(std::optional<Date> date);

// Pretty-printed with two-space indentation when `pretty`, else compact.
std::string dump(const Value& value, bool pretty);

} // namespace morvane::json
