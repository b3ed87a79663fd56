#pragma once

#include "MorvanePlatform/Replaceable.h"

#include <string>
#include <vector>

namespace morvane {

// What a finished tool left behind: its termination status and everything it wrote to standard
// output and standard error, interleaved as it arrived, as raw bytes.
struct LaunchResult {
    int status = 0;
    std::string output;

    bool operator==(const LaunchResult&) const = default;
};

// Starts external tools: by absolute path, with no shell, standard input empty, and one pipe
// shared by standard output and standard error. Blocks until the tool has exited.
//
// Threads: any thread, concurrently; a launch blocks only its caller. Each launch's pipe is
// closed on exec, so a tool started by another thread at the same time never holds it open.
class ToolLauncher : public Replaceable<ToolLauncher> {
public:
    virtual ~ToolLauncher() = default;

    // Never throws. When the tool can't be started at all (missing, not executable, not an
    // absolute path) the result has status -1 and the reason as its output. A tool ended by a
    // signal reports the signal's number as status.
    virtual LaunchResult launch(const std::string& path, const std::vector<std::string>& arguments) = 0;

    // The real launcher of this machine (posix_spawn).
    static ToolLauncher& system();
};

} // namespace morvane
