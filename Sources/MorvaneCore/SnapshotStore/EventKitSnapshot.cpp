// Capture walks the window one Gregorian year per fetch (fetchYearByYear), because the store
// answers at most a year at a time. Every fetch gives each occurrence of a series as its own
// object, so a series is gathered across the years into its keys and the calendars it was seen
// in, and only afterwards is its master looked up by UID, once per calendar. Numbering happens
// last, in a sorted order, so that two captures of the same content give the same document.
#include "MorvaneCore/SnapshotStore/EventKitSnapshot.h"

#include "MorvaneCore/LiveCalendars/CurrentEvents.h"
#include "MorvaneCore/LiveCalendars/YearByYearFetch.h"
#include "MorvaneCore/Shared/Compression.h"
#include "MorvaneCore/Shared/DateFormatting.h"
#include "MorvaneCore/Shared/Errors.h"
#include "MorvaneCore/Shared/EventKeys.h"
#include "MorvaneCore/SnapshotStore/CalendarArchive.h"
#include "MorvanePlatform/SHA256.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <set>
#include <tuple>

namespace morvane {
namespace {

constexpr auto dateEncoding = json::DateEncoding::secondsSince1970;

struct ListedCalendar {
    BackupCalendar record;
    std::string displayName;
};

// The store's calendars by identifier, numbered in identifier order.
std::map<std::string, ListedCalendar> listCalendars(EKEventStore& store) {
    auto calendars = store.calendarsForEntityType(EKEntityType::event);
    std::erase(calendars, nullptr);
    std::stable_sort(calendars.begin(), calendars.end(),
                     [](const auto& a, const auto& b) { return a->calendarIdentifier < b->calendarIdentifier; });
    std::map<std::string, ListedCalendar> listed;
    std::int64_t rowID = 0;
    for (const auto& calendar : calendars) {
        BackupCalendar record;
        record.rowID = ++rowID;
        record.uuid = calendar->calendarIdentifier;
        record.title = calendar->title;
        record.storeName = calendar->source ? calendar->source->title : "?";
        record.storeType = EventKitSnapshot::storeType(calendar->type);
        record.colorHex = EventKitSnapshot::colorHex(*calendar);
        auto displayName = record.displayName();
        listed.try_emplace(calendar->calendarIdentifier, ListedCalendar{std::move(record), std::move(displayName)});
    }
    return listed;
}

// What the scan of the window gathered of one series.
struct Series {
    // In the order seen, sorted once at the end: a set would cost a node per occurrence. Copies
    // of one series in two calendars may give one key twice.
    std::vector<std::int64_t> keys;
    // Identifiers of the calendars its occurrences were seen in.
    std::set<std::string> calendars;
    std::map<std::int64_t, std::shared_ptr<EKEvent>> detached;
};

struct Scan {
    // By item identifier.
    std::map<std::string, std::shared_ptr<EKEvent>> singles;
    // By UID.
    std::map<std::string, Series, std::less<>> series;
};

// Gathers the window's events: singles by item identifier, series by UID.
class Scanner {
public:
    explicit Scanner(Scan& scan) : scan_(scan) {}

    void add(std::shared_ptr<EKEvent> event) {
        const auto& identifier = event->calendarItemExternalIdentifier();
        if (!identifier || !event->calendar) return;
        if (!event->hasRecurrenceRules() && !event->isDetached()) {
            auto& single = scan_.singles[event->calendarItemIdentifier()];
            single = std::move(event);
            return;
        }
        if (!event->occurrenceDate()) return;
        const auto key = liveOccurrenceKey(*event);
        if (!key) return;
        const auto uid = seriesKey(*identifier);
        // A fetch gives the occurrences of a series one after another, so the series of the last
        // occurrence is nearly always the next one's: a million occurrences need few lookups.
        if (!last_ || uid != lastUID_) {
            auto found = scan_.series.find(uid);
            if (found == scan_.series.end()) found = scan_.series.emplace(std::string(uid), Series{}).first;
            lastUID_ = found->first;
            last_ = &found->second;
        }
        last_->keys.push_back(*key);
        last_->calendars.insert(event->calendar->calendarIdentifier);
        if (event->isDetached()) last_->detached[*key] = std::move(event);
    }

private:
    Scan& scan_;
    std::string_view lastUID_; // a key of scan_.series, which never moves
    Series* last_ = nullptr;
};

EventKitSnapshot::Event eventOf(const EKEvent& event, const ListedCalendar& calendar) {
    EventKitSnapshot::Event made;
    made.hasRecurrences = event.hasRecurrenceRules();
    if (const auto modified = event.lastModifiedDate()) made.lastModified = Date{*modified};
    made.calendarRowID = calendar.record.rowID;
    made.snapshot = EventKitSource::snapshot(event);
    made.snapshot.calendarName = calendar.displayName;
    made.hasAttendees = event.hasAttendees();
    return made;
}

json::Ordered calendarsJSON(const std::vector<BackupCalendar>& calendars) {
    auto list = json::Ordered::array();
    for (const auto& calendar : calendars)
        list.push_back(calendar.json());
    return list;
}

// The compact JSON text of the document's large members is written one element at a time, to a
// sink: a tree of the whole of one takes several times its text.
using Sink = std::function<void(std::string_view)>;

void writeEvents(const std::vector<EventKitSnapshot::Event>& events, bool sortKeys, const Sink& sink) {
    sink("[");
    for (size_t i = 0; i < events.size(); ++i) {
        if (i > 0) sink(",");
        const auto event = events[i].json();
        sink(sortKeys ? json::dump(json::sorted(event), false) : json::dumpKeepingOrder(event, false));
    }
    sink("]");
}

void writeOccurrences(const std::map<std::string, std::vector<std::int64_t>>& occurrences, const Sink& sink) {
    sink("{");
    bool first = true;
    for (const auto& [uid, keys] : occurrences) {
        if (!first) sink(",");
        first = false;
        sink(json::dumpKeepingOrder(json::Ordered(uid), false));
        sink(":");
        sink(json::dumpKeepingOrder(json::Ordered(keys), false));
    }
    sink("}");
}

std::vector<std::int64_t> occurrenceKeys(const json::Ordered& list, const std::string& path) {
    const auto& keys = json::array(list, path);
    std::vector<std::int64_t> values;
    values.reserve(keys.size());
    for (size_t index = 0; index < keys.size(); ++index)
        values.push_back(json::integer(keys[index], json::indexPath(path, index)));
    return values;
}

// `capture`, failing with the store's own errors.
EventKitSnapshot captureWhole(EKEventStore& store, Date now) {
    EventKitSnapshot snapshot;
    snapshot.taken = now;
    const Date today = dates::startOfDay(now);
    snapshot.windowStart = dates::addingYears(today, -EventKitSnapshot::yearsBack);
    snapshot.windowEnd = dates::addingYears(today, EventKitSnapshot::yearsAhead);

    const auto calendars = listCalendars(store);
    const auto listed = [&calendars](const std::shared_ptr<const EKCalendar>& calendar) -> const ListedCalendar* {
        if (!calendar) return nullptr;
        const auto found = calendars.find(calendar->calendarIdentifier);
        return found == calendars.end() ? nullptr : &found->second;
    };

    Scan scan;
    Scanner scanner(scan);
    fetchYearByYear(store, {snapshot.windowStart, snapshot.windowEnd},
                    [&scanner](std::shared_ptr<EKEvent> event) { scanner.add(std::move(event)); });

    std::vector<std::shared_ptr<EKEvent>> singles;
    singles.reserve(scan.singles.size());
    for (auto& [identifier, event] : scan.singles)
        singles.push_back(std::move(event));
    // The scan kept only singles with an external identifier.
    std::stable_sort(singles.begin(), singles.end(), [](const auto& a, const auto& b) {
        return std::tie(*a->calendarItemExternalIdentifier(), a->calendarItemIdentifier()) <
               std::tie(*b->calendarItemExternalIdentifier(), b->calendarItemIdentifier());
    });

    std::int64_t rowID = 0;
    for (const auto& single : singles) {
        const auto* calendar = listed(single->calendar);
        if (!calendar) continue;
        auto event = eventOf(*single, *calendar);
        event.rowID = ++rowID;
        event.uniqueIdentifier = single->calendarItemExternalIdentifier().value_or(single->calendarItemIdentifier());
        event.uuid = single->calendarItemIdentifier();
        snapshot.events.push_back(std::move(event));
    }

    for (const auto& [uid, series] : scan.series) {
        std::set<std::string> calendarsDone;
        for (const auto& item : store.calendarItemsWithExternalIdentifier(uid)) {
            const auto master = std::dynamic_pointer_cast<EKEvent>(item);
            if (!master || master->isDetached() || !master->hasRecurrenceRules() || !master->calendar) continue;
            const auto& calendarID = master->calendar->calendarIdentifier;
            if (series.calendars.count(calendarID) == 0 || !calendarsDone.insert(calendarID).second) continue;
            const auto* calendar = listed(master->calendar);
            if (!calendar) continue;
            auto event = eventOf(*master, *calendar);
            event.rowID = ++rowID;
            event.uniqueIdentifier = uid;
            event.uuid = master->calendarItemIdentifier();
            const auto masterRowID = event.rowID;
            snapshot.events.push_back(std::move(event));

            for (const auto& [key, occurrence] : series.detached) {
                if (!occurrence->calendar || occurrence->calendar->calendarIdentifier != calendarID) continue;
                auto moved = eventOf(*occurrence, *calendar);
                moved.rowID = ++rowID;
                moved.uniqueIdentifier = occurrenceIdentifier(uid, key);
                moved.masterRowID = masterRowID;
                moved.originalDate = Date{static_cast<double>(key)};
                snapshot.events.push_back(std::move(moved));
            }
        }
    }

    for (const auto& [identifier, calendar] : calendars)
        snapshot.calendars.push_back(calendar.record);
    std::sort(snapshot.calendars.begin(), snapshot.calendars.end(),
              [](const auto& a, const auto& b) { return a.rowID < b.rowID; });
    for (auto& [uid, series] : scan.series) {
        sortOccurrenceKeys(series.keys);
        snapshot.occurrences.emplace(uid, std::move(series.keys));
    }
    return snapshot;
}

} // namespace

EventKitSnapshot EventKitSnapshot::capture(EKEventStore& store, Date now) {
    try {
        return captureWhole(store, now);
    } catch (const Error& error) {
        throw RestoreError("Couldn't read all of the calendars: " + error.description());
    }
}

std::optional<std::string> EventKitSnapshot::colorHex(const EKCalendar& calendar) {
    if (!calendar.colorComponents || calendar.colorComponents->size() < 3) return std::nullopt;
    unsigned values[3];
    for (size_t index = 0; index < 3; ++index) {
        const double scaled = std::trunc((*calendar.colorComponents)[index] * 255.0);
        // Components outside 0 to 1 (extended colour spaces) print as the platform prints them;
        // what no integer holds is pinned rather than left undefined.
        const int value = std::isfinite(scaled) ? static_cast<int>(std::clamp(scaled, -2147483648.0, 2147483647.0)) : 0;
        values[index] = static_cast<unsigned>(value);
    }
    char text[32];
    std::snprintf(text, sizeof text, "#%02X%02X%02X", values[0], values[1], values[2]);
    return std::string(text);
}

std::int64_t EventKitSnapshot::storeType(EKCalendarType type) {
    switch (type) {
    case EKCalendarType::local: return 0;
    case EKCalendarType::calDAV: return 2;
    case EKCalendarType::exchange: return 1;
    case EKCalendarType::subscription: return 4;
    case EKCalendarType::birthday: return 5;
    }
    return 4;
}

std::string EventKitSnapshot::fingerprint() const {
    SHA256 hash;
    const Sink toHash = [&](std::string_view text) { hash.update(text); };
    writeEvents(events, true, toHash);
    // A std::map gives its keys in the order of a sorted document, and the lists hold numbers
    // only, so the largest part is hashed as it is written.
    writeOccurrences(occurrences, toHash);
    hash.update(json::dump(json::sorted(calendarsJSON(calendars)), false));
    return SHA256::hex(hash.finish());
}

std::string EventKitSnapshot::encoded() const { return compression::compress(jsonText()); }

EventKitSnapshot EventKitSnapshot::decode(std::string_view bytes) {
    // The events and occurrence lists, most of a document, are read as the parser finishes each
    // one and left out of the tree, which would take several times the text.
    std::vector<Event> events;
    std::map<std::string, std::vector<std::int64_t>> occurrences;
    enum class Inside { other, eventList, occurrenceMap } inside = Inside::other;
    std::string member;
    std::string uid;
    const auto read = [&](int depth, json::ParseEvent event, json::Ordered& parsed) {
        using Parse = json::ParseEvent;
        if (depth == 1) {
            if (event == Parse::key) {
                member = parsed.get<std::string>();
            } else if (event == Parse::array_start || event == Parse::object_start) {
                inside = event == Parse::array_start && member == "events"         ? Inside::eventList
                         : event == Parse::object_start && member == "occurrences" ? Inside::occurrenceMap
                                                                                   : Inside::other;
            } else if (event == Parse::array_end || event == Parse::object_end) {
                inside = Inside::other;
            }
            return true;
        }
        if (depth != 2 || inside == Inside::other) return true;
        if (event == Parse::key) {
            uid = parsed.get<std::string>();
            return true;
        }
        if (event != Parse::object_end && event != Parse::array_end && event != Parse::value) return true;
        if (inside == Inside::eventList) {
            events.push_back(Event::fromJson(parsed, json::indexPath("events", events.size())));
            return false;
        }
        occurrences[uid] = occurrenceKeys(parsed, json::keyPath("occurrences", uid));
        // An object keeps the key of a value left out, so the value is emptied instead.
        parsed = json::Ordered::array();
        return true;
    };
    auto snapshot = fromJson(json::parse(compression::decompress(bytes), read));
    snapshot.events = std::move(events);
    snapshot.occurrences = std::move(occurrences);
    // Only after a full decode: a later format that no longer decodes fails with the decoder's
    // own words, which say more.
    if (snapshot.version >= 2) throw RestoreError("This snapshot was made by a newer version of Morvane.");
    return snapshot;
}

json::Ordered EventKitSnapshot::Event::json() const {
    json::Ordered object = json::Ordered::object();
    object["rowID"] = rowID;
    object["uniqueIdentifier"] = uniqueIdentifier;
    if (uuid) object["uuid"] = *uuid;
    object["hasRecurrences"] = hasRecurrences;
    if (masterRowID) object["masterRowID"] = *masterRowID;
    if (originalDate) object["originalDate"] = json::date(*originalDate, dateEncoding);
    if (lastModified) object["lastModified"] = json::date(*lastModified, dateEncoding);
    object["calendarRowID"] = calendarRowID;
    object["snapshot"] = snapshot.json(dateEncoding);
    object["hasAttendees"] = hasAttendees;
    return object;
}

EventKitSnapshot::Event EventKitSnapshot::Event::fromJson(const json::Ordered& value, const std::string& path) {
    const json::ObjectReader reader(value, path);
    Event event;
    event.rowID = json::integer(reader.required("rowID"), reader.pathOf("rowID"));
    event.uniqueIdentifier = json::string(reader.required("uniqueIdentifier"), reader.pathOf("uniqueIdentifier"));
    event.uuid = reader.optionalString("uuid");
    event.hasRecurrences = json::boolean(reader.required("hasRecurrences"), reader.pathOf("hasRecurrences"));
    if (const auto* master = reader.optional("masterRowID")) {
        event.masterRowID = json::integer(*master, reader.pathOf("masterRowID"));
    }
    if (const auto* original = reader.optional("originalDate")) {
        event.originalDate = json::date(*original, dateEncoding, reader.pathOf("originalDate"));
    }
    if (const auto* modified = reader.optional("lastModified")) {
        event.lastModified = json::date(*modified, dateEncoding, reader.pathOf("lastModified"));
    }
    event.calendarRowID = json::integer(reader.required("calendarRowID"), reader.pathOf("calendarRowID"));
    event.snapshot = EventSnapshot::fromJson(reader.required("snapshot"), dateEncoding, reader.pathOf("snapshot"));
    event.hasAttendees = json::boolean(reader.required("hasAttendees"), reader.pathOf("hasAttendees"));
    return event;
}

std::string EventKitSnapshot::jsonText() const {
    json::Ordered head = json::Ordered::object();
    head["version"] = version;
    head["taken"] = json::date(taken, dateEncoding);
    head["windowStart"] = json::date(windowStart, dateEncoding);
    head["windowEnd"] = json::date(windowEnd, dateEncoding);
    head["calendars"] = calendarsJSON(calendars);
    std::string text = json::dumpKeepingOrder(head, false);
    // The large members follow the head's before its closing brace.
    text.pop_back();
    const Sink toText = [&](std::string_view piece) { text += piece; };
    text += ",\"events\":";
    writeEvents(events, false, toText);
    text += ",\"occurrences\":";
    writeOccurrences(occurrences, toText);
    text += '}';
    return text;
}

json::Ordered EventKitSnapshot::json() const { return json::parse(jsonText()); }

EventKitSnapshot EventKitSnapshot::fromJson(const json::Ordered& value) {
    const json::ObjectReader reader(value, {});
    EventKitSnapshot snapshot;
    snapshot.version = json::integer(reader.required("version"), reader.pathOf("version"));
    snapshot.taken = json::date(reader.required("taken"), dateEncoding, reader.pathOf("taken"));
    snapshot.windowStart = json::date(reader.required("windowStart"), dateEncoding, reader.pathOf("windowStart"));
    snapshot.windowEnd = json::date(reader.required("windowEnd"), dateEncoding, reader.pathOf("windowEnd"));
    const auto& calendarList = json::array(reader.required("calendars"), reader.pathOf("calendars"));
    for (size_t index = 0; index < calendarList.size(); ++index) {
        snapshot.calendars.push_back(
            BackupCalendar::fromJson(calendarList[index], json::indexPath(reader.pathOf("calendars"), index)));
    }
    const auto& eventList = json::array(reader.required("events"), reader.pathOf("events"));
    for (size_t index = 0; index < eventList.size(); ++index) {
        snapshot.events.push_back(Event::fromJson(eventList[index], json::indexPath(reader.pathOf("events"), index)));
    }
    const json::ObjectReader occurrenceMap(reader.required("occurrences"), reader.pathOf("occurrences"));
    for (const auto& [uid, list] : occurrenceMap.object().items())
        snapshot.occurrences[uid] = occurrenceKeys(list, occurrenceMap.pathOf(uid));
    return snapshot;
}

EventKitStore::EventKitStore(EventKitSnapshot snapshot) : snapshot_(std::move(snapshot)) {
    std::map<std::int64_t, const BackupCalendar*> calendars;
    for (const auto& calendar : snapshot_.calendars)
        calendars.try_emplace(calendar.rowID, &calendar);
    for (const auto& event : snapshot_.events) {
        const auto calendar = calendars.find(event.calendarRowID);
        if (calendar == calendars.end()) continue;
        // A capture numbers rows uniquely; a file that repeats one is someone else's, and its
        // first row wins rather than the process failing over it.
        if (!uidByRowID_.try_emplace(event.rowID, seriesKey(event.uniqueIdentifier)).second) continue;
        BackupEvent made;
        made.rowID = event.rowID;
        made.uniqueIdentifier = event.uniqueIdentifier;
        made.uuid = event.uuid;
        made.hasRecurrences = event.hasRecurrences;
        made.masterRowID = event.masterRowID;
        made.originalDate = event.originalDate;
        made.lastModified = event.lastModified;
        made.calendar = *calendar->second;
        made.snapshot = event.snapshot;
        made.hasAttendees = event.hasAttendees;
        all_.push_back(std::move(made));
    }
}

EventKitStore::EventKitStore(const std::filesystem::path& file)
    : EventKitStore(EventKitSnapshot::decode(CalendarArchive::readCoordinated(file))) {}

std::vector<BackupEvent> EventKitStore::loadEvents() {
    std::vector<BackupEvent> restorable;
    for (const auto& event : all_) {
        const auto type = morvane::storeType(event.calendar.storeType);
        if (type &&
            std::find(restorableStoreTypes.begin(), restorableStoreTypes.end(), *type) != restorableStoreTypes.end()) {
            restorable.push_back(event);
        }
    }
    return restorable;
}

std::vector<Date> EventKitStore::exceptionDates(std::int64_t) { return {}; }

OccurrenceSet EventKitStore::occurrences() {
    OccurrenceSet set{{snapshot_.windowStart, snapshot_.windowEnd}, {}};
    // A restore point read from a file holds its keys as the file lists them.
    for (const auto& [uid, keys] : snapshot_.occurrences)
        sortOccurrenceKeys(set.dates.emplace(uid, keys).first->second);
    return set;
}

std::optional<KeptOccurrences> EventKitStore::keptOccurrences(std::int64_t master) {
    const auto uid = uidByRowID_.find(master);
    if (uid == uidByRowID_.end()) return std::nullopt;
    KeptOccurrences kept{{snapshot_.windowStart, snapshot_.windowEnd}, {}};
    if (const auto keys = snapshot_.occurrences.find(uid->second); keys != snapshot_.occurrences.end()) {
        kept.keys.insert(keys->second.begin(), keys->second.end());
    }
    return kept;
}

} // namespace morvane
