#include "morvane/CompareCommand.h"

#include "MorvaneCore/Backups/BackupCatalog.h"
#include "MorvaneCore/Restore/RestoreEngine.h"
#include "morvane/CommandLine.h"

#include <ostream>

namespace morvane::cli {

int runCompare(const CompareOptions& options, std::ostream& out) {
    RestoreEngine engine;
    const auto comparison = engine.load(BackupCatalog::resolve(options.backup));
    engine.close();
    out << (options.json ? comparison.asJSON() : comparison.asText());
    return exitSuccess;
}

} // namespace morvane::cli
