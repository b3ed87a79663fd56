#pragma once

#include <iosfwd>

namespace morvane::cli {

struct ScheduleOptions {
    enum class Action { enable, disable, status };
    Action action = Action::status;
};

// `morvane schedule enable | disable | status`: the hourly restore point of the systemd user
// timer. Throws, for exit 1, where there is no systemd user instance or no installed timer.
int runSchedule(const ScheduleOptions& options, std::ostream& out);

} // namespace morvane::cli
