#pragma once

#include "MorvaneCore/Database/BackupStore.h"
#include "MorvaneCore/Shared/Date.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace morvane {

// What is known of an archived calendar beyond its folder: the matching calendar of a calendar
// database, with its account's default alarms.
struct ArchiveCalendarInfo {
    std::optional<std::string> uuid;
    std::string title;
    std::string storeName;
    // The account's default alarm for timed events, in seconds from the start.
    std::optional<std::int64_t> defaultAlarmOffset;
    // The same for all-day events.
    std::optional<std::int64_t> defaultAllDayAlarmOffset;

    friend bool operator==(const ArchiveCalendarInfo&, const ArchiveCalendarInfo&) = default;
};

// An event of an archive that is left out, and why: nothing in an archive goes without a word.
struct SkippedEvent {
    // The path of its file.
    std::string file;
    // Its UID; empty when it has none.
    std::string uid;
    // Why, in words: "its start (DTSTART) can't be read", "it repeats hourly (FREQ=HOURLY),
    // which a calendar event can't", ...
    std::string reason;

    friend bool operator==(const SkippedEvent&, const SkippedEvent&) = default;
};

// Finds what is known of a calendar from its folder's name and its display name (absent when the
// folder has no readable `displayname` file). Nothing when the calendar is unknown. Resolvers
// hold what they need in memory and don't throw.
using CalendarResolver = std::function<std::optional<ArchiveCalendarInfo>(
    const std::string& folderName, const std::optional<std::string>& displayName)>;

// A backup that is a folder tree of .ics files, one folder per calendar, as calendar sync tools
// write it: `{root}/{calendar}/{*.ics, displayname}`. The whole tree is read when the object is
// made; afterwards it only answers from memory, and the files may go away. Row numbers of
// calendars and events are made up while reading (calendars from 1 in folder order, events from 1
// over the whole archive) and mean nothing beyond one object.
class IcsArchive final : public BackupStore {
public:
    // Whether `root` holds, among its first 50 entries, a folder with a file whose name ends in
    // ".ics" (in any case). Looks no deeper and never throws.
    static bool looksLikeArchive(const std::filesystem::path& root);

    // Reads every calendar folder of `root` (hidden ones aside) and every .ics file in them.
    // Throws PlatformError "Couldn't list folder {path}: {reason}" when the root or a calendar
    // folder can't be listed. A file that can't be read as text (not a regular file, larger than
    // 64 MiB, not UTF-8, holding NUL bytes) doesn't stop the reading: its path goes to
    // `unreadableFiles`; an event that can't be read whole goes to `skipped`. An empty
    // `resolver` knows no calendar.
    IcsArchive(std::filesystem::path root, const CalendarResolver& resolver);

    const std::filesystem::path& root() const { return root_; }
    // Events and detached occurrences in reading order: folder by folder, file by file, and
    // within one VCALENDAR the series and single events before the occurrences that detach.
    const std::vector<BackupEvent>& events() const { return events_; }
    // One per calendar folder, by row.
    const std::vector<BackupCalendar>& calendars() const { return calendars_; }
    // By calendar row, for the calendars the resolver knew.
    const std::map<std::int64_t, ArchiveCalendarInfo>& defaults() const { return defaults_; }
    // By event row of a series or single event: its EXDATE values, ascending.
    const std::map<std::int64_t, std::vector<Date>>& exceptions() const { return exceptions_; }
    // Paths of .ics files that couldn't be read or weren't text, in reading order.
    const std::vector<std::string>& unreadableFiles() const { return unreadableFiles_; }
    // Events left out, in reading order: without a UID, with a start or end that can't be read,
    // or repeating by a rule that can't be read or held (hourly and more often).
    const std::vector<SkippedEvent>& skipped() const { return skipped_; }

    std::vector<BackupEvent> loadEvents() override { return events_; }
    std::vector<Date> exceptionDates(std::int64_t master) override;
    // Always throws RestoreError: an archive keeps no expansion of its series.
    OccurrenceSet occurrences() override;

private:
    void read(std::string_view text, const std::string& file, const BackupCalendar& calendar, std::int64_t& nextID);

    std::filesystem::path root_;
    std::vector<BackupEvent> events_;
    std::vector<BackupCalendar> calendars_;
    std::map<std::int64_t, ArchiveCalendarInfo> defaults_;
    std::map<std::int64_t, std::vector<Date>> exceptions_;
    std::vector<std::string> unreadableFiles_;
    std::vector<SkippedEvent> skipped_;
};

} // namespace morvane
