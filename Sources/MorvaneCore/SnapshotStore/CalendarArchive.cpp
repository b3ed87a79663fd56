// The snapshot store. Writes follow one rule: a data file first, then the index that names it,
// each written atomically, so a reader finds a whole old or a whole new index and every file
// the index names is complete.
#include "MorvaneCore/SnapshotStore/CalendarArchive.h"

#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/Database/CalendarDatabase.h"
#include "MorvaneCore/LiveCalendars/CurrentEvents.h"
#include "MorvaneCore/Shared/Compression.h"
#include "MorvaneCore/Shared/DateFormatting.h"
#include "MorvaneCore/Shared/Errors.h"
#include "MorvaneCore/Shared/Json.h"
#include "MorvaneCore/Shared/SharedInstances.h"
#include "MorvaneCore/SnapshotStore/EventKitSnapshot.h"
#include "MorvanePlatform/Clock.h"
#include "MorvanePlatform/Files.h"
#include "MorvanePlatform/UserFolders.h"

#include <algorithm>
#include <set>

namespace morvane {
namespace {

json::Value encode(const CalendarArchive::Entry& entry) {
    json::Value object = {
        {"stamp", entry.stamp},
        {"date", json::isoDate(entry.date)},
        {"fingerprint", entry.fingerprint},
        {"eventCount", entry.eventCount},
        {"bytes", entry.bytes},
    };
    if (entry.format) object["format"] = *entry.format;
    return object;
}

// One entry of a stored index; nothing when any required key is missing or of the wrong kind.
std::optional<CalendarArchive::Entry> decode(const json::Value& object) {
    if (!object.is_object()) return std::nullopt;
    const auto text = [&object](const char* key) -> const std::string* {
        const auto found = object.find(key);
        return found != object.end() && found->is_string() ? found->get_ptr<const std::string*>() : nullptr;
    };
    const auto integer = [&object](const char* key) -> std::optional<std::int64_t> {
        const auto found = object.find(key);
        if (found == object.end() || !found->is_number_integer()) return std::nullopt;
        return found->get<std::int64_t>();
    };
    const auto* stamp = text("stamp");
    const auto* dateText = text("date");
    const auto* fingerprint = text("fingerprint");
    const auto eventCount = integer("eventCount");
    const auto bytes = integer("bytes");
    const auto date = dateText ? dates::parseISO8601(*dateText) : std::nullopt;
    if (!stamp || !date || !fingerprint || !eventCount || !bytes) return std::nullopt;

    CalendarArchive::Entry entry{*stamp, *date, *fingerprint, *eventCount, *bytes, std::nullopt};
    if (const auto found = object.find("format"); found != object.end() && !found->is_null()) {
        if (!found->is_string()) return std::nullopt;
        entry.format = found->get<std::string>();
    }
    return entry;
}

void sortOldestFirst(std::vector<CalendarArchive::Entry>& entries) {
    std::stable_sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return a.date < b.date; });
}

void sortNewestFirst(std::vector<CalendarArchive::Entry>& entries) {
    std::stable_sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return a.date > b.date; });
}

// The newest entry of either format; of equal dates, the first listed.
const CalendarArchive::Entry* newestOf(const std::vector<CalendarArchive::Entry>& listed) {
    const CalendarArchive::Entry* newest = nullptr;
    for (const auto& entry : listed) {
        if (newest == nullptr || entry.date > newest->date) newest = &entry;
    }
    return newest;
}

template <typename Events> std::int64_t countWithoutDetached(const Events& events) {
    return std::count_if(events.begin(), events.end(), [](const auto& event) { return !event.isDetachedOccurrence(); });
}

} // namespace

// The index's lock for a writer: the object's mutex, then the folder's advisory lock for other
// objects and processes, always both and in this order.
struct CalendarArchive::WriteLock {
    WriteLock(std::mutex& lock, const std::filesystem::path& folder) : inProcess(lock), betweenProcesses(folder) {}

    std::lock_guard<std::mutex> inProcess;
    files::FolderLock betweenProcesses;
};

std::string CalendarArchive::Entry::fileName() const { return stamp + (isEventKit() ? ".calevents" : ".calsnap"); }

std::string CalendarArchive::stamp(Date date) { return dates::stamp(date); }

std::shared_ptr<CalendarArchive> CalendarArchive::shared() {
    return sharedInstance<CalendarArchive>(UserFolders::current().applicationSupport() / "Morvane" / "Snapshots");
}

CalendarArchive::CalendarArchive(std::filesystem::path directory) : directory_(std::move(directory)) {}

std::vector<CalendarArchive::Entry> CalendarArchive::readIndex(const std::filesystem::path& file) {
    std::string stored;
    try {
        stored = files::read(file);
    } catch (const Error&) {
        return {};
    }
    const auto parsed = json::Value::parse(stored, nullptr, /*allow_exceptions=*/false);
    if (!parsed.is_array()) return {};
    std::vector<Entry> entries;
    entries.reserve(parsed.size());
    for (const auto& object : parsed) {
        auto entry = decode(object);
        // One bad element makes the whole index unreadable, as it would for any strict reader.
        if (!entry) return {};
        entries.push_back(std::move(*entry));
    }
    return entries;
}

std::vector<CalendarArchive::Entry> CalendarArchive::entries() const {
    std::vector<Entry> listed;
    {
        std::lock_guard guard(lock_);
        listed = readIndex(indexURL());
    }
    sortNewestFirst(listed);
    return listed;
}

std::int64_t CalendarArchive::totalBytes() const {
    std::int64_t total = 0;
    for (const auto& entry : entries())
        total += entry.bytes;
    return total;
}

StagedCopy CalendarArchive::stage(const Entry& entry) const { return stageFile(fileURL(entry)); }

StagedCopy CalendarArchive::stageFile(const std::filesystem::path& file) {
    const auto stored = readCoordinated(file);
    return BackupLocator::stageData(compression::decompress(stored), "Calendar.sqlitedb");
}

std::string CalendarArchive::readCoordinated(const std::filesystem::path& file) {
    try {
        return files::read(file);
    } catch (const Error&) {
        throw RestoreError("Couldn't read " + file.string() + ".");
    }
}

CalendarArchive::SnapshotResult CalendarArchive::importDatabase(CalendarDatabase& database,
                                                                const std::filesystem::path& file, Date date) {
    files::createDirectories(directory_);
    database.verifyIntegrity();
    const auto fingerprint = database.contentFingerprint();
    const auto eventCount = countWithoutDetached(database.loadEvents());
    database.checkpoint();
    const auto name = stamp(date);

    const WriteLock guard(lock_, directory_);
    auto listed = readIndex(indexURL());
    if (const auto same = std::find_if(listed.begin(), listed.end(), [&](const Entry& e) { return e.stamp == name; });
        same != listed.end())
        return {SnapshotResult::Case::unchanged, *same};

    // Only the neighbour in the past counts; of equal dates, the first listed.
    const Entry* previous = nullptr;
    for (const auto& entry : listed) {
        if (entry.date < date && (previous == nullptr || entry.date > previous->date)) previous = &entry;
    }
    if (previous != nullptr && previous->fingerprint == fingerprint)
        return {SnapshotResult::Case::unchanged, *previous};

    const auto compressed = compression::compress(files::read(file));
    Entry entry{name, date, fingerprint, eventCount, static_cast<std::int64_t>(compressed.size()), std::nullopt};
    files::writeAtomically(fileURL(entry), compressed);
    listed.push_back(entry);
    writeIndex(std::move(listed), indexURL());
    return {SnapshotResult::Case::saved, entry};
}

void CalendarArchive::remove(const Entry& entry) {
    const WriteLock guard(lock_, directory_);
    std::error_code ignored;
    std::filesystem::remove(fileURL(entry), ignored);
    auto listed = readIndex(indexURL());
    std::erase_if(listed, [&entry](const Entry& listedEntry) { return listedEntry.stamp == entry.stamp; });
    writeIndex(std::move(listed), indexURL());
}

CalendarArchive::SnapshotResult CalendarArchive::takeSnapshot(Date now, const EventStoreMaker& eventStore) {
    files::createDirectories(directory_);
    // Once the database could be read, its failures are the answer: the event store would
    // only read the same calendars less completely.
    if (const auto live = BackupLocator::readableLiveDatabase()) return takeDatabaseSnapshot(now, *live);
    if (CalendarAccess::isGranted()) {
        const auto store = eventStore();
        return takeEventKitSnapshot(now, *store);
    }
    throw RestoreError(
        "Morvane needs Calendar access (System Settings → Privacy & Security → Calendars) to take snapshots.");
}

CalendarArchive::SnapshotResult CalendarArchive::takeDatabaseSnapshot(Date now, const std::filesystem::path& live) {
    for (int attempt = 1;; ++attempt) {
        // A failure to copy the live file won't mend in two seconds, unlike a copy taken while
        // the calendars were being written.
        const auto staged = BackupLocator::stageCopy(live);
        try {
            return snapshotOfCopy(staged, now);
        } catch (const std::exception&) {
            if (attempt == databaseAttempts) throw;
            Clock::current().sleep(secondsBetweenAttempts);
        }
    }
}

CalendarArchive::SnapshotResult CalendarArchive::snapshotOfCopy(const StagedCopy& staged, Date now) {
    CalendarDatabase database(staged.file());
    auto fingerprint = database.contentFingerprint();
    // Most snapshots find the calendars unchanged, and a copy that isn't kept needn't pass the
    // integrity check (a copy damaged where the fingerprint reads fails in reading it). A look at
    // the index without the lock (its writes are atomic) spares them the check, reading the events
    // and folding the log; the comparison that decides is made again under the lock.
    {
        const auto listed = readIndex(indexURL());
        if (const auto* newest = newestOf(listed); newest != nullptr && newest->fingerprint == fingerprint)
            return {SnapshotResult::Case::unchanged, *newest};
    }
    database.verifyIntegrity();
    const auto eventCount = countWithoutDetached(database.loadEvents());
    database.checkpoint();
    Entry entry{stamp(now), now, std::move(fingerprint), eventCount, 0, std::nullopt};
    return fileUnlessUnchanged(std::move(entry), now,
                               [&staged] { return compression::compress(files::read(staged.file())); });
}

CalendarArchive::SnapshotResult CalendarArchive::takeEventKitSnapshot(Date now, EKEventStore& store) {
    auto captured = EventKitSnapshot::capture(store, now);
    auto fingerprint = "ek:" + captured.fingerprint();
    EventKitStore document(std::move(captured));
    const auto eventCount = countWithoutDetached(document.loadEvents());
    Entry entry{stamp(now), now, std::move(fingerprint), eventCount, 0, std::string("eventkit")};
    return fileUnlessUnchanged(std::move(entry), now, [&document] { return document.snapshot().encoded(); });
}

CalendarArchive::SnapshotResult CalendarArchive::fileUnlessUnchanged(Entry entry, Date now,
                                                                     const std::function<std::string()>& data) {
    const WriteLock guard(lock_, directory_);
    auto listed = readIndex(indexURL());
    if (const auto* newest = newestOf(listed); newest != nullptr && newest->fingerprint == entry.fingerprint)
        return {SnapshotResult::Case::unchanged, *newest};

    const auto bytes = data();
    entry.bytes = static_cast<std::int64_t>(bytes.size());
    files::writeAtomically(fileURL(entry), bytes);
    listed.push_back(entry);
    // Files go before the index that stops naming them: a failed index write leaves the old index
    // naming files that are gone, which readers survive, rather than listing what can't be read.
    writeIndex(prune(listed, now), indexURL());
    return {SnapshotResult::Case::saved, std::move(entry)};
}

std::vector<CalendarArchive::Entry> CalendarArchive::retained(std::vector<Entry> entries, Date now) {
    sortNewestFirst(entries);
    std::set<std::string> weeks;
    std::set<std::string> months;
    std::vector<Entry> kept;
    for (auto& entry : entries) {
        const double age = (now.seconds - entry.date.seconds) / secondsPerDay;
        bool keep = false;
        if (age <= allKeptDays) {
            keep = true;
        } else if (age <= weeklyDays) {
            keep = weeks.insert(dates::weekKey(entry.date)).second;
        } else if (age <= monthlyDays) {
            keep = months.insert(dates::monthKey(entry.date)).second;
        }
        if (keep) kept.push_back(std::move(entry));
    }
    return kept;
}

std::vector<CalendarArchive::Entry> CalendarArchive::prune(const std::vector<Entry>& entries, Date now) const {
    auto kept = retained(entries, now);
    std::set<std::string> keptStamps;
    for (const auto& entry : kept)
        keptStamps.insert(entry.stamp);
    for (const auto& entry : entries) {
        if (keptStamps.contains(entry.stamp)) continue;
        try {
            files::removeItem(fileURL(entry));
        } catch (const Error&) {
            // The entry still goes from the index; its file stays behind, unlisted.
        }
    }
    return kept;
}

void CalendarArchive::writeIndex(std::vector<Entry> entries, const std::filesystem::path& to) {
    sortOldestFirst(entries);
    json::Value array = json::Value::array();
    for (const auto& entry : entries)
        array.push_back(encode(entry));
    files::writeAtomically(to, json::dump(array, /*pretty=*/true));
}

} // namespace morvane
