#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace morvane {

class BackupStore;
class SnapshotMount;

// A backup opened for reading, and what must be given back when done with it. Whoever opens a
// backup calls `close`; dropping the value does nothing of the kind.
struct OpenedBackup {
    std::shared_ptr<BackupStore> store;
    // Where the data came from, for display.
    std::string location;
    // The staged database file, when the store is a calendar database.
    std::optional<std::filesystem::path> stagedCopy;
    // The snapshot mount held open for this backup.
    std::shared_ptr<SnapshotMount> mount;

    // Removes the staged copy, then unmounts. Harmless when called again; never fails.
    void close() const;
};

} // namespace morvane
