#pragma once

#include "MorvaneCore/Uninstall/Uninstaller.h"

#include <iosfwd>

namespace morvane::cli {

struct StorageOptions {
    bool json = false;
};

// `morvane storage [--json]`: what the restore points, the Time Machine imports, the backup
// cache and this computer's copies take on the disk. Measuring never fails, so this succeeds.
int runStorage(const StorageOptions& options, std::ostream& out);

// The lines of the sizes: restore points, Time Machine restore points, backup cache, copies, each
// indented by `indent`; the stores only with `stores`, the copies only with `copies`.
void printSizes(const Uninstaller::Sizes& sizes, bool stores, bool copies, const char* indent, std::ostream& out);

} // namespace morvane::cli
