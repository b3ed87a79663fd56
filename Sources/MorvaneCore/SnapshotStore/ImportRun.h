#pragma once

#include "MorvaneCore/Backups/BackupSource.h"
#include "MorvaneCore/SnapshotStore/CalendarArchive.h"

#include <optional>
#include <stop_token>
#include <string>
#include <vector>

// A run that copies the pending Time Machine backups into a store one after the other, the phases
// a front end shows around it, and the words for them. The helper's window and the command line
// drive the same run and say the same things.
namespace morvane::ImportRun {

// Where the import stands, compared by case and payload.
struct Phase {
    enum class Case { idle, scanning, importing, finished, failed };
    Case which = Case::idle;
    // importing: backup number `done` (from 0) of `total`, `current` its date for display.
    int done = 0;
    int total = 0;
    std::string current;
    // finished: `added` restore points from `checked` backups tried, `failed` of them failed.
    int added = 0;
    int checked = 0;
    int failed = 0;
    // failed: a message to show.
    std::string message;

    static Phase idle() { return {}; }
    static Phase scanning() { return {.which = Case::scanning}; }
    static Phase importing(int done, int total, std::string current) {
        return {.which = Case::importing, .done = done, .total = total, .current = std::move(current)};
    }
    static Phase finished(int added, int checked, int failed) {
        return {.which = Case::finished, .added = added, .checked = checked, .failed = failed};
    }
    static Phase failure(std::string message) { return {.which = Case::failed, .message = std::move(message)}; }

    bool isBusy() const { return which == Case::scanning || which == Case::importing; }
    friend bool operator==(const Phase&, const Phase&) = default;
};

// What a front end implements to follow a run.
class Progress {
public:
    virtual ~Progress() = default;
    // Called on the run's thread with `importing` for each backup before its copy starts, so
    // `done` counts the backups finished so far. The run waits for it to return.
    virtual void copying(const Phase& importing) = 0;
};

// Copies `backups` into `archive` in list order, each one once (TimeMachineImports::importBackup).
// A backup that fails is counted and logged to the system log as "Time Machine Helper: {date}:
// {error}", and the run goes on. Once `stop` is requested the run ends before the next backup.
// Returns finished(added, tried, failed). Blocking: keep it off the interface's thread.
Phase copyAll(const std::vector<BackupSource>& backups, CalendarArchive& archive, Progress& progress,
              std::stop_token stop = {});

// Why backups can't be read yet, and what the user does about it.
inline constexpr const char* fullDiskAccessAdvice =
    "macOS only lets apps read Time Machine backups with Full Disk Access. Turn on Morvane Time Machine Helper in "
    "Privacy & Security → Full Disk Access, then come back.";

// The first line after a run: "The backups couldn't be read.", "Done. Added 2 restore points." or
// "Done. No new calendar changes in those backups."
std::string headline(const Phase& finished);

// The advice after a run with failures ("1 backup couldn't be read. Is the backup disk still
// connected? Click Import Backups to try it again."); nothing without failures.
std::optional<std::string> failureAdvice(const Phase& finished);

// "Found 3 backups to copy (one per day), March 1, 2024 to March 3, 2024. This can take a few
// minutes." in the user's locale; empty when no pending backup has a date.
std::string pendingSummary(const std::vector<BackupSource>& pending);

// The line under a result: the pending summary, or how many restore points are in Morvane.
std::string statusLine(const std::vector<BackupSource>& pending, int imported);

// "Copying backup 2 of 5"
std::string copyingLabel(const Phase& importing);

} // namespace morvane::ImportRun
