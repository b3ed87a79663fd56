// The freedesktop trash: an item goes to Trash/files/{name} and a Trash/info/{name}.trashinfo
// records where it came from and when, so that file managers can restore it. The info file is
// created first and exclusively, which reserves the name against other programs trashing at
// the same moment; if the move then fails, the info file goes again.
#include "MorvanePlatform/Trash.h"

#include "MorvanePlatform/Error.h"
#include "MorvanePlatform/Files.h"
#include "MorvanePlatform/UserFolders.h"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

namespace morvane {
namespace {

std::filesystem::path trashFolder() {
    const char* dataHome = std::getenv("XDG_DATA_HOME");
    const std::filesystem::path base = dataHome != nullptr && *dataHome == '/'
                                           ? std::filesystem::path(dataHome)
                                           : UserFolders::current().home() / ".local/share";
    return base / "Trash";
}

// Percent-encodes a path as the trash's info files want it: bytes outside the unreserved set
// and "/" are escaped.
std::string encodedPath(const std::string& path) {
    static const char* hex = "0123456789ABCDEF";
    std::string encoded;
    for (const unsigned char c : path) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '/' ||
                           c == '-' || c == '_' || c == '.' || c == '~';
        if (plain) {
            encoded += static_cast<char>(c);
        } else {
            encoded += '%';
            encoded += hex[c >> 4];
            encoded += hex[c & 0xF];
        }
    }
    return encoded;
}

std::string localTimeNow() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &local);
    return text;
}

class FreedesktopTrash final : public Trash {
public:
    std::filesystem::path trashItem(const std::filesystem::path& item) override {
        const auto absolute = std::filesystem::absolute(item).lexically_normal();
        std::error_code error;
        if (!std::filesystem::exists(std::filesystem::symlink_status(absolute, error)))
            throw PlatformError::fromErrno(ENOENT, "Couldn't move to the trash", absolute.string());

        const auto trash = trashFolder();
        files::createDirectories(trash / "files");
        files::createDirectories(trash / "info");

        const auto name = absolute.filename().string();
        const auto stem = absolute.stem().string();
        const auto extension = absolute.extension().string();
        const std::string info =
            "[Trash Info]\nPath=" + encodedPath(absolute.string()) + "\nDeletionDate=" + localTimeNow() + "\n";
        for (int attempt = 1; attempt < 10000; ++attempt) {
            const auto candidate = attempt == 1 ? name : stem + "." + std::to_string(attempt) + extension;
            const auto infoFile = trash / "info" / (candidate + ".trashinfo");
            const int fd = ::open(infoFile.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
            if (fd < 0) {
                if (errno == EEXIST) continue;
                throw PlatformError::fromErrno(errno, "Couldn't move to the trash", absolute.string());
            }
            const bool written = ::write(fd, info.data(), info.size()) == static_cast<ssize_t>(info.size());
            ::close(fd);
            const auto target = trash / "files" / candidate;
            if (!written) {
                ::unlink(infoFile.c_str());
                throw PlatformError::fromErrno(EIO, "Couldn't move to the trash", absolute.string());
            }
            if (std::filesystem::exists(std::filesystem::symlink_status(target, error))) {
                // A stray file without its info: keep it, take the next name.
                ::unlink(infoFile.c_str());
                continue;
            }
            // A rename never copies: an item on another volume than the trash stays where it is.
            if (std::rename(absolute.c_str(), target.c_str()) != 0) {
                const int code = errno;
                ::unlink(infoFile.c_str());
                throw PlatformError::fromErrno(code, "Couldn't move to the trash", absolute.string());
            }
            return target;
        }
        throw PlatformError::fromErrno(EEXIST, "Couldn't move to the trash", absolute.string());
    }
};

} // namespace

Trash& Trash::system() {
    static FreedesktopTrash trash;
    return trash;
}

} // namespace morvane
