#include "MorvaneCore/IcsArchives/IcsArchive.h"

#include "MorvaneCore/EventModel/RecurrenceRule.h"
#include "MorvaneCore/IcsArchives/ICalendar.h"
#include "MorvaneCore/Shared/Errors.h"
#include "MorvaneCore/Shared/EventKeys.h"
#include "MorvaneCore/Shared/Text.h"
#include "MorvanePlatform/Error.h"
#include "MorvanePlatform/Files.h"

#include <algorithm>
#include <system_error>
#include <utility>

// Reading an archive: folders are calendars, files hold VCALENDAR blocks, and each block links
// its detached occurrences to the series it holds itself. Files are read whole; a file that is
// no UTF-8 is noted and passed over, while a folder that can't be listed ends the reading, since
// an archive read in part would pass for one whose events were deleted.
namespace morvane {
namespace {

namespace fs = std::filesystem;

constexpr size_t probedEntries = 50;
// A calendar's name is a line; an .ics file of a whole calendar over decades is a few megabytes.
constexpr std::uint64_t displayNameLimit = 64 << 10;
constexpr std::uint64_t icsFileLimit = 64 << 20;

struct Entry {
    std::string name;
    fs::path path;
};

// The entries of `folder` in the order the file system gives them; throws when it can't be
// listed to the end.
std::vector<fs::directory_entry> listing(const fs::path& folder) {
    std::vector<fs::directory_entry> entries;
    std::error_code error;
    fs::directory_iterator iterator(folder, error);
    for (; !error && iterator != fs::directory_iterator(); iterator.increment(error))
        entries.push_back(*iterator);
    if (error) throw PlatformError::fromErrno(error.value(), "Couldn't list folder", folder.string());
    return entries;
}

void sortByName(std::vector<Entry>& entries) {
    std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) { return a.name < b.name; });
}

bool endsWithICS(std::string_view name) {
    if (name.size() < 4) return false;
    const auto tail = name.substr(name.size() - 4);
    return tail[0] == '.' && (tail[1] | 0x20) == 'i' && (tail[2] | 0x20) == 'c' && (tail[3] | 0x20) == 's';
}

// The whole file as text when it is well-formed UTF-8. No encoding is guessed, and a byte-order
// mark counts as the sign of another one.
std::optional<std::string> readUTF8(const fs::path& file, std::uint64_t limit) {
    std::string content;
    try {
        content = files::read(file, limit);
    } catch (const Error&) {
        return std::nullopt;
    }
    if (content.starts_with("\xEF\xBB\xBF") || !text::isWellFormedUTF8(content)) return std::nullopt;
    // Well-formed UTF-8 may hold NULs; text doesn't.
    if (content.find('\0') != std::string::npos) return std::nullopt;
    return content;
}

std::optional<std::string_view> view(const std::optional<std::string>& text) {
    return text ? std::optional<std::string_view>(*text) : std::nullopt;
}

// A DATE or DATE-TIME property read in the zone its own TZID names.
std::optional<ICalDate> dateOf(const ICalProperty* property) {
    if (property == nullptr) return std::nullopt;
    return ICalDate::parse(property->value, view(property->param("TZID")));
}

std::optional<std::string> nonEmptyText(const ICalComponent& component, std::string_view name) {
    const auto* property = component.first(name);
    if (property == nullptr) return std::nullopt;
    auto value = ICalParser::text(property->value);
    if (value.empty()) return std::nullopt;
    return value;
}

std::vector<Date> exceptionDatesOf(const ICalComponent& component) {
    std::vector<Date> dates;
    for (const auto* property : component.all("EXDATE")) {
        const auto zone = property->param("TZID");
        for (const auto item : text::nonEmptyPieces(property->value, ',')) {
            if (const auto date = ICalDate::parse(item, view(zone))) dates.push_back(date->date);
        }
    }
    std::sort(dates.begin(), dates.end());
    return dates;
}

// An explicit "no alarm" or the account's default alarm replaces the default that every other
// event gets, as the calendar app adds it to events that arrive without one.
std::vector<AlarmSpec> alarmsOf(const ICalComponent& component, bool isAllDay,
                                const std::optional<ArchiveCalendarInfo>& info) {
    std::optional<std::int64_t> defaultOffset;
    if (info) defaultOffset = isAllDay ? info->defaultAllDayAlarmOffset : info->defaultAlarmOffset;

    std::vector<AlarmSpec> alarms;
    bool sawNone = false;
    bool sawDefault = false;
    for (const auto* alarm : component.components("VALARM")) {
        if (const auto* action = alarm->first("ACTION"); action && text::uppercased(action->value) == "NONE") {
            sawNone = true;
            continue;
        }
        if (const auto* flag = alarm->first("X-APPLE-DEFAULT-ALARM"); flag && text::uppercased(flag->value) == "TRUE") {
            sawDefault = true;
            if (defaultOffset) alarms.push_back(AlarmSpec::relative(*defaultOffset));
            continue;
        }
        const auto* trigger = alarm->first("TRIGGER");
        if (trigger == nullptr) continue;
        const auto kind = trigger->param("VALUE");
        if (kind && text::uppercased(*kind) == "DATE-TIME") {
            if (const auto date = ICalDate::parse(trigger->value)) alarms.push_back(AlarmSpec::absolute(date->date));
        } else if (const auto seconds = iCalDuration(trigger->value)) {
            alarms.push_back(AlarmSpec::relative(*seconds));
        }
    }
    if (!sawNone && !sawDefault && defaultOffset) alarms.push_back(AlarmSpec::relative(*defaultOffset));
    std::stable_sort(alarms.begin(), alarms.end());
    return alarms;
}

// Why a rule that doesn't read is left out: the frequencies finer than a day are real RRULE, but
// no calendar event of the system repeats by them.
std::string unreadableRule(std::string_view rrule) {
    for (const auto piece : text::nonEmptyPieces(rrule, ';')) {
        const auto sides = text::splittingOnce(piece, '=');
        if (sides.size() != 2 || text::uppercased(sides[0]) != "FREQ") continue;
        const auto frequency = text::uppercased(sides[1]);
        for (const auto& [name, words] : {std::pair{"HOURLY", "hourly"}, std::pair{"MINUTELY", "every minute"},
                                          std::pair{"SECONDLY", "every second"}}) {
            if (frequency == name)
                return "it repeats " + std::string(words) + " (FREQ=" + frequency + "), which a calendar event can't";
        }
    }
    return "its repeat rule (RRULE) can't be read";
}

// One VEVENT as a row. Nothing, and the reason in `skipped`, without a UID, with a start or an
// end that can't be read, or with a repeat rule that can't be read or held: a series read as a
// single event would put one occurrence back where there were many. `master` is the row of the
// series in the same VCALENDAR that a detached occurrence belongs to.
std::optional<BackupEvent> eventOf(const ICalComponent& component, std::int64_t id, const BackupCalendar& calendar,
                                   const std::optional<ArchiveCalendarInfo>& info, std::optional<std::int64_t> master,
                                   std::string& skipped) {
    const auto* uid = component.first("UID");
    if (uid == nullptr || uid->value.empty()) {
        skipped = "it has no UID";
        return std::nullopt;
    }
    const auto* startProperty = component.first("DTSTART");
    const auto start = dateOf(startProperty);
    if (!start) {
        skipped = startProperty ? "its start (DTSTART) can't be read" : "it has no start (DTSTART)";
        return std::nullopt;
    }
    const bool isAllDay = start->isDateOnly;

    // All-day events end on the last second of their last day, as the database stores them.
    const double allDayTrim = isAllDay ? 1 : 0;
    const auto* endProperty = component.first("DTEND");
    const auto* durationProperty = component.first("DURATION");
    const auto until = dateOf(endProperty);
    const auto duration = durationProperty ? iCalDuration(durationProperty->value) : std::nullopt;
    if (endProperty && !until) {
        skipped = "its end (DTEND) can't be read";
        return std::nullopt;
    }
    if (!endProperty && durationProperty && !duration) {
        skipped = "its length (DURATION) can't be read";
        return std::nullopt;
    }
    Date end = start->date;
    if (until) {
        end.seconds = until->date.seconds - allDayTrim;
    } else if (duration) {
        end.seconds = start->date.seconds + static_cast<double>(*duration) - allDayTrim;
    } else if (isAllDay) {
        end.seconds = start->date.seconds + 86399;
    }

    BackupEvent event;
    event.rowID = id;
    event.uniqueIdentifier = uid->value;
    if (master) {
        if (const auto original = dateOf(component.first("RECURRENCE-ID"))) {
            event.originalDate = original->date;
            event.masterRowID = master;
            event.uniqueIdentifier = occurrenceIdentifier(uid->value, original->date.occurrenceKey());
        }
    }

    std::optional<RecurrenceRule> rule;
    if (const auto* rrule = component.first("RRULE"); rrule && !master) {
        rule = RecurrenceRule::fromRRule(rrule->value, view(startProperty->param("TZID")));
        if (!rule) {
            skipped = unreadableRule(rrule->value);
            return std::nullopt;
        }
    }
    event.hasRecurrences = rule.has_value();
    if (const auto* modified = component.first("LAST-MODIFIED")) {
        if (const auto date = ICalDate::parse(modified->value)) event.lastModified = date->date;
    }
    event.calendar = calendar;
    event.hasAttendees = component.first("ATTENDEE") != nullptr;
    event.hasAttachment = component.first("ATTACH") != nullptr;

    auto& snapshot = event.snapshot;
    const auto* summary = component.first("SUMMARY");
    snapshot.title = summary ? ICalParser::text(summary->value) : std::string();
    snapshot.start = start->date;
    snapshot.end = end;
    snapshot.isAllDay = isAllDay;
    snapshot.timeZone = start->timeZone;
    snapshot.location = nonEmptyText(component, "LOCATION");
    snapshot.notes = nonEmptyText(component, "DESCRIPTION");
    if (const auto* url = component.first("URL")) snapshot.url = url->value;
    snapshot.calendarUUID = calendar.uuid;
    snapshot.calendarName = calendar.displayName();
    snapshot.recurrence = std::move(rule);
    snapshot.alarms = alarmsOf(component, isAllDay, info);
    return event;
}

} // namespace

bool IcsArchive::looksLikeArchive(const fs::path& root) {
    std::error_code error;
    fs::directory_iterator entries(root, error);
    for (size_t seen = 0; !error && entries != fs::directory_iterator() && seen < probedEntries;
         entries.increment(error), ++seen) {
        std::error_code innerError;
        fs::directory_iterator inner(entries->path(), innerError);
        for (; !innerError && inner != fs::directory_iterator(); inner.increment(innerError)) {
            if (endsWithICS(inner->path().filename().string())) return true;
        }
    }
    return false;
}

IcsArchive::IcsArchive(fs::path root, const CalendarResolver& resolver) : root_(std::move(root)) {
    std::vector<Entry> folders;
    for (const auto& entry : listing(root_)) {
        std::error_code error;
        // The entry's own flag: a link to a folder elsewhere isn't a calendar of this archive.
        const auto status = entry.symlink_status(error);
        if (error || !fs::is_directory(status)) continue;
        auto name = entry.path().filename().string();
        if (name.starts_with('.')) continue;
        folders.push_back({std::move(name), entry.path()});
    }
    sortByName(folders);

    std::int64_t nextID = 1;
    std::int64_t row = 0;
    for (const auto& folder : folders) {
        ++row;
        std::optional<std::string> displayName;
        if (const auto content = readUTF8(folder.path / "displayname", displayNameLimit))
            displayName = std::string(text::trimmingWhitespaceAndNewlines(*content));

        std::optional<ArchiveCalendarInfo> info;
        if (resolver) info = resolver(folder.name, displayName);

        BackupCalendar calendar;
        calendar.rowID = row;
        calendar.externalID = folder.name;
        // Whatever the account really is, the archive came from a sync tool speaking CalDAV.
        calendar.storeType = static_cast<std::int64_t>(StoreType::calDAV);
        if (info) {
            calendar.uuid = info->uuid;
            calendar.title = info->title;
            calendar.storeName = info->storeName;
            defaults_.emplace(row, *info);
        } else {
            calendar.title = displayName.value_or(folder.name);
            calendar.storeName = "archive";
        }
        calendars_.push_back(calendar);

        std::vector<Entry> files;
        for (const auto& entry : listing(folder.path)) {
            const auto& path = entry.path();
            const auto extension = path.extension().string();
            if (extension.size() == 4 && endsWithICS(extension)) files.push_back({path.filename().string(), path});
        }
        sortByName(files);
        for (const auto& file : files) {
            if (const auto content = readUTF8(file.path, icsFileLimit)) {
                read(*content, file.path.string(), calendar, nextID);
            } else {
                unreadableFiles_.push_back(file.path.string());
            }
        }
    }
}

void IcsArchive::read(std::string_view text, const std::string& file, const BackupCalendar& calendar,
                      std::int64_t& nextID) {
    std::optional<ArchiveCalendarInfo> info;
    if (const auto found = defaults_.find(calendar.rowID); found != defaults_.end()) info = found->second;

    for (const auto& block : ICalParser::parse(text)) {
        if (block.name() != "VCALENDAR") continue;
        std::vector<const ICalComponent*> masters;
        std::vector<const ICalComponent*> details;
        for (const auto* component : block.components("VEVENT"))
            (component->first("RECURRENCE-ID") ? details : masters).push_back(component);

        // Per block: a detached occurrence in another block or file doesn't find its series.
        std::map<std::string, std::int64_t, std::less<>> rowsByUID;
        std::string reason;
        const auto skip = [&](const ICalComponent& component) {
            const auto* uid = component.first("UID");
            skipped_.push_back({file, uid ? uid->value : std::string(), std::move(reason)});
        };
        for (const auto* component : masters) {
            auto event = eventOf(*component, nextID, calendar, info, std::nullopt, reason);
            if (!event) {
                skip(*component);
                continue;
            }
            rowsByUID[event->uniqueIdentifier] = nextID;
            exceptions_[nextID] = exceptionDatesOf(*component);
            events_.push_back(std::move(*event));
            ++nextID;
        }
        for (const auto* component : details) {
            const auto* uid = component->first("UID");
            const auto found = rowsByUID.find(uid ? std::string_view(uid->value) : std::string_view());
            const auto master = found != rowsByUID.end() ? std::optional(found->second) : std::nullopt;
            auto event = eventOf(*component, nextID, calendar, info, master, reason);
            if (!event) {
                skip(*component);
                continue;
            }
            events_.push_back(std::move(*event));
            ++nextID;
        }
    }
}

std::vector<Date> IcsArchive::exceptionDates(std::int64_t master) {
    const auto found = exceptions_.find(master);
    return found != exceptions_.end() ? found->second : std::vector<Date>();
}

OccurrenceSet IcsArchive::occurrences() {
    throw RestoreError(".ics archives have no occurrence cache, so deleted single occurrences can't be detected.");
}

} // namespace morvane
