#include "MorvaneCore/Restore/Timeline.h"

#include "MorvaneCore/LiveCalendars/YearByYearFetch.h"
#include "MorvaneCore/Restore/RestoreEngine.h"
#include "MorvaneCore/Shared/Errors.h"
#include "MorvaneCore/Shared/EventKeys.h"
#include "MorvaneCore/SnapshotStore/EventKitSnapshot.h"
#include "MorvanePlatform/TextPieces.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <exception>
#include <map>
#include <set>
#include <unordered_map>
#include <unordered_set>

namespace morvane {
namespace {

// A day either side: an event moved by a few hours across the range's edge still matches.
constexpr double widening = 86400;
// How far a moved occurrence is looked for around its original date.
constexpr double movedWindow = 5184000;

json::Ordered optionalText(const std::optional<std::string>& text) {
    return text ? json::Ordered(*text) : json::Ordered(nullptr);
}

json::Ordered optionalDate(const std::optional<Date>& date) {
    return date ? json::Ordered(json::isoDate(*date)) : json::Ordered(nullptr);
}

bool overlaps(DateInterval range, DateInterval interval) {
    return range.end > interval.start && range.start < interval.end;
}

// The display range of dates read as a snapshot with them would be.
DateInterval displayed(Date start, Date end, bool floating) {
    if (!floating) return {start, end};
    return {Restorer::instantOfWallClock(start), Restorer::instantOfWallClock(end)};
}

std::string trimmedTitle(std::string_view title) { return std::string(text::trimming(title, " \t")); }

std::string calendarLabel(const EKCalendar& calendar) {
    return calendar.title + " (" + (calendar.source ? calendar.source->title : "?") + ")";
}

// The series key of a live event: its external identifier cut before "/RID=".
std::string liveSeriesKey(const EKEvent& event) {
    return std::string(seriesKey(event.calendarItemExternalIdentifier().value_or("")));
}

// An optional sign and decimal digits, nothing else.
std::optional<std::int64_t> integerKey(std::string_view text) {
    if (!text.empty() && text.front() == '+') text.remove_prefix(1);
    std::int64_t value = 0;
    const auto* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (text.empty() || error != std::errc{} || stop != end) return std::nullopt;
    return value;
}

// A live occurrence of the range. Its snapshot is made again where an item needs it: made once
// and held, a year of them costs far more memory than making them twice costs time.
struct Current {
    std::shared_ptr<EKEvent> event;
    // The snapshot's title-start key; moved into the look-ups once they are made.
    std::string titleStart;
    // Whether an item of the backup has claimed it, so that it isn't also added.
    bool seen = false;
};

// An item showing a backup occurrence that is gone: everything from the backup's snapshot.
TimelineItem deletedItem(std::string id, const EventSnapshot& snapshot, std::optional<std::string> colorHex,
                         bool repeating) {
    TimelineItem made;
    made.id = std::move(id);
    const auto range = RestoreEngine::displayRange(snapshot);
    made.title = trimmedTitle(snapshot.title);
    made.start = range.start;
    made.end = range.end;
    made.isAllDay = snapshot.isAllDay;
    made.location = snapshot.location;
    made.calendarName = snapshot.calendarName;
    made.calendarID = snapshot.calendarUUID;
    made.colorHex = std::move(colorHex);
    made.state = TimelineItem::State::deleted;
    made.isRepeating = repeating;
    return made;
}

// Where the live store now has occurrences that a timeline's backup lost from its range. A
// look-up answers as a fetch of the key's own window would: the first live occurrence of the
// series with that key that meets the window. The events of the range were offered already; of
// what lies beyond it, only an occurrence detached from its series can carry a key of the range,
// so each series asked about is read by its identifier instead of fetching months of every series.
class MovedOccurrences {
public:
    // `wanted`: series key to the occurrence keys to look for.
    explicit MovedOccurrences(std::unordered_map<std::string, std::set<std::int64_t>> wanted)
        : wanted_(std::move(wanted)) {}

    static DateInterval window(std::int64_t key) {
        const double at = static_cast<double>(key);
        return {Date{at - movedWindow}, Date{at + movedWindow}};
    }

    void offer(std::shared_ptr<EKEvent> event) {
        if (!event->calendarItemExternalIdentifier()) return;
        const auto series = wanted_.find(liveSeriesKey(*event));
        if (series == wanted_.end()) return;
        const auto key = liveOccurrenceKey(*event);
        if (key && series->second.count(*key) != 0)
            found_[RestoreEngine::matchKey(series->first, key)].push_back(std::move(event));
    }

    // Offers the detached occurrences of every series asked about.
    void offerDetached(EKEventStore& store) {
        for (const auto& [series, keys] : wanted_) {
            if (keys.empty()) continue;
            for (auto& item : store.calendarItemsWithExternalIdentifier(series)) {
                if (auto event = std::dynamic_pointer_cast<EKEvent>(std::move(item)); event && event->isDetached())
                    offer(std::move(event));
            }
        }
    }

    std::shared_ptr<EKEvent> find(const std::string& series, std::int64_t key) const {
        const auto candidates = found_.find(RestoreEngine::matchKey(series, key));
        if (candidates == found_.end()) return nullptr;
        const auto around = window(key);
        for (const auto& event : candidates->second) {
            // The store's own test of an event meeting a fetched span.
            const double start = event->startDate.value_or(0);
            const double end = event->endDate.value_or(0);
            if (start < around.end.seconds && (end > around.start.seconds || start >= around.start.seconds))
                return event;
        }
        return nullptr;
    }

private:
    std::unordered_map<std::string, std::set<std::int64_t>> wanted_;
    std::unordered_map<std::string, std::vector<std::shared_ptr<EKEvent>>> found_;
};

} // namespace

std::string_view TimelineItem::name(State state) {
    switch (state) {
    case State::unchanged: return "unchanged";
    case State::deleted: return "deleted";
    case State::changed: return "changed";
    case State::added: return "added";
    }
    return "unchanged";
}

json::Ordered TimelineItem::json() const {
    auto changeList = json::Ordered::array();
    for (const auto& change : changes)
        changeList.push_back({{"field", change.field}, {"old", change.old}, {"new", change.new_}});
    return {{"id", id},
            {"title", title},
            {"start", json::isoDate(start)},
            {"end", json::isoDate(end)},
            {"isAllDay", isAllDay},
            {"location", optionalText(location)},
            {"calendarName", calendarName},
            {"calendarID", optionalText(calendarID)},
            {"colorHex", optionalText(colorHex)},
            {"state", name(state)},
            {"moved", moved()},
            {"previousStart", optionalDate(previousStart)},
            {"previousEnd", optionalDate(previousEnd)},
            {"changes", std::move(changeList)},
            {"restoreID", restoreID ? json::Ordered(*restoreID) : json::Ordered(nullptr)},
            {"isRepeating", isRepeating}};
}

std::string RestoreEngine::matchKey(std::string_view series, std::optional<std::int64_t> occurrence) {
    std::string key(series);
    if (occurrence) key += "|" + std::to_string(*occurrence);
    return key;
}

std::string RestoreEngine::titleStart(const EventSnapshot& snapshot) {
    return DatabaseSource::titleStartKey(snapshot.title, snapshot.start);
}

DateInterval RestoreEngine::displayRange(const EventSnapshot& snapshot) {
    return displayed(snapshot.start, snapshot.end, snapshot.isFloating());
}

std::vector<RestoreEngine::BackupOccurrence> RestoreEngine::backupOccurrences(const BackupEvent& event,
                                                                              DateInterval in) {
    return occurrencesIn(wholeOccurrences(), event, in);
}

std::optional<OccurrenceSet> RestoreEngine::occurrencesAround(DateInterval in) {
    if (!opened_) return std::nullopt;
    // An occurrence that begins before the range may last into it: reach back by the longest
    // repeating event, and a day more either side for floating times read in another zone.
    double longest = 0;
    for (const auto& event : allEvents_) {
        if (event.snapshot.recurrence || event.isDetachedOccurrence())
            longest = std::max(longest, event.snapshot.end.seconds - event.snapshot.start.seconds);
    }
    try {
        return opened_->store->occurrencesWithin(
            DateInterval{Date{in.start.seconds - longest - widening}, Date{in.end.seconds + widening}});
    } catch (const Error&) {
        return std::nullopt;
    }
}

void RestoreEngine::eachCachedOccurrence(const OccurrenceSet& set, const BackupEvent& event, DateInterval in,
                                         const std::function<void(std::int64_t, const EventSnapshot*)>& visit) const {
    const auto keys = set.dates.find(std::string(event.externalIdentifier()));
    if (keys == set.dates.end()) return;
    const auto& master = event.snapshot;
    const double duration = master.end.seconds - master.start.seconds;
    std::map<std::int64_t, const EventSnapshot*> detached;
    if (const auto list = detachedByMaster_.find(event.rowID); list != detachedByMaster_.end()) {
        for (const auto& occurrence : list->second) {
            if (occurrence.originalDate)
                detached.emplace(occurrence.originalDate->occurrenceKey(), &occurrence.snapshot);
        }
    }
    for (const auto key : keys->second) {
        const auto edited = detached.find(key);
        const EventSnapshot* snapshot = edited == detached.end() ? nullptr : edited->second;
        const Date start{static_cast<double>(key)};
        const auto range =
            snapshot ? displayRange(*snapshot) : displayed(start, Date{start.seconds + duration}, master.isFloating());
        if (overlaps(range, in)) visit(key, snapshot);
    }
}

std::vector<RestoreEngine::BackupOccurrence>
RestoreEngine::occurrencesIn(const std::optional<OccurrenceSet>& set, const BackupEvent& event, DateInterval in) const {
    std::vector<BackupOccurrence> found;
    const auto& master = event.snapshot;
    if (!master.recurrence) {
        if (overlaps(displayRange(master), in)) found.emplace_back(std::nullopt, master);
        return found;
    }
    if (!set) return found;
    const double duration = master.end.seconds - master.start.seconds;
    eachCachedOccurrence(*set, event, in, [&](std::int64_t key, const EventSnapshot* edited) {
        if (edited) {
            found.emplace_back(key, *edited);
            return;
        }
        EventSnapshot snapshot = master;
        snapshot.start = Date{static_cast<double>(key)};
        snapshot.end = Date{snapshot.start.seconds + duration};
        found.emplace_back(key, std::move(snapshot));
    });
    return found;
}

std::vector<std::int64_t> RestoreEngine::occurrenceKeysIn(const OccurrenceSet& set, const BackupEvent& event,
                                                          DateInterval in) const {
    std::vector<std::int64_t> keys;
    if (event.snapshot.recurrence)
        eachCachedOccurrence(set, event, in, [&](std::int64_t key, const EventSnapshot*) { keys.push_back(key); });
    return keys;
}

std::optional<RestoreEngine::LiveOccurrence>
RestoreEngine::movedElsewhere(const BackupEvent& event, std::optional<std::int64_t> key, DateInterval /*outside*/) {
    auto& store = *ek_.store();
    const std::string series(event.externalIdentifier());
    if (!key) {
        std::shared_ptr<EKEvent> first;
        for (const auto& item : store.calendarItemsWithExternalIdentifier(series)) {
            auto found = std::dynamic_pointer_cast<EKEvent>(item);
            if (!found || found->isDetached()) continue;
            if (found->calendar && event.calendar.uuid && found->calendar->calendarIdentifier == *event.calendar.uuid)
                return LiveOccurrence{found, EventKitSource::snapshot(*found)};
            if (!first) first = std::move(found);
        }
        if (!first) return std::nullopt;
        return LiveOccurrence{first, EventKitSource::snapshot(*first)};
    }
    MovedOccurrences moved(std::unordered_map<std::string, std::set<std::int64_t>>{{series, {*key}}});
    fetchYearByYear(store, MovedOccurrences::window(*key),
                    [&moved](std::shared_ptr<EKEvent> found) { moved.offer(std::move(found)); });
    if (auto found = moved.find(series, *key)) return LiveOccurrence{found, EventKitSource::snapshot(*found)};
    return std::nullopt;
}

TimelineItem RestoreEngine::item(std::string id, const EventSnapshot& snapshot, const EKEvent& event,
                                 TimelineItem::State state, std::optional<DateInterval> previous,
                                 std::vector<FieldChange> changes, std::optional<std::int64_t> restoreID) const {
    TimelineItem made;
    made.id = std::move(id);
    made.title = trimmedTitle(snapshot.title);
    made.start = Date{event.startDate.value_or(0)};
    made.end = Date{event.endDate.value_or(0)};
    made.isAllDay = event.isAllDay();
    made.location = snapshot.location;
    if (event.calendar) {
        made.calendarName = calendarLabel(*event.calendar);
        made.calendarID = event.calendar->calendarIdentifier;
        made.colorHex = EventKitSnapshot::colorHex(*event.calendar);
    } else {
        made.calendarName = snapshot.calendarName;
        made.calendarID = snapshot.calendarUUID;
    }
    made.state = state;
    if (previous) {
        made.previousStart = previous->start;
        made.previousEnd = previous->end;
    }
    made.changes = std::move(changes);
    made.restoreID = restoreID;
    made.isRepeating = event.hasRecurrenceRules() || event.isDetached();
    return made;
}

std::vector<TimelineItem> RestoreEngine::timeline(DateInterval in) {
    using State = TimelineItem::State;
    const DateInterval wide{Date{in.start.seconds - widening}, Date{in.end.seconds + widening}};
    auto& store = *ek_.store();

    std::set<std::string> backupCalendars;
    std::unordered_set<std::string> backupSeries;
    for (const auto& event : allEvents_) {
        if (event.calendar.uuid) backupCalendars.insert(*event.calendar.uuid);
        backupSeries.emplace(event.externalIdentifier());
    }
    // Read-only calendars only when the backup has events in them: a subscription the user never
    // wrote to has nothing to restore.
    std::unordered_set<std::string> toRead;
    for (const auto& calendar : store.calendarsForEntityType(EKEntityType::event)) {
        if (backupCalendars.count(calendar->calendarIdentifier) != 0 ||
            (calendar->allowsContentModifications && calendar->type != EKCalendarType::birthday))
            toRead.insert(calendar->calendarIdentifier);
    }

    std::unordered_map<std::string, Current> current;
    std::vector<std::shared_ptr<EKEvent>> elsewhere;
    // The same entries in the order fetched, for a stable list of added items.
    std::vector<std::pair<const std::string, Current>*> fetchOrder;
    fetchYearByYear(store, wide, [&](std::shared_ptr<EKEvent> event) {
        if (!event->calendarItemExternalIdentifier()) return;
        if (!event->calendar || toRead.count(event->calendar->calendarIdentifier) == 0) {
            // Where a backup event may have gone, though the timeline doesn't show it there.
            if (backupSeries.count(liveSeriesKey(*event)) != 0) elsewhere.push_back(std::move(event));
            return;
        }
        const bool isOccurrence = event->hasRecurrenceRules() || event->isDetached();
        const auto key = matchKey(liveSeriesKey(*event), isOccurrence ? liveOccurrenceKey(*event) : std::nullopt);
        auto titleStartKey = titleStart(EventKitSource::snapshot(*event));
        const auto [entry, added] = current.insert_or_assign(key, Current{std::move(event), std::move(titleStartKey)});
        if (added) fetchOrder.push_back(&*entry);
    });

    std::unordered_set<std::string> currentTitleStarts;
    // Live events the backup doesn't know, by title and start: what may be a restored copy.
    std::unordered_map<std::string, std::string> recreated;
    // The backup's series that the range shows alive: the store holds an item of each, so it
    // needn't be asked again whether a deleted event of one still exists.
    std::unordered_set<std::string> liveSeries;
    for (auto& [key, entry] : current) {
        std::string series(seriesKey(key.substr(0, key.find('|'))));
        if (backupSeries.count(series) == 0) {
            recreated.emplace(entry.titleStart, key);
        } else {
            liveSeries.insert(std::move(series));
        }
        currentTitleStarts.insert(std::move(entry.titleStart));
    }
    for (const auto& event : elsewhere)
        liveSeries.insert(liveSeriesKey(*event));

    std::vector<TimelineItem> items;
    const auto fromChanges = [&](std::string id, const EventSnapshot& backup, const EKEvent& event,
                                 const EventSnapshot& live, bool single) {
        auto changes = backup.changes(live, {.recurrence = single, .calendar = true, .alarms = true});
        std::optional<DateInterval> previous;
        const bool moved = std::any_of(changes.begin(), changes.end(), [](const FieldChange& change) {
            return change.field == "start" || change.field == "end" || change.field == "all-day";
        });
        if (moved) previous = displayRange(backup);
        const auto state = changes.empty() ? State::unchanged : State::changed;
        auto made = item(std::move(id), live, event, state, previous, std::move(changes), std::nullopt);
        made.isRepeating = !single;
        items.push_back(std::move(made));
    };

    // The backup's occurrences in the range; those of a series that the range's live events don't
    // hold are looked for further away, all in one fetch. They are made twice, once for that and
    // once for the items, rather than held: a year of them is a snapshot each.
    std::unordered_map<std::string, std::set<std::int64_t>> lost;
    // The whole cache when a comparison has read it already, else only what the range needs.
    std::optional<OccurrenceSet> ranged;
    if (!occurrencesRead_) ranged = occurrencesAround(wide);
    const auto& occurrenceSet = occurrencesRead_ ? backupOccurrences_ : ranged;
    for (const auto& event : allEvents_) {
        if (event.isDetachedOccurrence() || !occurrenceSet) continue;
        for (const auto key : occurrenceKeysIn(*occurrenceSet, event, wide)) {
            if (current.count(matchKey(event.externalIdentifier(), key)) == 0)
                lost[std::string(event.externalIdentifier())].insert(key);
        }
    }
    // Within the range a lost occurrence can only be in a calendar not shown, or a single event
    // now (an occurrence with its key would have matched); beyond it, only a detached one.
    MovedOccurrences moved(std::move(lost));
    for (auto& event : elsewhere)
        moved.offer(std::move(event));
    for (const auto& [key, entry] : current) {
        if (key.find('|') == std::string::npos) moved.offer(entry.event);
    }
    moved.offerDetached(store);
    // By backup row: whether a deleted event can come back whole.
    std::unordered_map<std::int64_t, bool> wholeRestore;

    for (const auto& backup : allEvents_) {
        if (backup.isDetachedOccurrence()) continue;
        const BackupEvent* event = &backup;
        const std::string series(backup.externalIdentifier());
        for (const auto& [key, snapshot] : occurrencesIn(occurrenceSet, backup, wide)) {
            const auto m = matchKey(series, key);
            if (const auto live = current.find(m); live != current.end()) {
                live->second.seen = true;
                fromChanges(m, snapshot, *live->second.event, EventKitSource::snapshot(*live->second.event), !key);
                continue;
            }
            if (key) {
                if (auto found = moved.find(series, *key)) {
                    fromChanges(m, snapshot, *found, EventKitSource::snapshot(*found), false);
                    continue;
                }
            } else if (auto found = movedElsewhere(*event, key, wide)) {
                fromChanges(m, snapshot, *found->first, found->second, true);
                continue;
            }
            const auto t = titleStart(snapshot);
            const auto copy = recreated.find(t);
            if (const auto live = copy == recreated.end() ? current.end() : current.find(copy->second);
                live != current.end() && !live->second.seen) {
                live->second.seen = true;
                const auto& [id, copied] = *live;
                items.push_back(item(id, EventKitSource::snapshot(*copied.event), *copied.event, State::unchanged,
                                     std::nullopt, {}, std::nullopt));
                continue;
            }
            if (currentTitleStarts.count(t) != 0) continue;

            auto deleted = deletedItem(m, snapshot, event->calendar.colorHex, key.has_value());
            // Only in the widened margin: the filter below drops it, so the store isn't asked about it.
            if (!overlaps({deleted.start, deleted.end}, in)) continue;
            // An occurrence deleted from a series that still lives comes back only on its own. The
            // answer is the event's, so the store is asked once for all its occurrences.
            auto restorable = wholeRestore.find(event->rowID);
            if (restorable == wholeRestore.end()) {
                const bool alive = current.count(series) != 0 || liveSeries.count(series) != 0 || ek_.contains(*event);
                restorable = wholeRestore.emplace(event->rowID, !alive && !ek_.hasEquivalent(*event)).first;
            }
            if (restorable->second) deleted.restoreID = event->rowID;
            items.push_back(std::move(deleted));
        }
    }

    for (const auto* entry : fetchOrder) {
        const auto& [key, live] = *entry;
        if (live.seen) continue;
        items.push_back(item(key, EventKitSource::snapshot(*live.event), *live.event, State::added, std::nullopt, {},
                             std::nullopt));
    }

    std::erase_if(items, [&](const TimelineItem& candidate) {
        if (overlaps({candidate.start, candidate.end}, in)) return false;
        return !(candidate.previousStart && candidate.previousEnd &&
                 overlaps({*candidate.previousStart, *candidate.previousEnd}, in));
    });
    std::stable_sort(items.begin(), items.end(), [](const TimelineItem& a, const TimelineItem& b) {
        if (a.start != b.start) return a.start < b.start;
        return a.title < b.title;
    });
    return items;
}

RestoreEngine::RestoreOutcome RestoreEngine::restoreAsSingleEvent(const std::string& itemID,
                                                                  const std::optional<std::string>& into) {
    const auto bar = itemID.find('|');
    const std::string series = itemID.substr(0, bar);
    const auto key = bar == std::string::npos ? std::nullopt : integerKey(std::string_view(itemID).substr(bar + 1));

    const BackupEvent* event = nullptr;
    if (loadedSource_) {
        for (const auto& candidate : allEvents_) {
            if (!candidate.isDetachedOccurrence() && candidate.externalIdentifier() == series) {
                event = &candidate;
                break;
            }
        }
    }
    if (!event) return {-1, "", false, std::string("That event isn't in this backup."), {}};

    EventSnapshot snapshot = event->snapshot;
    if (key) {
        bool edited = false;
        if (const auto list = detachedByMaster_.find(event->rowID); list != detachedByMaster_.end()) {
            for (const auto& occurrence : list->second) {
                if (occurrence.originalDate && occurrence.originalDate->occurrenceKey() == *key) {
                    snapshot = occurrence.snapshot;
                    edited = true;
                    break;
                }
            }
        }
        if (!edited) {
            const double duration = snapshot.end.seconds - snapshot.start.seconds;
            snapshot.start = Date{static_cast<double>(*key)};
            snapshot.end = Date{snapshot.start.seconds + duration};
        }
    }
    const auto failed = [&](std::string message) {
        return RestoreOutcome{event->rowID, snapshot.title, false, std::move(message), {}};
    };

    auto& store = *ek_.store();
    std::shared_ptr<const EKCalendar> target;
    const auto writableWith = [&](const std::string& identifier) -> std::shared_ptr<const EKCalendar> {
        for (const auto& calendar : store.calendarsForEntityType(EKEntityType::event)) {
            if (calendar->allowsContentModifications && calendar->calendarIdentifier == identifier) return calendar;
        }
        return nullptr;
    };
    if (into) target = writableWith(*into);
    if (!target && event->calendar.uuid) target = writableWith(*event->calendar.uuid);
    if (!target) {
        const auto fallback = store.defaultCalendarForNewEvents();
        if (fallback && fallback->allowsContentModifications) target = fallback;
    }
    if (!target) return failed("No calendar to restore into.");

    BackupEvent single = *event;
    single.snapshot = snapshot;
    single.snapshot.recurrence.reset();
    if (ek_.hasEquivalent(single)) return failed("An event with the same title and time is already in your calendars.");

    try {
        auto [identifier, verification] = Restorer(store).restoreSingle(snapshot, target);
        return {event->rowID, snapshot.title, true, std::nullopt, std::move(verification)};
    } catch (const std::exception& error) {
        return failed(error.what());
    }
}

} // namespace morvane
