#pragma once

#include <iosfwd>

namespace morvane::cli {

struct UninstallOptions {
    bool restorePoints = false;
    bool copies = false;
    bool yes = false;
};

// `morvane uninstall [--restore-points] [--copies] [--yes]`: shows what goes, with sizes, asks on
// a terminal unless `yes`, then removes the backup cache and what this process has staged or
// mounted, the restore points and Time Machine imports with `restorePoints`, this computer's
// copies with `copies`, and turns copying off. The live calendars are never touched. Without
// `yes` and without a terminal nothing is removed (exit 2). Prints each failure on `err` and
// exits 1 when there was any.
int runUninstall(const UninstallOptions& options, std::ostream& out, std::ostream& err);

} // namespace morvane::cli
