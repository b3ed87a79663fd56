#pragma once

#include <atomic>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace morvane {

// One read-only mount of an APFS snapshot, held for as long as someone reads from it. Either
// this object made the mount, and must take it away again, or the system had the snapshot
// mounted already and this object only borrows that mount.
//
// Mounts this process made are kept in a registry until `unmount`, so that `unmountAll` can
// sweep them up when the process ends with work unfinished. Shared ownership: the registry holds
// a reference too, so dropping the last user's reference alone doesn't unmount; every user calls
// `unmount` (through OpenedBackup::close).
class SnapshotMount {
public:
    // Mounts `snapshot` of `volume` in a fresh "morvane-snap-{UUID}" folder in the temporary
    // folder, or borrows the system's mount of it. Throws PlatformError when the folder can't be
    // created and RestoreError "Couldn't mount snapshot {snapshot}: {output}" when mounting
    // fails; either way nothing is left behind.
    static std::shared_ptr<SnapshotMount> create(const std::string& snapshot, const std::string& volume);

    // Where the system has `snapshot` of `volume` mounted already, from the list of mounts.
    static std::optional<std::filesystem::path> existingMount(const std::string& snapshot, const std::string& volume);

    // Takes away every mount this process made and still holds. Runs no tool when there are none.
    static void unmountAll();

    ~SnapshotMount();
    SnapshotMount(const SnapshotMount&) = delete;
    SnapshotMount& operator=(const SnapshotMount&) = delete;

    const std::filesystem::path& mountPoint() const { return mountPoint_; }

    // True while this object holds a mount it made itself.
    bool mounted() const { return mounted_.load(); }

    // Unmounts and removes the mount point folder. Does nothing for a borrowed mount or when
    // called again. Failures are dropped: the object counts as unmounted all the same.
    void unmount();

private:
    SnapshotMount(std::filesystem::path mountPoint, bool mounted);

    const std::filesystem::path mountPoint_;
    // Atomic so that a user's unmount and unmountAll at exit can't both run the tool.
    std::atomic<bool> mounted_;
};

} // namespace morvane
