#pragma once

#include "MorvaneCore/Backups/StagedCopy.h"
#include "MorvaneCore/Shared/Date.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace morvane {

class CalendarDatabase;

// A snapshot store: one folder of compressed restore points and the `index.json` that lists
// them. The index is the only record of what the store holds: a file it doesn't name doesn't
// exist for the program.
//
// Thread-safe within one object: a lock serialises reading and rewriting the index. Two objects
// (or processes) over one folder don't exclude each other; atomic writes and stamp-unique file
// names keep each file whole, and the later writer of the index wins.
class CalendarArchive {
public:
    struct Entry {
        std::string stamp; // the file's base name: `stamp(date)`
        Date date;
        std::string fingerprint;
        std::int64_t eventCount = 0;       // events of the restorable stores, detached occurrences not counted
        std::int64_t bytes = 0;            // size of the stored, compressed file
        std::optional<std::string> format; // "eventkit" for an event store document, else absent

        bool isEventKit() const { return format == "eventkit"; }
        // stamp + ".calevents" or ".calsnap".
        std::string fileName() const;

        friend bool operator==(const Entry&, const Entry&) = default;
    };

    // The extensions of stored files, without the point.
    static constexpr const char* fileExtensions[] = {"calsnap", "calevents"};

    // What an import or snapshot did: stored a new restore point, or found one it equals.
    struct SnapshotResult {
        enum class Case { saved, unchanged };
        Case which;
        // The new entry when saved; the existing one with the same stamp or content when unchanged.
        Entry entry;

        friend bool operator==(const SnapshotResult&, const SnapshotResult&) = default;
    };

    // The name of a restore point of `date`: yyyy-MM-dd-HHmmss in the current zone.
    static std::string stamp(Date date);

    // The process-wide store in Application Support, "Morvane/Snapshots". Touches no disk.
    static std::shared_ptr<CalendarArchive> shared();

    // A store over any folder. Touches no disk.
    explicit CalendarArchive(std::filesystem::path directory);
    CalendarArchive(const CalendarArchive&) = delete;
    CalendarArchive& operator=(const CalendarArchive&) = delete;

    const std::filesystem::path& directory() const { return directory_; }

    // The listed restore points, newest first. Never fails: a missing or damaged index is empty.
    std::vector<Entry> entries() const;
    std::int64_t totalBytes() const;
    std::filesystem::path fileURL(const Entry& entry) const { return directory_ / entry.fileName(); }

    // A staged plain copy of a database restore point (see stageFile).
    StagedCopy stage(const Entry& entry) const;
    // Reads a stored database file, decompresses it and stages it as "Calendar.sqlitedb", owned by
    // the caller. Throws RestoreError "Couldn't read {path}.", lzfse::LzfseError for a file that is
    // damaged or would decompress to more than compression::maxStoredSize, or the platform's error
    // of staging; nothing stays staged then.
    static StagedCopy stageFile(const std::filesystem::path& file);
    // A whole file's bytes. Throws RestoreError "Couldn't read {path}." when nothing was read.
    static std::string readCoordinated(const std::filesystem::path& file);

    // Files the database copy at `file`, open in `database`, as the restore point of `date`:
    // unchanged when the stamp is listed already or the nearest earlier restore point has the
    // same content, else compressed, written and listed. Everything that can fail on a bad
    // database runs before the store is touched.
    SnapshotResult importDatabase(CalendarDatabase& database, const std::filesystem::path& file, Date date);

    // Removes a restore point's file (quietly, if it is gone) and its entries from the index.
    // Only the write of the index can fail.
    void remove(const Entry& entry);

    // Writes entries as an index, oldest first, atomically.
    static void writeIndex(std::vector<Entry> entries, const std::filesystem::path& to);

private:
    std::filesystem::path indexURL() const { return directory_ / "index.json"; }
    // The index as stored, or empty; call with lock_ held.
    std::vector<Entry> readIndex() const;

    const std::filesystem::path directory_;
    mutable std::mutex lock_; // index.json, and the snapshot file written between its read and rewrite
};

} // namespace morvane
