#include "MorvaneCore/SnapshotStore/SnapshotTimer.h"

#include "MorvaneCore/Backups/BackupCatalog.h"
#include "MorvaneCore/Shared/Errors.h"
#include "MorvaneCore/Shared/Text.h"

#include <map>

namespace morvane::SnapshotTimer {
namespace {

constexpr const char* turningOn =
    "the hourly timer can't be turned on; run morvane snapshot from another scheduler (such as cron) instead.";
constexpr const char* turningOff = "the hourly timer can't be turned off, nor can it run.";
constexpr const char* asking = "the hourly timer can't run here.";

// Runs systemctl on the user's instance and gives its output, or throws why it couldn't run;
// `consequence` says what that means for the timer.
std::string systemctlUser(std::vector<std::string> arguments, const char* consequence) {
    arguments.insert(arguments.begin(), "--user");
    const auto result = BackupCatalog::run(std::string(systemctl), arguments);
    const auto& output = result.output;
    if (result.status == -1) throw RestoreError("systemctl isn't on this machine, so " + std::string(consequence));
    if (output.find("Failed to connect to bus") != std::string::npos)
        throw RestoreError("There is no systemd user instance for this session (systemctl --user can't reach it), "
                           "so " +
                           std::string(consequence));
    if (result.status == 0) return output;
    if (output.find("does not exist") != std::string::npos || output.find("not found") != std::string::npos)
        throw RestoreError("The timer " + std::string(unit) +
                           " isn't installed: install Morvane with cmake --install, which puts it in "
                           "lib/systemd/user.");
    throw RestoreError("systemctl couldn't do it: " + std::string(text::trimmingWhitespaceAndNewlines(output)));
}

} // namespace

void enable() { systemctlUser({"enable", "--now", std::string(unit)}, turningOn); }

void disable() { systemctlUser({"disable", "--now", std::string(unit)}, turningOff); }

Status status() {
    const auto output = systemctlUser({"show", std::string(unit), "--property=LoadState", "--property=UnitFileState",
                                       "--property=ActiveState", "--property=NextElapseUSecRealtime"},
                                      asking);
    std::map<std::string, std::string, std::less<>> properties;
    for (const auto line : text::nonEmptyLines(output)) {
        const auto equals = line.find('=');
        if (equals == std::string_view::npos) continue;
        properties[std::string(line.substr(0, equals))] = std::string(text::trimming(line.substr(equals + 1), " \t\r"));
    }
    Status status;
    status.installed = properties["LoadState"] == "loaded";
    status.enabled = properties["UnitFileState"] == "enabled";
    status.active = properties["ActiveState"] == "active";
    if (const auto& next = properties["NextElapseUSecRealtime"]; status.active && !next.empty() && next != "n/a")
        status.nextRun = next;
    return status;
}

} // namespace morvane::SnapshotTimer
