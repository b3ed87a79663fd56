#include "morvane/InspectCommand.h"

#include "MorvaneCore/Backups/BackupReport.h"
#include "morvane/CommandLine.h"

#include <ostream>

namespace morvane::cli {

int runInspect(const InspectOptions& options, std::ostream& out) {
    const auto report = BackupReport::of(options.path, options.events);
    out << (options.json ? report.asJSON() : report.asText());
    return exitSuccess;
}

} // namespace morvane::cli
