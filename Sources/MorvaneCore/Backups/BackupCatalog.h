#pragma once

#include "MorvaneCore/Backups/BackupSource.h"
#include "MorvaneCore/Backups/OpenedBackup.h"
#include "MorvaneCore/IcsArchives/IcsArchive.h"
#include "MorvaneCore/Shared/Date.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace morvane {

class SnapshotMount;

// Where backups are, and the one door to external tools. No instances, no state. Everything
// here blocks while tools run; callers keep it off the interface's thread.
namespace BackupCatalog {

inline constexpr std::string_view snapshotNamePrefix = "com.apple.TimeMachine.";
inline constexpr std::string_view localSnapshotSuffix = ".local";
inline constexpr std::string_view backupSnapshotSuffix = ".backup";
inline constexpr std::string_view dataVolume = "/System/Volumes/Data";
inline constexpr std::string_view timeMachineFolder = ".timemachine";

struct ToolResult {
    std::int32_t status = 0;
    std::string output;
};

// Runs the tool at the absolute `path` with `arguments` and no shell; standard output and
// standard error arrive mixed in `output`, decoded as UTF-8 with ill-formed bytes repaired.
// Never throws: a tool that can't be launched gives status -1 and the reason as output.
ToolResult run(const std::string& path, const std::vector<std::string>& arguments);

// Appends the local snapshots and the backups on the Time Machine disk to `into`, and any
// note in words on why fewer are listed to `notes`. Never fails.
void listTimeMachine(std::vector<BackupSource>& into, std::vector<std::string>& notes);

// Sorts newest first, a source without a date counting as the distant past. Stable: undated
// sources end the list in the order they were listed.
void sortNewestFirst(std::vector<BackupSource>& sources);

// Appends this program's own restore points, newest first; then the copies in the shared folder
// (this computer's own copies only where the store doesn't hold the same stamp); then the
// restore points brought in from Time Machine. Never fails.
void appendAppSnapshots(std::vector<BackupSource>& into);

struct Listing {
    std::vector<BackupSource> sources;
    std::vector<std::string> notes;
};

// Everything that can be offered for restoring, newest first, undated last: the Time Machine
// sources (with `timeMachine`; without it no tool runs) and appendAppSnapshots. Never fails:
// problems make fewer sources and at most a note.
Listing list(bool timeMachine);

// Reads "yyyy-MM-dd-HHmmss" as local wall-clock time; nothing when the text isn't exactly that.
std::optional<Date> parseStamp(std::string_view text);

// A source made readable. Owns its mount: when the value goes, the mount is taken away, unless
// it was moved on to an owner that holds it longer (an OpenedBackup). Move-only.
struct PreparedSource {
    PreparedSource(std::string root, std::shared_ptr<SnapshotMount> mount);
    ~PreparedSource();
    PreparedSource(PreparedSource&&) noexcept = default;
    PreparedSource& operator=(PreparedSource&&) = delete;
    PreparedSource(const PreparedSource&) = delete;
    PreparedSource& operator=(const PreparedSource&) = delete;

    std::string root;
    // Present when a snapshot had to be mounted (or borrowed) to read the backup.
    std::shared_ptr<SnapshotMount> mount;
};

// Turns a source into a folder (or file) that can be read, mounting an APFS snapshot where
// needed. Throws RestoreError when a Time Machine backup's disk can't be told, and passes on
// the errors of mounting.
PreparedSource prepare(const BackupSource& source);

struct SnapshotLocation {
    std::string name;
    std::string volume;

    friend bool operator==(const SnapshotLocation&, const SnapshotLocation&) = default;
};

// The APFS snapshot and its volume's mount point behind a snapshot-based backup path of the form
// .../.timemachine/{volume UUID}/{stamp}.backup/...; nothing for any other path or any problem.
std::optional<SnapshotLocation> timeMachineSnapshot(const std::string& path);

// Classes a path a user typed or picked, a leading tilde expanded: a Time Machine backup, a local
// snapshot's name, a stored restore point, a folder of .ics files without a calendar database in
// it, else a database file or a folder holding one. Never picked; touches the disk only to tell a
// folder of .ics files from one holding a database.
BackupSource source(std::string_view forPath);

// The source a user means by BACKUP on the command line: the `id` of a listed source, as
// `morvane backups --json` gives it, or else anything `source` classes. A text that starts like
// an id ("tm:", "snap:", ...) and is no existing path must be a listed source's id; otherwise
// this throws RestoreError "No backup has the id {text}. Run 'morvane backups' for the list.".
// Runs Time Machine's tools only for an id of a Time Machine source.
BackupSource resolve(std::string_view backup);

// Opens a source for reading through the backup cache: a Time Machine backup or local snapshot
// read once before comes from its cached copy, without the disk or a mount. Several threads
// opening one uncached source are serialised: one reads it while the others wait (on a
// condition, without a limit), then use the cache. Throws what opening the source throws;
// nothing stays staged or mounted then. The caller owns what comes back.
OpenedBackup open(const BackupSource& source);

// Opens a source from the source itself, never through the cache.
OpenedBackup openUncached(const BackupSource& source);

// Fills the cache for a cacheable source that isn't cached yet, leaving nothing open.
void prepareCache(const BackupSource& source);

// A resolver that matches the calendars of an .ics archive against this Mac's calendars, read
// from a staged copy of the live database that is gone again when this returns. When the live
// database can't be staged, opened or read, the resolver knows no calendar; only what no
// reader can help (running out of memory, a broken invariant) is thrown.
CalendarResolver liveCalendarResolver();

} // namespace BackupCatalog
} // namespace morvane
