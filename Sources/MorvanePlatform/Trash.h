#pragma once

#include "MorvanePlatform/Replaceable.h"

#include <filesystem>

namespace morvane {

// The user's trash, from which the desktop's file manager can put items back.
//
// Threads: any thread, concurrently; a name in the trash is claimed by creating its info file
// exclusively, so two moves at once never take the same one.
class Trash : public Replaceable<Trash> {
public:
    virtual ~Trash() = default;

    // Moves a file or folder into the trash and returns where it went. Throws PlatformError
    // when it can't; the item then stays where it was.
    virtual std::filesystem::path trashItem(const std::filesystem::path& item) = 0;

    // The real implementation: the freedesktop home trash, $XDG_DATA_HOME/Trash or
    // ~/.local/share/Trash, with its "files" and "info" folders.
    static Trash& system();
};

} // namespace morvane
