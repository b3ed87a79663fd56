#pragma once

#include "MorvaneCore/Shared/Date.h"
#include "MorvanePlatform/EventKit.h"

#include <filesystem>

namespace morvane::testing {

// Captures `store` as of `now` and writes the document's file form to `file` (folders above it
// are created), as an event store restore point is stored: for tests that open ".calevents"
// files. Throws the errors of writing.
void writeEventStoreSnapshot(EKEventStore& store, const std::filesystem::path& file, Date now);

} // namespace morvane::testing
