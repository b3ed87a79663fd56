#include "morvane/StorageCommand.h"

#include "MorvaneCore/Shared/Json.h"
#include "morvane/CommandLine.h"
#include "morvane/SnapshotCommand.h"

#include <ostream>

namespace morvane::cli {
namespace {

std::string count(std::int64_t number, const char* one, const char* many) {
    return std::to_string(number) + ' ' + (number == 1 ? one : many);
}

} // namespace

void printSizes(const Uninstaller::Sizes& sizes, bool stores, bool copies, const char* indent, std::ostream& out) {
    if (stores) {
        out << indent << "Restore points: " << count(sizes.snapshots, "restore point", "restore points") << ", "
            << byteCount(sizes.snapshotBytes) << '\n';
        out << indent
            << "Time Machine restore points: " << count(sizes.timeMachineImports, "restore point", "restore points")
            << ", " << byteCount(sizes.timeMachineImportBytes) << '\n';
    }
    out << indent << "Backup cache: " << byteCount(sizes.cacheBytes) << '\n';
    if (copies) {
        out << indent << "This computer's copies: "
            << (sizes.iCloudBytes ? byteCount(*sizes.iCloudBytes) : std::string("no folder of copies")) << '\n';
    }
}

int runStorage(const StorageOptions& options, std::ostream& out) {
    const auto sizes = Uninstaller::sizes();
    if (options.json) {
        const json::Ordered document = {
            {"snapshots", sizes.snapshots},
            {"snapshotBytes", sizes.snapshotBytes},
            {"timeMachineImports", sizes.timeMachineImports},
            {"timeMachineImportBytes", sizes.timeMachineImportBytes},
            {"cacheBytes", sizes.cacheBytes},
            {"iCloudBytes", sizes.iCloudBytes ? json::Ordered(*sizes.iCloudBytes) : json::Ordered()},
            {"localBytes", sizes.localBytes()},
        };
        out << json::dumpKeepingOrder(document, true) << '\n';
        return exitSuccess;
    }
    printSizes(sizes, true, true, "", out);
    out << "Kept on this computer: " << byteCount(sizes.localBytes())
        << " (restore points of both kinds; the cache fills again as backups are read)\n";
    return exitSuccess;
}

} // namespace morvane::cli
