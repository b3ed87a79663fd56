// The snapshot store. Writes follow one rule: a data file first, then the index that names it,
// each written atomically, so a reader finds a whole old or a whole new index and every file
// the index names is complete.
#include "MorvaneCore/SnapshotStore/CalendarArchive.h"

#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/Database/CalendarDatabase.h"
#include "MorvaneCore/Shared/Compression.h"
#include "MorvaneCore/Shared/DateFormatting.h"
#include "MorvaneCore/Shared/Errors.h"
#include "MorvaneCore/Shared/Json.h"
#include "MorvaneCore/Shared/SharedInstances.h"
#include "MorvanePlatform/Files.h"
#include "MorvanePlatform/UserFolders.h"

#include <algorithm>

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

} // namespace

std::string CalendarArchive::Entry::fileName() const { return stamp + (isEventKit() ? ".calevents" : ".calsnap"); }

std::string CalendarArchive::stamp(Date date) { return dates::stamp(date); }

std::shared_ptr<CalendarArchive> CalendarArchive::shared() {
    return sharedInstance<CalendarArchive>(UserFolders::current().applicationSupport() / "Morvane" / "Snapshots");
}

CalendarArchive::CalendarArchive(std::filesystem::path directory) : directory_(std::move(directory)) {}

std::vector<CalendarArchive::Entry> CalendarArchive::readIndex() const {
    std::string stored;
    try {
        stored = files::read(indexURL());
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
        listed = readIndex();
    }
    std::stable_sort(listed.begin(), listed.end(), [](const auto& a, const auto& b) { return a.date > b.date; });
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
    std::int64_t eventCount = 0;
    for (const auto& event : database.loadEvents())
        eventCount += event.isDetachedOccurrence() ? 0 : 1;
    database.checkpoint();
    const auto name = stamp(date);

    std::lock_guard guard(lock_);
    auto listed = readIndex();
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
    std::lock_guard guard(lock_);
    std::error_code ignored;
    std::filesystem::remove(fileURL(entry), ignored);
    auto listed = readIndex();
    std::erase_if(listed, [&entry](const Entry& listedEntry) { return listedEntry.stamp == entry.stamp; });
    writeIndex(std::move(listed), indexURL());
}

void CalendarArchive::writeIndex(std::vector<Entry> entries, const std::filesystem::path& to) {
    sortOldestFirst(entries);
    json::Value array = json::Value::array();
    for (const auto& entry : entries)
        array.push_back(encode(entry));
    files::writeAtomically(to, json::dump(array, /*pretty=*/true));
}

} // namespace morvane
