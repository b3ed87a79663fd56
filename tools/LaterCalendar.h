#pragma once

#include <cstdint>
#include <filesystem>

namespace morvane::testing {

// What a later state of a calendar changed.
struct LaterState {
    std::int64_t deletedEvents = 0;
    std::int64_t changedEvents = 0;
    std::int64_t deletedOccurrences = 0;
    std::int64_t editedOccurrences = 0;
};

// Takes a calendar database (a generated one, say) through a user's edits, as the local event
// store makes them, and keeps the state before the last of them as a backup:
//
// 1. through the store over `database`: `count` occurrences of repeating events are edited
//    (retitled and moved by an hour), which also brings the store's occurrence cache up to date;
// 2. that state is written to `backup` (a new file, a database on its own);
// 3. through the store again: `count` events are deleted, `count` single events retitled,
//    `count` more occurrences deleted, and the occurrences edited in step 1 retitled again.
//
// Occurrences are picked well inside the store's occurrence window, and events only in writable
// calendars. The same seed picks the same events. Throws what the store throws.
LaterState deriveThroughStore(const std::filesystem::path& database, const std::filesystem::path& backup,
                              std::int64_t count, std::uint64_t seed);

// The same kind of later state written straight into the file, for sizes where the store would
// take too long: `fraction` of the events deleted with their rows, as many single events
// retitled, and `fraction` of the cached occurrences of repeating events deleted (the cache row
// removed, an exception date added). Occurrences aren't edited. The cache stays as the store
// would leave it for what changed; its window doesn't move.
LaterState deriveDirectly(const std::filesystem::path& database, double fraction, std::uint64_t seed);

} // namespace morvane::testing
