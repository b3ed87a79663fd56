#include "MorvanePlatform/Volumes.h"

#include <climits>
#include <cstdlib>
#include <memory>
#include <mntent.h>
#include <string_view>

namespace morvane {
namespace {

// True when `directory` is `path` or one of the folders above it.
bool contains(std::string_view directory, std::string_view path) {
    if (directory == "/") return true;
    if (!path.starts_with(directory)) return false;
    return path.size() == directory.size() || path[directory.size()] == '/';
}

class MountTableVolumes final : public Volumes {
public:
    std::optional<std::string> deviceOf(const std::string& path) override {
        std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr), &std::free);
        if (!real) return std::nullopt;
        const std::string_view resolved(real.get());

        std::unique_ptr<FILE, decltype(&::endmntent)> table(::setmntent("/proc/self/mounts", "r"), &::endmntent);
        if (!table) return std::nullopt;

        // The file system holding the path is the mount with the longest matching mount point;
        // of several at one point, the last mounted covers the others.
        std::optional<std::string> device;
        size_t bestLength = 0;
        mntent entry{};
        char buffer[4 * PATH_MAX];
        while (::getmntent_r(table.get(), &entry, buffer, sizeof buffer) != nullptr) {
            const std::string_view directory(entry.mnt_dir);
            if (!contains(directory, resolved) || directory.size() < bestLength) continue;
            bestLength = directory.size();
            device = entry.mnt_fsname;
        }
        return device;
    }
};

} // namespace

Volumes& Volumes::system() {
    static MountTableVolumes volumes;
    return volumes;
}

} // namespace morvane
