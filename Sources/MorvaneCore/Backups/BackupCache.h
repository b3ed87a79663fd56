#pragma once

#include "MorvaneCore/Backups/BackupSource.h"
#include "MorvaneCore/Backups/StagedCopy.h"

#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>

namespace morvane {

class CalendarDatabase;

// Compressed copies of the databases of Time Machine backups and local snapshots, so that a
// second look at such a backup needs neither the disk nor a mount. A file per source, named
// after the source's id; its existence is the only record, and it is trusted for as long as it
// decompresses. Thread-safe.
class BackupCache {
public:
    // The process-wide cache, "Morvane/Backups" in the user's caches folder.
    static BackupCache& shared();

    explicit BackupCache(std::filesystem::path directory);
    BackupCache(const BackupCache&) = delete;
    BackupCache& operator=(const BackupCache&) = delete;

    const std::filesystem::path& directory() const { return directory_; }

    // Only Time Machine backups and local snapshots are cached.
    static bool isCacheable(const BackupSource& source);
    // True for a source that isn't cacheable (nothing to do); else whether its file exists.
    bool isCached(const BackupSource& source) const;
    // The file of a source: the first 16 bytes of the SHA-256 of its id in hex, ".calsnap".
    std::filesystem::path url(const BackupSource& source) const;

    // A staged plain copy of the cached database, owned by the caller; empty when there is none.
    // A file that won't decompress (damaged, or larger than a stored file may be) is removed.
    StagedCopy stage(const BackupSource& source) const;

    // Checks, checkpoints and stores the database copy at `file` for `source`. Never fails to
    // the caller: a failure costs a line on standard error and the next opening's speed.
    void save(CalendarDatabase& database, const std::filesystem::path& file, const BackupSource& source) const;

    // The size of everything directly in the folder; 0 when it can't be listed.
    std::int64_t totalBytes() const;
    // Removes the whole folder, dropping any error.
    void clear() const;

    // The first opening of one source is serialised. Whoever holds the Opening of a source's id
    // reads the source itself; others wait for it to let go, then look in the cache again.
    class Opening {
    public:
        Opening(Opening&& other) noexcept : cache_(std::exchange(other.cache_, nullptr)), id_(std::move(other.id_)) {}
        Opening& operator=(Opening&&) = delete;
        ~Opening();

    private:
        friend class BackupCache;
        Opening(BackupCache& cache, std::string id) : cache_(&cache), id_(std::move(id)) {}

        BackupCache* cache_;
        std::string id_;
    };
    // The claim on the first opening of `id`; nothing when someone else holds it.
    std::optional<Opening> beginOpening(const std::string& id);
    // Blocks, without a limit, while someone else holds the claim on `id`.
    void awaitOpening(const std::string& id) const;

private:
    void endOpening(const std::string& id);

    const std::filesystem::path directory_;
    mutable std::mutex lock_;
    mutable std::condition_variable openingEnded_; // signalled under lock_ whenever inFlight_ loses an id
    std::set<std::string> inFlight_;               // guarded by lock_
};

} // namespace morvane
