#include "morvane/CompareCommand.h"

#include "MorvaneCore/Backups/BackupCatalog.h"
#include "MorvaneCore/Comparison/Comparison.h"
#include "morvane/CommandLine.h"

#include <ostream>

namespace morvane::cli {

int runCompare(const CompareOptions& options, std::ostream& out) {
    const auto comparison = Comparison::of(BackupCatalog::resolve(options.backup));
    out << (options.json ? comparison.asJSON() : comparison.asText());
    return exitSuccess;
}

} // namespace morvane::cli
