#pragma once

#include "MorvanePlatform/Replaceable.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

// Whole-file reads and writes, with errors worded for the user (PlatformError). Every function
// here either does all it says or throws; none leaves a half-written file under the final name
// except `write`, which is the plain, non-atomic write where a caller asks for one.
//
// Only regular files are read (a link is followed to what it names): a named pipe, a device or
// a folder is refused with words saying what it is, without waiting for a writer or reading
// without end.
//
// Threads: any thread, concurrently; nothing here holds state. Writes to one path from two
// threads race as they would from two processes: with writeAtomically, each of them writes a
// temporary file of its own, every reader sees one whole version, and the last rename wins.
namespace morvane::files {

// The most any one read holds in memory unless its caller says less.
inline constexpr std::uint64_t readLimit = std::uint64_t{4} << 30;

// The whole content of a regular file. Throws "Couldn't read {path}: {reason}", also when the
// file holds more than `limit` bytes.
std::string read(const std::filesystem::path& path, std::uint64_t limit = readLimit);

// Creates or truncates `path` and writes `bytes` to it, in place.
void write(const std::filesystem::path& path, std::string_view bytes);

// Writes `bytes` to a temporary file in the same folder, flushes it to the disk and renames it
// over `path`, so that readers see the old content or the new, never a mixture.
void writeAtomically(const std::filesystem::path& path, std::string_view bytes);

// Creates a folder and any missing folders above it; an existing folder is fine.
void createDirectories(const std::filesystem::path& path);

// Creates the folder `path`, whose parent must exist, open to its owner alone (mode 0700) from
// the moment it exists, whatever the umask. Fails when anything is there already.
void createPrivateFolder(const std::filesystem::path& path);

// Creates the file `path` with mode 0600 from its first byte, whatever the umask, and writes
// `bytes` to it. Fails when anything is there already.
void writePrivately(const std::filesystem::path& path, std::string_view bytes);

// Copies the regular file `source` to the new file `destination`, created as `writePrivately`
// creates it, a piece at a time: memory stays flat whatever the size. On failure no
// `destination` is left.
void copyPrivately(const std::filesystem::path& source, const std::filesystem::path& destination);

// Sets the POSIX permission bits of `path`, e.g. 0600.
void setPermissions(const std::filesystem::path& path, unsigned mode);

// Copies the file `from` to `to`, replacing what is there, and flushes the copy to the disk.
// On failure nothing stays at `to`; callers that need the final name to appear whole copy to a
// temporary name and move it.
void copyFile(const std::filesystem::path& from, const std::filesystem::path& to);

// Renames `from` to `to` within one file system, replacing a file at `to`.
void moveItem(const std::filesystem::path& from, const std::filesystem::path& to);

// Removes a file, or a folder with everything in it. Nothing at `path` is no failure.
void removeItem(const std::filesystem::path& path);

// An advisory lock (flock) on a folder for the life of the object: of the objects on one folder,
// in this process or any other, one at a time holds it, and the others wait. Best effort: where
// the folder can't be opened or its file system keeps no locks, nothing is held and nobody
// waits, so callers must stay correct without it (as atomic writes keep them).
class FolderLock {
public:
    explicit FolderLock(const std::filesystem::path& folder);
    ~FolderLock();
    FolderLock(const FolderLock&) = delete;
    FolderLock& operator=(const FolderLock&) = delete;

    bool isHeld() const { return fd_ >= 0; }

private:
    int fd_ = -1;
};

// The first `count` bytes of a regular file, or all of it when it is shorter. Throws as `read`.
std::string readStart(const std::filesystem::path& path, std::size_t count);

// A file or folder that lives only while the process works with it (the temporary file of an
// atomic write, a private working copy): registered from before it is made, and removed with
// everything in it when the value goes. `removeTemporaries` takes away all that are registered,
// for a process about to end in the middle of its work (on a signal). Move-only.
class TemporaryItem {
public:
    explicit TemporaryItem(std::filesystem::path path);
    ~TemporaryItem();
    TemporaryItem(TemporaryItem&& other) noexcept;
    TemporaryItem& operator=(TemporaryItem&&) = delete;
    TemporaryItem(const TemporaryItem&) = delete;
    TemporaryItem& operator=(const TemporaryItem&) = delete;

    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

// Removes every registered temporary item; errors are dropped. Safe from any thread.
void removeTemporaries();

// A fresh random (version 4) UUID in its standard upper-case text form.
std::string randomUUID();

} // namespace morvane::files

namespace morvane {

// The operations above that change the disk, as a service: the functions in `files` forward to
// the current one, so a test can wrap the real one and fail its Nth call. Threads: as above.
class FileSystem : public Replaceable<FileSystem> {
public:
    virtual ~FileSystem() = default;
    virtual void write(const std::filesystem::path& path, std::string_view bytes) = 0;
    virtual void writeAtomically(const std::filesystem::path& path, std::string_view bytes) = 0;
    virtual void createDirectories(const std::filesystem::path& path) = 0;
    virtual void setPermissions(const std::filesystem::path& path, unsigned mode) = 0;
    virtual void copyFile(const std::filesystem::path& from, const std::filesystem::path& to) = 0;
    virtual void moveItem(const std::filesystem::path& from, const std::filesystem::path& to) = 0;
    virtual void removeItem(const std::filesystem::path& path) = 0;
    virtual void createPrivateFolder(const std::filesystem::path& path) = 0;
    virtual void writePrivately(const std::filesystem::path& path, std::string_view bytes) = 0;
    virtual void copyPrivately(const std::filesystem::path& source, const std::filesystem::path& destination) = 0;

    // The real implementation: POSIX calls.
    static FileSystem& system();
};

} // namespace morvane
