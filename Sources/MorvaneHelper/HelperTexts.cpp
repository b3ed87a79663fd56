#include "MorvaneHelper/HelperTexts.h"

#include "MorvaneCore/Shared/DateFormatting.h"

#include <algorithm>

namespace morvane::helperTexts {
namespace {

std::string plural(int count) { return count == 1 ? "" : "s"; }

} // namespace

std::string runHeadline(const HelperModel::Phase& finished) {
    if (finished.failed == finished.checked) return "The backups couldn't be read.";
    if (finished.added != 0)
        return "Done. Added " + std::to_string(finished.added) + " restore point" + plural(finished.added) + ".";
    return "Done. No new calendar changes in those backups.";
}

std::optional<std::string> runFailureAdvice(const HelperModel::Phase& finished) {
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

std::string copyingLabel(const HelperModel::Phase& importing) {
    return "Copying backup " + std::to_string(importing.done + 1) + " of " + std::to_string(importing.total);
}

bool importStepDone(const HelperModel& model) {
    return importStepDone(model.phase(), model.imported(), model.pending());
}

bool importStepDone(const HelperModel::Phase& phase, int imported, const std::vector<BackupSource>& pending) {
    if (phase.which == HelperModel::Phase::Case::finished) return true;
    return imported >= 1 && pending.empty() && !phase.isBusy();
}

} // namespace morvane::helperTexts
