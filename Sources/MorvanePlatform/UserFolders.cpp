#include "MorvanePlatform/UserFolders.h"

#include <cstdlib>
#include <pwd.h>
#include <unistd.h>
#include <vector>

namespace morvane {
namespace {

std::string environment(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

// The password database's entry for the process's user, read into `buffer`.
const passwd* ownEntry(passwd& entry, std::vector<char>& buffer) {
    const long suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    buffer.resize(suggested > 0 ? static_cast<size_t>(suggested) : 16384);
    passwd* found = nullptr;
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) != 0) return nullptr;
    return found;
}

class EnvironmentUserFolders final : public UserFolders {
public:
    std::filesystem::path home() const override {
        if (auto value = environment("HOME"); !value.empty()) return value;
        passwd entry{};
        std::vector<char> buffer;
        if (const passwd* own = ownEntry(entry, buffer); own != nullptr && own->pw_dir != nullptr) return own->pw_dir;
        return "/";
    }

    std::filesystem::path temporary() const override {
        if (auto value = environment("TMPDIR"); !value.empty()) return value;
        return "/tmp";
    }

    std::string userName() const override {
        passwd entry{};
        std::vector<char> buffer;
        if (const passwd* own = ownEntry(entry, buffer); own != nullptr && own->pw_name != nullptr) return own->pw_name;
        if (auto value = environment("USER"); !value.empty()) return value;
        return std::to_string(::getuid());
    }

    std::optional<std::filesystem::path> homeOf(const std::string& user) const override {
        std::vector<char> buffer(16384);
        passwd entry{};
        passwd* found = nullptr;
        if (::getpwnam_r(user.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr ||
            found->pw_dir == nullptr)
            return std::nullopt;
        return found->pw_dir;
    }
};

} // namespace

UserFolders& UserFolders::system() {
    static EnvironmentUserFolders folders;
    return folders;
}

} // namespace morvane
