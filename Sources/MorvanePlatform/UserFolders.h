#pragma once

#include "MorvanePlatform/Replaceable.h"

#include <filesystem>
#include <optional>
#include <string>

namespace morvane {

// The user's folders and name. The folders follow the Mac layout under the home folder, so
// that every path the system names ("Library/Application Support/...") holds as written and
// two programs of the user meet in the same places.
//
// Threads: any thread, concurrently. The real one reads the environment on each call; nothing
// may change the environment while other threads run.
class UserFolders : public Replaceable<UserFolders> {
public:
    virtual ~UserFolders() = default;

    virtual std::filesystem::path home() const = 0;
    virtual std::filesystem::path temporary() const = 0;
    virtual std::string userName() const = 0;

    // The home folder of another user, by login name; nothing for an unknown user.
    virtual std::optional<std::filesystem::path> homeOf(const std::string& user) const = 0;

    std::filesystem::path library() const { return home() / "Library"; }
    std::filesystem::path caches() const { return library() / "Caches"; }
    std::filesystem::path applicationSupport() const { return library() / "Application Support"; }
    std::filesystem::path preferences() const { return library() / "Preferences"; }

    // The real implementation: $HOME (or the password database), $TMPDIR (or /tmp), and the
    // login name of the process's user.
    static UserFolders& system();
};

} // namespace morvane
