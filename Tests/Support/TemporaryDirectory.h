#pragma once

#include <filesystem>
#include <string_view>

namespace morvane::testing {

// A fresh folder under the system's temporary folder, removed with everything in it at the end
// of the scope (permissions restored first, so that tests may lock parts of it).
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }

    // Writes `content` to `relative`, creating the folders above it; returns the full path.
    std::filesystem::path write(const std::filesystem::path& relative, std::string_view content = {}) const;
    // Creates the folder `relative` with the folders above it; returns the full path.
    std::filesystem::path makeFolder(const std::filesystem::path& relative) const;

private:
    std::filesystem::path path_;
};

} // namespace morvane::testing
