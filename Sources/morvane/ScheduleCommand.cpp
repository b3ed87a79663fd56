#include "morvane/ScheduleCommand.h"

#include "MorvaneCore/SnapshotStore/SnapshotTimer.h"
#include "morvane/CommandLine.h"

#include <ostream>

namespace morvane::cli {

int runSchedule(const ScheduleOptions& options, std::ostream& out) {
    using Action = ScheduleOptions::Action;
    switch (options.action) {
    case Action::enable:
        SnapshotTimer::enable();
        out << "A restore point is now taken every hour (" << SnapshotTimer::unit << ").\n";
        return exitSuccess;
    case Action::disable:
        SnapshotTimer::disable();
        out << "Restore points are no longer taken every hour.\n";
        return exitSuccess;
    case Action::status: {
        const auto status = SnapshotTimer::status();
        if (!status.installed) {
            out << "The hourly timer (" << SnapshotTimer::unit
                << ") isn't installed; install Morvane with cmake --install.\n";
        } else if (status.enabled || status.active) {
            out << "A restore point is taken every hour";
            if (status.nextRun) out << "; the next at " << *status.nextRun;
            out << ".\n";
        } else {
            out << "The hourly timer is off; morvane schedule enable turns it on.\n";
        }
        return exitSuccess;
    }
    }
    return exitUsage;
}

} // namespace morvane::cli
