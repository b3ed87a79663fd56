#pragma once

#include "MorvaneCore/Backups/BackupSource.h"
#include "MorvaneCore/Search/BackupSummaries.h"

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace morvane::cli {

struct BackupsOptions {
    bool json = false;
    bool noTimeMachine = false;
    bool summaries = false;
    bool ids = false; // only the sources' ids, one per line
};

// `morvane backups [--json] [--no-time-machine]`: everything that can be restored from, newest
// first, and the notes of the listing: restore points, copies from the shared folder, Time
// Machine imports and (unless left out, when no tool runs) Time Machine itself. With `summaries`,
// each source also shows how many events were deleted and changed since, where that can be had
// without a mount (text: "{deleted} deleted, {changed} changed since"; JSON: "summary", an object
// or null). Listing never fails, so this always succeeds.
int runBackups(const BackupsOptions& options, std::ostream& out);

// Prints sources and notes: as JSON, `{"sources": [...], "notes": [...]}`, each source with `id`,
// `kind`, `title`, `subtitle` and `date`; as text, a line per source (title, the kind when
// `withKind`, and subtitle), then the notes, with `whenEmpty` first when there are no sources.
// `summaries`, when given, holds one value per source: its "summary" in JSON, a last column in text.
void printSources(const std::vector<BackupSource>& sources, const std::vector<std::string>& notes, bool json,
                  const std::string& whenEmpty, std::ostream& out, bool withKind = false,
                  const std::vector<std::optional<BackupSummaries::Summary>>* summaries = nullptr);

} // namespace morvane::cli
