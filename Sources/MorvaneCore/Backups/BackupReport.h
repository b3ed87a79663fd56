#pragma once

#include "MorvaneCore/Database/BackupStore.h"
#include "MorvaneCore/IcsArchives/IcsArchive.h"
#include "MorvaneCore/Shared/Date.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace morvane {

// What one backup holds, for a person to look at: its fingerprint, the number of its events, its
// calendars, the window of its occurrence cache and, when asked for, every event with the
// occurrences deleted from it. The command line's `inspect` prints it as text or JSON.
struct BackupReport {
    // Absent for a folder of .ics files, which has no fingerprint of its own; "ek:" and the
    // document's fingerprint for an event store restore point.
    std::optional<std::string> fingerprint;
    // Events of the local, Exchange and CalDAV stores, detached occurrences not counted.
    std::int64_t eventCount = 0;
    std::vector<BackupCalendar> calendars;
    // Absent when the store records no occurrence cache.
    std::optional<DateInterval> window;
    // Every event, those of subscribed and birthday calendars included; only when asked for.
    std::optional<std::vector<BackupEvent>> events;
    // By row of a series: the occurrences deleted from it, where the store keeps them.
    std::map<std::int64_t, std::vector<Date>> exceptions;
    // The files that couldn't be read, for a folder of .ics files only.
    std::optional<std::vector<std::string>> unreadableFiles;
    // The events left out of a folder of .ics files, with why; empty for other stores.
    std::vector<SkippedEvent> skipped;

    // Opens the backup at `path` (anything BackupCatalog::source names), reads the report from a
    // staged copy and closes it again. Throws what opening or reading throws; either way nothing
    // stays staged or mounted.
    static BackupReport of(std::string_view path, bool withEvents);

    // Reads the report from an open store. Damage in what it reads of a calendar database fails
    // it with the database's words for damage.
    static BackupReport read(BackupStore& store, bool withEvents);

    // The report as text, lines ending in line feeds, and as pretty-printed JSON with keys sorted.
    std::string asText() const;
    std::string asJSON() const;

    friend bool operator==(const BackupReport&, const BackupReport&) = default;
};

} // namespace morvane
