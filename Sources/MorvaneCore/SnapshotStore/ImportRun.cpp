#include "MorvaneCore/SnapshotStore/ImportRun.h"

#include "MorvaneCore/Shared/DateFormatting.h"
#include "MorvaneCore/SnapshotStore/TimeMachineImports.h"
#include "MorvanePlatform/SystemLog.h"

#include <algorithm>

namespace morvane::ImportRun {
namespace {

std::string plural(int count) { return count == 1 ? "" : "s"; }

} // namespace

Phase copyAll(const std::vector<BackupSource>& backups, CalendarArchive& archive, Progress& progress,
              std::stop_token stop) {
    const int total = static_cast<int>(backups.size());
    int tried = 0;
    int added = 0;
    int failed = 0;
    for (const auto& source : backups) {
        if (stop.stop_requested()) break;
        const auto shown = source.date ? dates::abbreviatedDateTime(*source.date) : std::string();
        progress.copying(Phase::importing(tried, total, shown));
        // Asked to stop while the front end showed the backup: it isn't started any more.
        if (stop.stop_requested()) break;
        ++tried;
        try {
            const auto result = TimeMachineImports::importBackup(source, archive);
            if (result.which == CalendarArchive::SnapshotResult::Case::saved) ++added;
        } catch (const std::exception& error) {
            // One unreadable backup never stops the others; the user sees the count, the log the reason.
            ++failed;
            SystemLog::current().write("Time Machine Helper: " + shown + ": " + error.what());
        }
    }
    return Phase::finished(added, tried, failed);
}

std::string headline(const Phase& finished) {
    if (finished.failed == finished.checked) return "The backups couldn't be read.";
    if (finished.added != 0)
        return "Done. Added " + std::to_string(finished.added) + " restore point" + plural(finished.added) + ".";
    return "Done. No new calendar changes in those backups.";
}

std::optional<std::string> failureAdvice(const Phase& finished) {
    if (finished.failed < 1) return std::nullopt;
    return std::to_string(finished.failed) + " backup" + plural(finished.failed) +
           " couldn't be read. Is the backup disk still connected? Click Import Backups to try " +
           (finished.failed == 1 ? "it" : "them") + " again.";
}

std::string pendingSummary(const std::vector<BackupSource>& pending) {
    std::vector<Date> moments;
    for (const auto& source : pending) {
        if (source.date) moments.push_back(*source.date);
    }
    if (moments.empty()) return {};
    const auto [earliest, latest] = std::minmax_element(moments.begin(), moments.end());
    std::string range = dates::longDate(*earliest);
    if (*latest != *earliest) range += " to " + dates::longDate(*latest);
    const int count = static_cast<int>(moments.size());
    return "Found " + std::to_string(count) + " backup" + plural(count) + " to copy (one per day), " + range +
           ". This can take a few minutes.";
}

std::string statusLine(const std::vector<BackupSource>& pending, int imported) {
    if (!pending.empty()) return pendingSummary(pending);
    if (imported == 0) return "No Time Machine backups found.";
    if (imported == 1)
        return "1 restore point from Time Machine is in Morvane, on its timeline. Run the helper again any time to "
               "bring in newer backups.";
    return std::to_string(imported) +
           " restore points from Time Machine are in Morvane, on its timeline. Run the helper again any time to "
           "bring in newer backups.";
}

std::string copyingLabel(const Phase& importing) {
    return "Copying backup " + std::to_string(importing.done + 1) + " of " + std::to_string(importing.total);
}

} // namespace morvane::ImportRun
