#include "Support/TemporaryDirectory.h"

#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>

namespace morvane::testing {

namespace fs = std::filesystem;

TemporaryDirectory::TemporaryDirectory() {
    std::string pattern = (fs::temp_directory_path() / "morvane-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    for (auto it = fs::recursive_directory_iterator(path_, fs::directory_options::skip_permission_denied, ignored);
         it != fs::recursive_directory_iterator(); it.increment(ignored)) {
        if (it->is_directory(ignored) && !it->is_symlink(ignored))
            fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
    }
    fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, ignored);
    // A second pass reaches folders that were unreadable during the first.
    for (auto it = fs::recursive_directory_iterator(path_, ignored); it != fs::recursive_directory_iterator();
         it.increment(ignored)) {
        if (it->is_directory(ignored) && !it->is_symlink(ignored))
            fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
    }
    fs::remove_all(path_, ignored);
}

fs::path TemporaryDirectory::write(const fs::path& relative, std::string_view content) const {
    const auto full = path_ / relative;
    fs::create_directories(full.parent_path());
    std::ofstream(full, std::ios::binary).write(content.data(), static_cast<std::streamsize>(content.size()));
    return full;
}

fs::path TemporaryDirectory::makeFolder(const fs::path& relative) const {
    const auto full = path_ / relative;
    fs::create_directories(full);
    return full;
}

} // namespace morvane::testing
