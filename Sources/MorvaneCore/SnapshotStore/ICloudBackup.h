#pragma once

#include "MorvaneCore/Shared/Date.h"
#include "MorvaneCore/SnapshotStore/CalendarArchive.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace morvane {

// Copies of the restore points in a folder that every computer of the user shares, kept in step
// by a sync tool (Nextcloud, Syncthing, a network share): one way, from the store to this
// computer's own folder under the root, thinned by the store's retention rule. Each computer
// writes only to its own folder, and reads every other's.
//
// Layout under the root: {folder}/mac.json names the computer ({"id", "name"}); {folder}/index.json
// lists its copies in the store's index form; {folder}/{stamp}.calsnap and .calevents are the
// store's files byte for byte; ".{file}.partial" exists only while a copy is under way. A folder
// counts only with a readable mac.json; identity lies in its id, the folder's name is for people.
//
// Thread-safe: sync, remove and removeThisMacsCopies of one object run one at a time, and take an
// advisory lock on the root for other processes of this computer. The store's lock may be taken
// while this object's is held, never the reverse.
class ICloudBackup {
public:
    struct MacInfo {
        std::string id;
        std::string name;

        friend bool operator==(const MacInfo&, const MacInfo&) = default;
    };

    struct MacFolder {
        std::filesystem::path folder;
        MacInfo info;

        friend bool operator==(const MacFolder&, const MacFolder&) = default;
    };

    struct SyncResult {
        std::int64_t copied = 0;  // files copied this time
        std::int64_t removed = 0; // files of restore points that retention no longer keeps
        std::int64_t total = 0;   // copies listed afterwards

        friend bool operator==(const SyncResult&, const SyncResult&) = default;
    };

    // What syncIfEnabled did: the result, or the failure's text (also kept as lastError).
    struct SyncOutcome {
        std::optional<SyncResult> result;
        std::string error;

        bool succeeded() const { return result.has_value(); }
    };

    // One restore point in the shared folder, of this computer or another.
    struct Snapshot {
        CalendarArchive::Entry entry;
        std::filesystem::path file;
        std::string macName;
        bool isThisMac = false;

        friend bool operator==(const Snapshot&, const Snapshot&) = default;
    };

    struct Usage {
        std::int64_t count = 0;
        std::int64_t bytes = 0;
    };

    // The user defaults: the switch, the last failure's text, the last success's date, and the
    // shared folder that the user named, which stands in for the platform's cloud container.
    static constexpr std::string_view enabledKey = "iCloudBackup";
    static constexpr std::string_view lastErrorKey = "iCloudBackupError";
    static constexpr std::string_view lastSyncedKey = "iCloudBackupSynced";
    static constexpr std::string_view folderKey = "iCloudBackupFolder";
    static constexpr std::string_view containerID = "iCloud.com.quillfen.morvane";

    // Where copies made by hand into the user's cloud drive lie: the home folder plus
    // "Library/Mobile Documents/com~apple~CloudDocs/Morvane". Each sync of the shared object
    // moves what it finds there under the root; where the folder doesn't exist, nothing happens.
    static std::filesystem::path visibleFolder();

    // The process-wide object, whose root is the folder named in the user defaults.
    static std::shared_ptr<ICloudBackup> shared();

    // An object over a fixed root, or (without one) over the folder named in the user defaults.
    explicit ICloudBackup(std::optional<std::filesystem::path> fixedRoot = std::nullopt);
    ICloudBackup(const ICloudBackup&) = delete;
    ICloudBackup& operator=(const ICloudBackup&) = delete;

    // The fixed root; else the named folder if it is an existing folder. Read afresh each time,
    // as it is cheap here and the user may name another folder at any time.
    std::optional<std::filesystem::path> root() const;
    bool isAvailable() const { return root().has_value(); }
    // Why there is no root, in words that say how to name one; for the failure of `sync`.
    std::string unavailableReason() const;

    bool isEnabled() const;
    void setEnabled(bool enabled);
    // The folder named in the user defaults, whether or not it exists now.
    static std::optional<std::filesystem::path> namedFolder();
    static void setNamedFolder(const std::filesystem::path& folder);
    std::optional<std::string> lastError() const;
    // Nothing when unset or when the setting isn't a date.
    std::optional<Date> lastSynced() const;

    // The machine's identifier; failing that its name; failing that "Mac".
    static std::string machineID();

    // The computers' folders under the root, by folder name: the children (hidden ones left out)
    // with a mac.json that decodes. Never fails: without a root, or where the root can't be
    // listed, there are none.
    std::vector<MacFolder> macFolders() const;
    // The first of macFolders whose id is machineID().
    std::optional<std::filesystem::path> thisMacsFolder() const;

    // Brings this computer's folder in step with `from`: creates the folder (and names it, or
    // renames it in mac.json), copies each kept restore point that isn't there yet through a
    // ".partial" name, drops from the index what exists in neither place, removes the files of
    // restore points no longer kept, and writes the index last (unless it would come out the
    // same). Files that exist are never compared or rewritten. Throws RestoreError with unavailableReason() without a
    // root, and the platform's error of any copy, move, removal or write; the index is untouched then.
    SyncResult sync(const CalendarArchive& from, Date now);
    // Nothing when copies are off; otherwise sync, recording the failure's text or the moment
    // of success in the user defaults.
    std::optional<SyncOutcome> syncIfEnabled(const CalendarArchive& from, Date now);

    // Removes one restore point's copy from this computer's folder and index. Never fails: what
    // can't be removed stays.
    void remove(const std::string& stamp) noexcept;
    // Removes this computer's folder, whole; the other computers' stay. Throws the platform's
    // error.
    void removeThisMacsCopies();

    // Every computer's copies, newest first; an index not readable (yet) hides that computer.
    // The files aren't looked at.
    std::vector<Snapshot> snapshots() const;
    // This computer's copies: how many, and their size.
    Usage ownUsage() const;

private:
    static std::vector<MacFolder> macFoldersIn(const std::filesystem::path& root);
    std::filesystem::path ownFolder(const std::filesystem::path& root);
    void moveVisibleFolder(const std::filesystem::path& root) noexcept;

    const std::optional<std::filesystem::path> fixedRoot_;
    mutable std::mutex lock_; // sync, remove and removeThisMacsCopies
};

} // namespace morvane
