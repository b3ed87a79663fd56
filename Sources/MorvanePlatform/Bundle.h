#pragma once

#include "MorvanePlatform/Replaceable.h"

#include <filesystem>
#include <optional>
#include <string>

namespace morvane {

// The running application as the desktop knows it: where it lies and its bundle identifier,
// which names its preferences.
//
// Threads: any thread, concurrently; the declared identifier is kept under a lock.
class Bundle : public Replaceable<Bundle> {
public:
    virtual ~Bundle() = default;

    // What would go to the trash to remove the application.
    virtual std::filesystem::path location() const = 0;
    // Nothing for a program that declared none (a command-line tool).
    virtual std::optional<std::string> identifier() const = 0;

    // The real implementation: the process's own executable, and the identifier the program
    // declared at start with `declareIdentifier`.
    static Bundle& system();

    // Called once by an application before its first use of the bundle, on the main thread.
    static void declareIdentifier(std::string identifier);
};

} // namespace morvane
