#pragma once

#include <iosfwd>

namespace morvane::cli {

struct TimeMachineOptions {
    enum class Action { pending, import } action = Action::pending;
    bool json = false;
};

// `morvane timemachine pending [--json]`: the backups the helper would copy, oldest first.
// `morvane timemachine import`: the helper's flow without its window, with progress and the
// helper's own words for the result. Fails (status 1) when a backup couldn't be read or the
// calendars can't be reached.
int runTimeMachine(const TimeMachineOptions& options, std::ostream& out, std::ostream& err);

} // namespace morvane::cli
