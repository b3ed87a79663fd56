#pragma once

#include "MorvaneCore/Backups/StagedCopy.h"
#include "MorvaneCore/Shared/Date.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace morvane {

class CalendarDatabase;
class EKEventStore;

// A snapshot store: one folder of compressed restore points and the `index.json` that lists
// them. The index is the only record of what the store holds: a file it doesn't name doesn't
// exist for the program.
//
// Thread-safe within one object: a lock serialises reading and rewriting the index. Writers also
// take an advisory lock on the folder, so that two objects or two processes over one folder take
// turns at reading, comparing and rewriting the index (two snapshots at once: one saves, the other
// finds it unchanged). Where the folder's file system keeps no such locks, atomic writes and
// stamp-unique file names still keep each file whole, and the later writer of the index wins.
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

    // Taking restore points of the live calendars. Each call is whole: afterwards either one new
    // entry is listed (and the store thinned), or the store is as it was but for an unlisted
    // leftover file. Blocking, up to three times 2 s between attempts on the database (through
    // the Clock), so never on an interface's thread.

    static constexpr double secondsPerDay = 86400.0;
    static constexpr double allKeptDays = 30.0;  // up to this age every restore point stays
    static constexpr double weeklyDays = 182.0;  // then the newest of each calendar week
    static constexpr double monthlyDays = 730.0; // then the newest of each calendar month; older ones go
    static constexpr int databaseAttempts = 4;
    static constexpr double secondsBetweenAttempts = 2.0;

    // Makes the event store, when the calendars have to be read through it.
    using EventStoreMaker = std::function<std::shared_ptr<EKEventStore>()>;

    // A restore point of `now`: from the live database when it is the live calendars' and its
    // folder can be read (BackupLocator::readableLiveDatabase), else through the event store
    // when calendar access is granted (`eventStore` is called only then), else
    // RestoreError "Morvane needs Calendar access (...) to take snapshots.". Creates the folder.
    SnapshotResult takeSnapshot(Date now, const EventStoreMaker& eventStore);
    // Stages the database `live` and files it unless the newest entry has the same fingerprint.
    // An attempt that fails after staging is tried again on a fresh copy, up to four in all; the
    // last one's error is thrown. A failure to stage is thrown at once. Nothing stays staged.
    SnapshotResult takeDatabaseSnapshot(Date now, const std::filesystem::path& live);
    // Captures the event store once and files the document ("ek:" fingerprint, format
    // "eventkit") unless the newest entry has the same fingerprint.
    SnapshotResult takeEventKitSnapshot(Date now, EKEventStore& store);

    // Removes the files of the entries that `retained` drops, dropping failures to remove, and
    // gives the entries that stay, newest first. Writes no index: its caller does, after.
    std::vector<Entry> prune(const std::vector<Entry>& entries, Date now) const;
    // The entries that stay at `now`, newest first: all up to 30 days old (and any dated after
    // `now`), the newest of each calendar week up to 182 days, of each month up to 730 days.
    // Ages are fractional days; weeks and months are the current zone's (dates::weekKey).
    static std::vector<Entry> retained(std::vector<Entry> entries, Date now);

    // Writes entries as an index, oldest first, atomically.
    static void writeIndex(std::vector<Entry> entries, const std::filesystem::path& to);
    // An index as stored at `file`, in its order; empty when it is missing or doesn't decode.
    static std::vector<Entry> readIndex(const std::filesystem::path& file);

private:
    struct WriteLock;

    std::filesystem::path indexURL() const { return directory_ / "index.json"; }
    // Steps of a database snapshot on one staged copy.
    SnapshotResult snapshotOfCopy(const StagedCopy& staged, Date now);
    // Files `data` as a new entry unless the newest listed entry has `fingerprint`.
    SnapshotResult fileUnlessUnchanged(Entry entry, Date now, const std::function<std::string()>& data);

    const std::filesystem::path directory_;
    mutable std::mutex lock_; // index.json, and the snapshot file written between its read and rewrite
};

} // namespace morvane
