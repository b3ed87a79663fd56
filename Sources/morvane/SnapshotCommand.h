#pragma once

#include "MorvaneCore/Shared/Json.h"
#include "MorvaneCore/SnapshotStore/CalendarArchive.h"
#include "MorvaneCore/SnapshotStore/ICloudBackup.h"

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>

namespace morvane::cli {

struct SnapshotOptions {
    bool json = false;
    bool quiet = false;
};

// `morvane snapshot [--json] [--quiet]`: takes a restore point of the live calendars now, then
// brings the copies in step when they are on. Prints "Saved restore point {stamp} ({n} events)."
// or "Unchanged since {stamp}.", then the copies' result; `--quiet` leaves out what says that
// nothing changed. Throws what taking the restore point throws (exit 1 with the reason); a failed
// copy is reported on `err` and also ends in 1, after the restore point was kept.
int runSnapshot(const SnapshotOptions& options, std::ostream& out, std::ostream& err);

// An entry in the index form: stamp, date (ISO 8601), fingerprint, eventCount, bytes, format.
json::Value entryJSON(const CalendarArchive::Entry& entry);

// "12 bytes", "1.5 kB", "23.4 MB": sizes in powers of 1000, as file managers show them.
std::string byteCount(std::int64_t bytes);

// What a sync did, as a line: "Copies: 2 copied, 1 removed, 14 in {folder}."
std::string syncLine(const ICloudBackup::SyncResult& result, const std::optional<std::filesystem::path>& folder);

} // namespace morvane::cli
