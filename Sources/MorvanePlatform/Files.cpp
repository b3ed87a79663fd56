#include "MorvanePlatform/Files.h"

#include "MorvanePlatform/Error.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

namespace morvane::files {
namespace {

class OpenFile {
public:
    OpenFile(const std::filesystem::path& path, int flags, mode_t mode = 0666)
        : fd_(::open(path.c_str(), flags | O_CLOEXEC, mode)) {}
    ~OpenFile() {
        if (fd_ >= 0) ::close(fd_);
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

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

void syncFolder(const std::filesystem::path& folder) {
    OpenFile directory(folder.empty() ? "." : folder, O_RDONLY | O_DIRECTORY);
    // A folder that can't be synced still holds the renamed file; only durability is weaker.
    if (directory.isOpen()) ::fsync(directory.get());
}

} // namespace

std::string read(const std::filesystem::path& path) {
    OpenFile file(path, O_RDONLY);
    if (!file.isOpen()) throw PlatformError::fromErrno(errno, "Couldn't read", path.string());
    struct stat info {};
    if (::fstat(file.get(), &info) == 0 && S_ISDIR(info.st_mode))
        throw PlatformError::fromErrno(EISDIR, "Couldn't read", path.string());

    std::string content;
    if (info.st_size > 0) content.reserve(static_cast<size_t>(info.st_size));
    char buffer[65536];
    for (;;) {
        const ssize_t count = ::read(file.get(), buffer, sizeof buffer);
        if (count > 0) {
            content.append(buffer, static_cast<size_t>(count));
        } else if (count == 0) {
            return content;
        } else if (errno != EINTR) {
            throw PlatformError::fromErrno(errno, "Couldn't read", path.string());
        }
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
    {
        OpenFile file(temporary, O_WRONLY | O_CREAT | O_EXCL);
        if (!file.isOpen()) throw PlatformError::fromErrno(errno, "Couldn't write", path.string());
        try {
            writeAll(file.get(), bytes, path);
            // The data must be on the disk before the rename makes it the file's content.
            if (::fsync(file.get()) != 0 || file.close() != 0)
                throw PlatformError::fromErrno(errno, "Couldn't write", path.string());
        } catch (...) {
            ::unlink(temporary.c_str());
            throw;
        }
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        const int code = errno;
        ::unlink(temporary.c_str());
        throw PlatformError::fromErrno(code, "Couldn't write", path.string());
    }
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

void copy(const std::filesystem::path& from, const std::filesystem::path& to) {
    OpenFile source(from, O_RDONLY);
    if (!source.isOpen()) throw PlatformError::fromErrno(errno, "Couldn't read", from.string());
    OpenFile target(to, O_WRONLY | O_CREAT | O_TRUNC);
    if (!target.isOpen()) throw PlatformError::fromErrno(errno, "Couldn't write", to.string());
    try {
        char buffer[65536];
        for (;;) {
            const ssize_t count = ::read(source.get(), buffer, sizeof buffer);
            if (count == 0) break;
            if (count < 0) {
                if (errno == EINTR) continue;
                throw PlatformError::fromErrno(errno, "Couldn't read", from.string());
            }
            writeAll(target.get(), std::string_view(buffer, static_cast<size_t>(count)), to);
        }
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
};

} // namespace

FileSystem& FileSystem::system() {
    static PosixFileSystem fileSystem;
    return fileSystem;
}

} // namespace morvane
