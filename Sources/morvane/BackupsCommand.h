#pragma once

#include "MorvaneCore/Backups/BackupSource.h"

#include <iosfwd>
#include <string>
#include <vector>

namespace morvane::cli {

struct BackupsOptions {
    bool json = false;
    bool noTimeMachine = false;
};

// `morvane backups [--json] [--no-time-machine]`: everything that can be restored from, newest
// first, and the notes of the listing: restore points, copies from the shared folder, Time
// Machine imports and (unless left out, when no tool runs) Time Machine itself. Listing never
// fails, so this always succeeds.
int runBackups(const BackupsOptions& options, std::ostream& out);

// Prints sources and notes: as JSON, `{"sources": [...], "notes": [...]}`, each source with `id`,
// `kind`, `title`, `subtitle` and `date`; as text, a line per source (title, the kind when
// `withKind`, and subtitle), then the notes, with `whenEmpty` first when there are no sources.
void printSources(const std::vector<BackupSource>& sources, const std::vector<std::string>& notes, bool json,
                  const std::string& whenEmpty, std::ostream& out, bool withKind = false);

} // namespace morvane::cli
