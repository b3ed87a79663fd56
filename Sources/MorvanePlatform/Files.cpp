#include "MorvanePlatform/Files.h"

#include "MorvanePlatform/Error.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <mutex>
#include <set>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace morvane::files {
namespace {

class OpenFile {
public:
    OpenFile(const std::filesystem::path& path, int flags, mode_t mode = 0666)
        : fd_(::open(path.c_str(), flags | O_CLOEXEC, mode)) {}
    ~OpenFile() {
        if (fd_ >= 0) ::close(fd_);
    }
    OpenFile(OpenFile&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
    OpenFile& operator=(OpenFile&&) = delete;

    int get() const { return fd_; }
    bool isOpen() const { return fd_ >= 0; }
    // Closes now so that a failure of close (a late write error) can be reported.
    int close() {
        const int result = ::close(fd_);
        fd_ = -1;
        return result;
    }

private:
    int fd_;
};

void writeAll(int fd, std::string_view bytes, const std::filesystem::path& path) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0) {
            if (errno == EINTR) continue;
            throw PlatformError::fromErrno(errno, "Couldn't write", path.string());
        }
        bytes.remove_prefix(static_cast<size_t>(written));
    }
}

// What a path that isn't a regular file is, in words.
std::string kindOf(mode_t mode) {
    if (S_ISDIR(mode)) return "a folder";
    if (S_ISFIFO(mode)) return "a named pipe";
    if (S_ISCHR(mode) || S_ISBLK(mode)) return "a device";
    if (S_ISSOCK(mode)) return "a socket";
    return "something other than a file";
}

std::string sizeText(std::uint64_t bytes) {
    if (bytes % (std::uint64_t{1} << 30) == 0) return std::to_string(bytes >> 30) + " GiB";
    if (bytes % (std::uint64_t{1} << 20) == 0) return std::to_string(bytes >> 20) + " MiB";
    if (bytes % (std::uint64_t{1} << 10) == 0) return std::to_string(bytes >> 10) + " KiB";
    return std::to_string(bytes) + " bytes";
}

PlatformError tooLarge(const std::filesystem::path& path, std::uint64_t limit) {
    return PlatformError("Couldn't read " + path.string() + ": the file is larger than " + sizeText(limit));
}

// Opens `path` for reading when it is a regular file. Without O_NONBLOCK, opening a named pipe
// would wait for a writer; the type is checked on what was opened, so that nothing can be put
// in its place between a check and the opening.
OpenFile openRegularFile(const std::filesystem::path& path, struct stat& info) {
    OpenFile file(path, O_RDONLY | O_NONBLOCK);
    if (!file.isOpen()) throw PlatformError::fromErrno(errno, "Couldn't read", path.string());
    if (::fstat(file.get(), &info) != 0) throw PlatformError::fromErrno(errno, "Couldn't read", path.string());
    if (!S_ISREG(info.st_mode))
        throw PlatformError("Couldn't read " + path.string() + ": it is " + kindOf(info.st_mode) + ", not a file");
    return file;
}

// Reads up to `size` bytes, retrying on EINTR; 0 at the end of the file.
size_t readSome(int fd, char* buffer, size_t size, const std::filesystem::path& path) {
    for (;;) {
        const ssize_t count = ::read(fd, buffer, size);
        if (count >= 0) return static_cast<size_t>(count);
        if (errno != EINTR) throw PlatformError::fromErrno(errno, "Couldn't read", path.string());
    }
}

// Creates `path` for writing, failing if anything is there, with exactly `mode`: the umask may
// only have taken bits away, and these are put back before the first byte is written.
OpenFile createExclusively(const std::filesystem::path& path, mode_t mode) {
    OpenFile file(path, O_WRONLY | O_CREAT | O_EXCL, mode);
    if (!file.isOpen()) throw PlatformError::fromErrno(errno, "Couldn't write", path.string());
    if (::fchmod(file.get(), mode) != 0) {
        const int code = errno;
        ::unlink(path.c_str());
        throw PlatformError::fromErrno(code, "Couldn't write", path.string());
    }
    return file;
}

// The temporary items that exist now, so that a process ending on a signal can take them away.
struct Temporaries {
    std::mutex lock;
    std::set<std::filesystem::path> paths; // guarded by lock
};

Temporaries& temporaries() {
    static Temporaries shared;
    return shared;
}

void syncFolder(const std::filesystem::path& folder) {
    OpenFile directory(folder.empty() ? "." : folder, O_RDONLY | O_DIRECTORY);
    // A folder that can't be synced still holds the renamed file; only durability is weaker.
    if (directory.isOpen()) ::fsync(directory.get());
}

} // namespace

std::string read(const std::filesystem::path& path, std::uint64_t limit) {
    struct stat info {};
    const auto file = openRegularFile(path, info);
    if (static_cast<std::uint64_t>(info.st_size) > limit) throw tooLarge(path, limit);

    std::string content;
    content.reserve(static_cast<size_t>(info.st_size));
    char buffer[65536];
    // A file that grows while it is read still ends at the limit.
    while (const size_t count = readSome(file.get(), buffer, sizeof buffer, path)) {
        if (content.size() + count > limit) throw tooLarge(path, limit);
        content.append(buffer, count);
    }
    return content;
}

std::string readStart(const std::filesystem::path& path, std::size_t count) {
    struct stat info {};
    const auto file = openRegularFile(path, info);
    std::string content(count, '\0');
    size_t filled = 0;
    while (filled < count) {
        const size_t read = readSome(file.get(), content.data() + filled, count - filled, path);
        if (read == 0) break;
        filled += read;
    }
    content.resize(filled);
    return content;
}

TemporaryItem::TemporaryItem(std::filesystem::path path) : path_(std::move(path)) {
    auto& shared = temporaries();
    std::lock_guard guard(shared.lock);
    shared.paths.insert(path_);
}

TemporaryItem::TemporaryItem(TemporaryItem&& other) noexcept : path_(std::exchange(other.path_, {})) {}

TemporaryItem::~TemporaryItem() {
    if (path_.empty()) return;
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
    auto& shared = temporaries();
    std::lock_guard guard(shared.lock);
    shared.paths.erase(path_);
}

void removeTemporaries() {
    auto& shared = temporaries();
    std::vector<std::filesystem::path> paths;
    {
        std::lock_guard guard(shared.lock);
        paths.assign(shared.paths.begin(), shared.paths.end());
    }
    for (const auto& path : paths) {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
}

// The real operations, behind FileSystem.
namespace posix {

void writeInPlace(const std::filesystem::path& path, std::string_view bytes) {
    OpenFile file(path, O_WRONLY | O_CREAT | O_TRUNC);
    if (!file.isOpen()) throw PlatformError::fromErrno(errno, "Couldn't write", path.string());
    writeAll(file.get(), bytes, path);
    if (file.close() != 0) throw PlatformError::fromErrno(errno, "Couldn't write", path.string());
}

void writeAndRename(const std::filesystem::path& path, std::string_view bytes) {
    const auto folder = path.parent_path();
    auto temporary = path;
    temporary += ".tmp-" + randomUUID();
    // Gone when this returns, renamed or removed on the way out; registered meanwhile.
    const TemporaryItem unfinished(temporary);
    {
        OpenFile file(temporary, O_WRONLY | O_CREAT | O_EXCL);
        if (!file.isOpen()) throw PlatformError::fromErrno(errno, "Couldn't write", path.string());
        writeAll(file.get(), bytes, path);
        // The data must be on the disk before the rename makes it the file's content.
        if (::fsync(file.get()) != 0 || file.close() != 0)
            throw PlatformError::fromErrno(errno, "Couldn't write", path.string());
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0)
        throw PlatformError::fromErrno(errno, "Couldn't write", path.string());
    syncFolder(folder);
}

void makeFolders(const std::filesystem::path& path) {
    std::error_code error;
    std::filesystem::create_directories(path, error);
    if (error) throw PlatformError::fromErrno(error.value(), "Couldn't create folder", path.string());
}

void changeMode(const std::filesystem::path& path, unsigned mode) {
    if (::chmod(path.c_str(), static_cast<mode_t>(mode)) != 0)
        throw PlatformError::fromErrno(errno, "Couldn't set the permissions of", path.string());
}

// Copies what is left of `input` to `output`: in the kernel where the file systems allow it,
// which spares copying every byte through this process; from wherever that stopped, a piece at
// a time through a buffer.
void copyContent(int input, int output, const std::filesystem::path& source, const std::filesystem::path& destination) {
    for (;;) {
        const ssize_t copied = ::copy_file_range(input, nullptr, output, nullptr, size_t{1} << 30, 0);
        if (copied > 0) continue;
        if (copied == 0) return;
        if (errno == EINTR) continue;
        if (errno != EXDEV && errno != ENOSYS && errno != EINVAL && errno != EOPNOTSUPP && errno != EBADF)
            throw PlatformError::fromErrno(errno, "Couldn't write", destination.string());
        std::vector<char> buffer(size_t{1} << 20);
        while (const size_t count = readSome(input, buffer.data(), buffer.size(), source))
            writeAll(output, std::string_view(buffer.data(), count), destination);
        return;
    }
}

void copy(const std::filesystem::path& from, const std::filesystem::path& to) {
    struct stat info {};
    const auto source = openRegularFile(from, info);
    OpenFile target(to, O_WRONLY | O_CREAT | O_TRUNC);
    if (!target.isOpen()) throw PlatformError::fromErrno(errno, "Couldn't write", to.string());
    try {
        copyContent(source.get(), target.get(), from, to);
        // A copy that is moved into place afterwards must be on the disk before the move.
        if (::fsync(target.get()) != 0 || target.close() != 0)
            throw PlatformError::fromErrno(errno, "Couldn't write", to.string());
    } catch (...) {
        ::unlink(to.c_str());
        throw;
    }
}

void move(const std::filesystem::path& from, const std::filesystem::path& to) {
    if (::rename(from.c_str(), to.c_str()) != 0) throw PlatformError::fromErrno(errno, "Couldn't move", from.string());
    syncFolder(to.parent_path());
}

void remove(const std::filesystem::path& path) {
    std::error_code error;
    std::filesystem::remove_all(path, error);
    if (error) throw PlatformError::fromErrno(error.value(), "Couldn't remove", path.string());
}

void makePrivateFolder(const std::filesystem::path& path) {
    if (::mkdir(path.c_str(), 0700) != 0)
        throw PlatformError::fromErrno(errno, "Couldn't create folder", path.string());
    // The umask may only have taken bits away; the owner needs all three.
    if (::chmod(path.c_str(), 0700) != 0) {
        const int code = errno;
        ::rmdir(path.c_str());
        throw PlatformError::fromErrno(code, "Couldn't create folder", path.string());
    }
}

void writeNewPrivateFile(const std::filesystem::path& path, std::string_view bytes) {
    auto file = createExclusively(path, 0600);
    try {
        writeAll(file.get(), bytes, path);
        if (file.close() != 0) throw PlatformError::fromErrno(errno, "Couldn't write", path.string());
    } catch (...) {
        ::unlink(path.c_str());
        throw;
    }
}

void copyToNewPrivateFile(const std::filesystem::path& source, const std::filesystem::path& destination) {
    struct stat info {};
    const auto input = openRegularFile(source, info);
    auto output = createExclusively(destination, 0600);
    try {
        copyContent(input.get(), output.get(), source, destination);
        if (output.close() != 0) throw PlatformError::fromErrno(errno, "Couldn't write", destination.string());
    } catch (...) {
        ::unlink(destination.c_str());
        throw;
    }
}

} // namespace posix

std::string randomUUID() {
    std::array<unsigned char, 16> bytes{};
    size_t filled = 0;
    while (filled < bytes.size()) {
        const ssize_t count = ::getrandom(bytes.data() + filled, bytes.size() - filled, 0);
        if (count > 0) {
            filled += static_cast<size_t>(count);
        } else if (errno != EINTR) {
            throw PlatformError::fromErrno(errno, "Couldn't read", "the system's random source");
        }
    }
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40); // version 4
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80); // RFC 4122 variant

    static constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(36);
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text.push_back('-');
        text.push_back(digits[bytes[i] >> 4]);
        text.push_back(digits[bytes[i] & 0x0F]);
    }
    return text;
}

void write(const std::filesystem::path& path, std::string_view bytes) { FileSystem::current().write(path, bytes); }

void writeAtomically(const std::filesystem::path& path, std::string_view bytes) {
    FileSystem::current().writeAtomically(path, bytes);
}

void createDirectories(const std::filesystem::path& path) { FileSystem::current().createDirectories(path); }

void setPermissions(const std::filesystem::path& path, unsigned mode) {
    FileSystem::current().setPermissions(path, mode);
}

void copyFile(const std::filesystem::path& from, const std::filesystem::path& to) {
    FileSystem::current().copyFile(from, to);
}

void moveItem(const std::filesystem::path& from, const std::filesystem::path& to) {
    FileSystem::current().moveItem(from, to);
}

void removeItem(const std::filesystem::path& path) { FileSystem::current().removeItem(path); }

FolderLock::FolderLock(const std::filesystem::path& folder)
    : fd_(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (fd_ < 0) return;
    while (::flock(fd_, LOCK_EX) != 0) {
        if (errno == EINTR) continue;
        ::close(fd_);
        fd_ = -1;
        return;
    }
}

FolderLock::~FolderLock() {
    // Closing the last descriptor of the open folder lets the lock go.
    if (fd_ >= 0) ::close(fd_);
}

void createPrivateFolder(const std::filesystem::path& path) { FileSystem::current().createPrivateFolder(path); }

void writePrivately(const std::filesystem::path& path, std::string_view bytes) {
    FileSystem::current().writePrivately(path, bytes);
}

void copyPrivately(const std::filesystem::path& source, const std::filesystem::path& destination) {
    FileSystem::current().copyPrivately(source, destination);
}

} // namespace morvane::files

namespace morvane {
namespace {

class PosixFileSystem final : public FileSystem {
public:
    void write(const std::filesystem::path& path, std::string_view bytes) override {
        files::posix::writeInPlace(path, bytes);
    }
    void writeAtomically(const std::filesystem::path& path, std::string_view bytes) override {
        files::posix::writeAndRename(path, bytes);
    }
    void createDirectories(const std::filesystem::path& path) override { files::posix::makeFolders(path); }
    void setPermissions(const std::filesystem::path& path, unsigned mode) override {
        files::posix::changeMode(path, mode);
    }
    void copyFile(const std::filesystem::path& from, const std::filesystem::path& to) override {
        files::posix::copy(from, to);
    }
    void moveItem(const std::filesystem::path& from, const std::filesystem::path& to) override {
        files::posix::move(from, to);
    }
    void removeItem(const std::filesystem::path& path) override { files::posix::remove(path); }
    void createPrivateFolder(const std::filesystem::path& path) override { files::posix::makePrivateFolder(path); }
    void writePrivately(const std::filesystem::path& path, std::string_view bytes) override {
        files::posix::writeNewPrivateFile(path, bytes);
    }
    void copyPrivately(const std::filesystem::path& source, const std::filesystem::path& destination) override {
        files::posix::copyToNewPrivateFile(source, destination);
    }
};

} // namespace

FileSystem& FileSystem::system() {
    static PosixFileSystem fileSystem;
    return fileSystem;
}

} // namespace morvane
