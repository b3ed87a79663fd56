#pragma once

#include "MorvanePlatform/Replaceable.h"

#include <filesystem>
#include <string>
#include <string_view>

// Whole-file reads and writes, with errors worded for the user (PlatformError). Every function
// here either does all it says or throws; none leaves a half-written file under the final name
// except `write`, which is the plain, non-atomic write where a caller asks for one.
//
// Threads: any thread, concurrently; nothing here holds state. Writes to one path from two
// threads race as they would from two processes: with writeAtomically, each of them writes a
// temporary file of its own, every reader sees one whole version, and the last rename wins.
namespace morvane::files {

// The whole content of a file.
std::string read(const std::filesystem::path& path);

// Creates or truncates `path` and writes `bytes` to it, in place.
void write(const std::filesystem::path& path, std::string_view bytes);

// Writes `bytes` to a temporary file in the same folder, flushes it to the disk and renames it
// over `path`, so that readers see the old content or the new, never a mixture.
void writeAtomically(const std::filesystem::path& path, std::string_view bytes);

// Creates a folder and any missing folders above it; an existing folder is fine.
void createDirectories(const std::filesystem::path& path);

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

    // The real implementation: POSIX calls.
    static FileSystem& system();
};

} // namespace morvane
