#include "MorvanePlatform/DiskUsage.h"

#include <sys/stat.h>

namespace morvane::files {

std::optional<std::int64_t> allocatedBytes(const std::filesystem::path& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
    // POSIX counts st_blocks in units of 512 bytes, whatever the file system's block size.
    return static_cast<std::int64_t>(status.st_blocks) * 512;
}

} // namespace morvane::files
