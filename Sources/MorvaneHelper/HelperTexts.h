#pragma once

#include "MorvaneCore/Backups/BackupSource.h"
#include "MorvaneHelper/HelperModel.h"

#include <optional>
#include <string>
#include <vector>

// What the helper says about its state, word for word, for the window and the command line alike.
namespace morvane::helperTexts {

// The bold line after a run: "The backups couldn't be read.", "Done. Added 2 restore points." or
// "Done. No new calendar changes in those backups."
std::string runHeadline(const HelperModel::Phase& finished);

// The advice after a run with failures ("1 backup couldn't be read. Is the backup disk still
// connected? Click Import Backups to try it again."); nothing without failures.
std::optional<std::string> runFailureAdvice(const HelperModel::Phase& finished);

// "Found 3 backups to copy (one per day), March 1, 2024 to March 3, 2024. This can take a few
// minutes." in the user's locale; empty when no pending backup has a date.
std::string pendingSummary(const std::vector<BackupSource>& pending);

// The line under the result: the pending summary, or how many restore points are in Morvane.
std::string statusLine(const std::vector<BackupSource>& pending, int imported);

// "Copying backup 2 of 5"
std::string copyingLabel(const HelperModel::Phase& importing);

// Whether the third step, bringing the backups in, counts as done.
bool importStepDone(const HelperModel& model);
bool importStepDone(const HelperModel::Phase& phase, int imported, const std::vector<BackupSource>& pending);

} // namespace morvane::helperTexts
