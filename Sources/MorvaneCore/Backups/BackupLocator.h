#pragma once

#include "MorvaneCore/Backups/StagedCopy.h"
#include "MorvaneCore/LiveCalendars/CurrentEvents.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace morvane {

// Where the calendar database lies, in the live home folder and inside backups of any layout,
// and the private working copies ("staged copies") that every reader opens instead of the
// original. A registry of staged folders lets the process remove them all at its end.
namespace BackupLocator {

// The database's path inside a home folder.
inline constexpr std::string_view relativeDBPath =
    "Library/Group Containers/group.com.apple.calendar/Calendar.sqlitedb";

// The live database: the home folder, "/", relativeDBPath.
std::string liveDBPath();

// Whether the folder holding the live database can be listed, which takes Full Disk Access on
// a Mac. The database itself isn't touched.
bool canReadLiveDatabase();

// The live database, when the live calendars are the local event store's and
// `canReadLiveDatabase()`: the quick way to them, a copy of the file. Nothing when a CalDAV
// account is live, whose calendars only its event store reads, or when the folder can't be read.
std::optional<std::filesystem::path> readableLiveDatabase();

// Walks down from `root` (a leading tilde expanded) to the first Calendar.sqlitedb, breadth
// first over the root and three levels below it, looking for "Users/{user}/..." before the home
// layout on each folder and skipping system folders. A root that is a plain file is returned as
// it is. Throws BackupLocatorError::notFound with the expanded root.
std::filesystem::path findDatabase(std::string_view root, std::string_view user);

// Copies the database and its "-wal" and "-shm" files, where they exist, into a fresh
// "morvane-{UUID}" folder in the temporary folder. The folder is 0700 and each file 0600 from the
// moment it exists, whatever the umask, and files are copied a piece at a time. Only regular
// files are copied (a link is followed): a named pipe or a device where a file is expected fails
// the copy. The caller owns the copy of the database that comes back. Throws
// BackupLocatorError::copyFailed, leaving no folder behind.
StagedCopy stageCopy(const std::filesystem::path& database);

// Writes `data` as the file `name` (a plain file name) in a fresh staged folder, as private as
// `stageCopy` makes them; the caller owns the file that comes back. Throws the platform's error,
// leaving no folder behind.
StagedCopy stageData(std::string_view data, const std::string& name);

// Removes the staged folder holding `file` with everything in it, and forgets it. Errors are
// dropped. Only a "morvane-" folder is ever removed, whether it is registered or not. What a
// StagedCopy does when its owner lets go.
void removeStagedCopy(const std::filesystem::path& file);

// The calendars as they are now, as an index in memory: read from a staged copy of the
// `readableLiveDatabase()` when there is one and it can be staged and read (the copy is gone again when this returns),
// else, when calendar access is granted, from a capture of the store that `eventStore` gives,
// with an EventKitSource over that store as the index's lookup. `eventStore` is called only for
// the second way, and at most once. Never fails: nothing comes back when neither way works.
std::optional<DatabaseSource> liveIndex(const std::function<std::shared_ptr<EKEventStore>()>& eventStore);

// Removes every staged folder of the registry; errors are dropped.
void removeAllStagedCopies();

// The staged folders registered now, in no particular order.
std::vector<std::filesystem::path> stagedFolders();

} // namespace BackupLocator
} // namespace morvane
