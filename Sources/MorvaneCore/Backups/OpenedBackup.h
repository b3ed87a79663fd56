#pragma once

#include "MorvaneCore/Backups/StagedCopy.h"

#include <filesystem>
#include <memory>
#include <string>

namespace morvane {

class BackupStore;
class SnapshotMount;

// A backup opened for reading, and what must be given back when done with it: the staged copy
// that the store reads and the snapshot mount it came from. Whoever opens a backup owns this
// value; when it goes (at the end of its scope, normally or by an exception) it drops its hold
// on the store, removes the staged copy and then unmounts. Move-only.
//
// `store` may be shared beyond this value, but a database store is not to be read once the backup
// is closed: its files are gone.
class OpenedBackup {
public:
    OpenedBackup(std::shared_ptr<BackupStore> store, std::string location, StagedCopy stagedCopy = {},
                 std::shared_ptr<SnapshotMount> mount = nullptr);
    ~OpenedBackup();

    OpenedBackup(OpenedBackup&&) noexcept = default;
    // Closes what this held before taking over `other`'s.
    OpenedBackup& operator=(OpenedBackup&& other) noexcept;
    OpenedBackup(const OpenedBackup&) = delete;
    OpenedBackup& operator=(const OpenedBackup&) = delete;

    std::shared_ptr<BackupStore> store;
    // Where the data came from, for display.
    std::string location;
    // The staged database file, when the store is a calendar database.
    StagedCopy stagedCopy;
    // The snapshot mount held open for this backup.
    std::shared_ptr<SnapshotMount> mount;

    // Removes the staged copy, then unmounts, now rather than when the value goes. Harmless when
    // called again; never fails.
    void close() noexcept;
};

} // namespace morvane
