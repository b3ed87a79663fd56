#pragma once

#include "MorvanePlatform/Replaceable.h"

#include <filesystem>
#include <string>

namespace morvane {

// The desktop's handlers: opening links and applications, showing files.
//
// Threads: any thread, concurrently; the real one holds no state and only launches tools.
class Workspace : public Replaceable<Workspace> {
public:
    virtual ~Workspace() = default;

    // Hands a URL to whatever the desktop opens it with; false when nothing took it.
    virtual bool openURL(const std::string& url) = 0;
    // Starts the application with this bundle identifier; false when there is none.
    virtual bool openApplication(const std::string& bundleID) = 0;
    // Shows the file in the file manager, selected where the file manager can.
    virtual void revealInFileManager(const std::filesystem::path& file) = 0;

    // The real implementation: the freedesktop tools (xdg-open, gio, the file manager's D-Bus
    // interface) where the machine has them, through the tool launcher; nothing where it hasn't.
    static Workspace& system();
};

} // namespace morvane
