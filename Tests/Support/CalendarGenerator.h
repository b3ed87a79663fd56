#pragma once

#include "Support/CalendarDatabaseBuilder.h"

#include <cstdint>
#include <filesystem>

namespace morvane::testing {

// What a generated calendar database holds.
struct GeneratedCalendar {
    std::int64_t events = 0;      // items that are not detached occurrences
    std::int64_t series = 0;      // of which repeating
    std::int64_t detached = 0;    // detached occurrence items
    std::int64_t exceptions = 0;  // exception dates
    std::int64_t occurrences = 0; // occurrence cache rows
};

// Fills a database like a real user's: `events` events over the ten years from 2016, a fifth of
// them repeating (daily, weekly, monthly or yearly, some with an end) with exception dates and
// detached occurrences, alarms and locations, in several stores among which a subscribed and a
// birthday calendar, and an occurrence cache for 2025. The same seed gives the same database.
//
// Occurrences are those the local event store generates from each rule (weekly ones on Monday and
// Wednesday, in the event's zone), so exception dates and edited occurrences stand on real
// occurrences and a series restored from the database comes back with them.
GeneratedCalendar generateCalendar(CalendarDatabaseBuilder& builder, std::int64_t events, std::uint64_t seed);

// The same written to a new file at `path` (the folders above it made) and closed, with its live
// log kept beside it when `keepLog` and the journal is a write-ahead log.
GeneratedCalendar
generateCalendarFile(const std::filesystem::path& path, std::int64_t events, std::uint64_t seed,
                     CalendarDatabaseBuilder::Journal journal = CalendarDatabaseBuilder::Journal::rollback,
                     bool keepLog = false);

} // namespace morvane::testing
