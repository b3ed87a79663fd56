#pragma once

#include "MorvaneCore/Backups/BackupSource.h"
#include "MorvaneCore/Comparison/Differ.h"
#include "MorvaneCore/Database/BackupStore.h"
#include "MorvaneCore/LiveCalendars/CurrentEvents.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace morvane {

// One backup compared with the calendars as they are now: what is gone, what differs, and which
// occurrences of the repeating events were deleted or edited since. Made by RestoreEngine's
// comparisons; `morvane compare` prints it.
struct Comparison {
    BackupSource source;
    // Where the backup's data was read from, for display.
    std::string databasePath;
    MissingReport missing;
    ChangeReport changes;
    // Every event of the backup, detached occurrences included.
    std::int64_t backupEventCount = 0;
    // Whether the backup's occurrence cache could be read; without it deleted plain occurrences
    // can't be told.
    bool hasOccurrenceCache = false;

    // Both Differ operations over events and occurrences already read.
    static Comparison of(const BackupSource& source, std::string databasePath, const std::vector<BackupEvent>& events,
                         const std::optional<OccurrenceSet>& occurrences, CurrentEventSource& current);

    // As text, lines ending in line feeds: a heading with the backup and the counts, then the
    // sections "Missing", "Restored before", "Changed" and "Occurrences", those that have
    // anything; every event carries its rowID in brackets.
    std::string asText() const;
    // As one pretty-printed JSON object, keys in the order of the form.
    std::string asJSON() const;
};

} // namespace morvane
