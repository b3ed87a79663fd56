#include "MorvaneCore/Search/BackupSearch.h"

#include "MorvaneCore/Backups/BackupCatalog.h"
#include "MorvaneCore/Shared/TimeZones.h"
#include "MorvanePlatform/EventKit.h"
#include "MorvanePlatform/TextPieces.h"

#include <unicode/locid.h>
#include <unicode/normalizer2.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <new>
#include <unordered_map>

namespace morvane {
namespace {

constexpr std::string_view spacesAndTabs = " \t";

// Turkish and Azeri lower-case "I" to a dotless "ı", so plain ASCII folding would be wrong there.
bool localeFoldsASCIIPlainly() {
    const std::string_view language = icu::Locale::getDefault().getLanguage();
    return language != "tr" && language != "az";
}

// The form two texts are compared in: lower case under the user's locale, then Unicode's full case
// folding ("ß" and "SS" meet as "ss"), then composed, so that a decomposed "Ä" meets a composed
// one. ASCII text, the common case, takes a fast path.
std::string folded(std::string_view text, bool plainASCII) {
    if (plainASCII &&
        std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; })) {
        std::string result(text);
        std::transform(result.begin(), result.end(), result.begin(),
                       [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
        return result;
    }
    auto unicode = icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
    unicode.toLower(icu::Locale::getDefault()).foldCase();
    UErrorCode status = U_ZERO_ERROR;
    const auto* nfc = icu::Normalizer2::getNFCInstance(status);
    if (U_SUCCESS(status)) {
        auto composed = nfc->normalize(unicode, status);
        if (U_SUCCESS(status)) unicode = std::move(composed);
    }
    std::string result;
    unicode.toUTF8String(result);
    return result;
}

bool holds(const std::string& foldedText, const std::string& foldedQuery) {
    return foldedText.find(foldedQuery) != std::string::npos;
}

} // namespace

BackupSearch::Entry BackupSearch::Entry::of(const BackupEvent& event) {
    const auto& snapshot = event.snapshot;
    const auto instant = [&snapshot](Date date) {
        return snapshot.isFloating() ? zones::instantOfWallClock(date) : date;
    };
    Entry entry;
    entry.uid = std::string(event.externalIdentifier());
    entry.title = std::string(text::trimming(snapshot.title, spacesAndTabs));
    entry.location = snapshot.location;
    entry.start = instant(snapshot.start);
    entry.end = instant(snapshot.end);
    entry.isAllDay = snapshot.isAllDay;
    entry.isRepeating = snapshot.recurrence.has_value();
    entry.calendarName = event.calendar.displayName();
    entry.calendarID = event.calendar.uuid;
    entry.colorHex = event.calendar.colorHex;
    entry.itemID = entry.isRepeating ? entry.uid + "|" + std::to_string(snapshot.start.occurrenceKey()) : entry.uid;
    return entry;
}

bool BackupSearch::contains(std::string_view text, std::string_view query) {
    if (query.empty()) return false;
    const bool plain = localeFoldsASCIIPlainly();
    return holds(folded(text, plain), folded(query, plain));
}

const BackupSearch::Index* BackupSearch::index(const BackupSource& source) {
    const auto id = source.id();
    if (const auto found = indexes_.find(id); found != indexes_.end()) return &found->second;

    std::vector<BackupEvent> events;
    try {
        // The staged copy and any mount go with `opened` when this block ends, before the next
        // backup is touched.
        const auto opened = BackupCatalog::open(source);
        events = opened.store->loadEvents();
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception&) {
        // Not remembered: the next search tries this backup again.
        return nullptr;
    }

    const bool plain = localeFoldsASCIIPlainly();
    Index built;
    for (const auto& event : events) {
        if (event.isDetachedOccurrence()) continue;
        auto entry = Entry::of(event);
        built.foldedTitles.push_back(folded(entry.title, plain));
        built.foldedLocations.push_back(entry.location ? std::optional(folded(*entry.location, plain)) : std::nullopt);
        built.entries.push_back(std::move(entry));
    }
    return &indexes_.insert_or_assign(id, std::move(built)).first->second;
}

bool BackupSearch::existsNow(const std::string& uid) {
    try {
        if (!store_) store_ = std::make_shared<EKEventStore>();
        return !store_->calendarItemsWithExternalIdentifier(uid).empty();
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception&) {
        return false;
    }
}

void BackupSearch::search(std::string_view query, const std::vector<BackupSource>& in, const UpdateHandler& onUpdate) {
    const auto trimmed = text::trimming(query, spacesAndTabs);
    const auto foldedQuery = folded(trimmed, localeFoldsASCIIPlainly());

    // Where each series stands in the results, which grow in place: a repeat sighting only counts.
    std::unordered_map<std::string, std::size_t> position;
    Update update;
    update.total = static_cast<std::int64_t>(in.size());

    for (const auto& source : in) {
        const auto* index = this->index(source);
        if (!index) update.unreadable.push_back(source.title());
        ++update.searched;

        if (index && !foldedQuery.empty()) {
            for (std::size_t i = 0; i < index->entries.size(); ++i) {
                const auto& location = index->foldedLocations[i];
                if (!holds(index->foldedTitles[i], foldedQuery) && !(location && holds(*location, foldedQuery)))
                    continue;
                const auto& entry = index->entries[i];
                const auto [known, isNew] = position.try_emplace(entry.uid, update.results.size());
                if (!isNew) {
                    ++update.results[known->second].backupCount;
                    continue;
                }
                update.results.push_back({entry, source, 1, existsNow(entry.uid)});
            }
        }
        if (!onUpdate(update)) return;
    }
}

void BackupSearch::forget(const std::set<std::string>& except) {
    std::erase_if(indexes_, [&except](const auto& item) { return !except.contains(item.first); });
}

} // namespace morvane
