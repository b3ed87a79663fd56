#pragma once

#include <iosfwd>
#include <string>

namespace morvane::cli {

struct CompareOptions {
    std::string backup;
    bool json = false;
};

// `morvane compare BACKUP [--json]`: what is gone or different in the calendars since a backup
// (Comparison), BACKUP being a path `inspect` takes or a source's id from `morvane backups`.
// Succeeds whether or not anything differs; throws, for the command table to report, what
// resolving, opening or reading the backup throws.
int runCompare(const CompareOptions& options, std::ostream& out);

} // namespace morvane::cli
