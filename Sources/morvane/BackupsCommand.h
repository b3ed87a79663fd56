#pragma once

#include <iosfwd>

namespace morvane::cli {

struct BackupsOptions {
    bool json = false;
};

// `morvane backups [--json]`: the Time Machine sources, newest first, and the notes of the
// listing. Listing never fails, so this always succeeds.
int runBackups(const BackupsOptions& options, std::ostream& out);

} // namespace morvane::cli
