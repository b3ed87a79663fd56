#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace morvane {

// The systemd user timer that takes a restore point every hour (the units installed with the
// program), turned on and off through `systemctl --user`. Blocks while systemctl runs.
namespace SnapshotTimer {

inline constexpr std::string_view unit = "morvane-snapshot.timer";
inline constexpr std::string_view systemctl = "/usr/bin/systemctl";

struct Status {
    bool installed = false;
    bool enabled = false; // starts with the user's session
    bool active = false;  // waiting for its next run now
    // When it runs next, as systemctl words it; nothing when it isn't waiting.
    std::optional<std::string> nextRun;
};

// Enables and starts the timer, or stops and disables it. Throw RestoreError, worded for where
// there is no systemctl, no systemd user instance for this session, or no installed timer.
void enable();
void disable();
// Throws as enable does, except that a timer that isn't installed is a status.
Status status();

} // namespace SnapshotTimer
} // namespace morvane
