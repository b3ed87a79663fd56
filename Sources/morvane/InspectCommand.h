#pragma once

#include <iosfwd>
#include <string>

namespace morvane::cli {

struct InspectOptions {
    std::string path;
    bool events = false;
    bool json = false;
};

// `morvane inspect PATH [--events] [--json]`: what a backup holds (BackupReport), read from a
// staged copy (the file itself is never opened). Throws, for the command table to report, what
// finding, copying, opening or trusting the backup throws.
int runInspect(const InspectOptions& options, std::ostream& out);

} // namespace morvane::cli
