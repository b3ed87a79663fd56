#include "MorvanePlatform/EventStore/CalDAV/CalDAVStore.h"

#include "MorvanePlatform/CalendarDates.h"
#include "MorvanePlatform/EventStore/CalDAV/Multistatus.h"
#include "MorvanePlatform/EventStore/RecurrenceExpansion.h"
#include "MorvanePlatform/Files.h"
#include "MorvanePlatform/SystemLog.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <set>

namespace morvane {

EKEventStore::EKEventStore(const CalDAVAccount& account) : impl_(std::make_unique<CalDAVStore>(account)) {}

namespace {

using caldav::EventFields;
using caldav::occurrenceKey;

constexpr double secondsPerDay = 86400;
// Wider than any zone's offset, so that expanding on the wall clock misses no occurrence.
constexpr double padding = 2 * secondsPerDay;

bool isSeries(const caldav::SeriesResource& series) { return series.master && series.rule; }

const std::string emptyText;

std::string titleOf(const caldav::SeriesResource& series) {
    if (series.master && series.master->title) return *series.master->title;
    if (!series.overrides.empty() && series.overrides.front().title) return *series.overrides.front().title;
    return "An event";
}

// A resource name for a UID: the characters a path keeps as they are.
std::string fileNameFor(const std::string& uid) {
    std::string name;
    for (const char c : uid) {
        const bool plain = std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_' || c == '.';
        name += plain ? c : '_';
    }
    return name + ".ics";
}

} // namespace

void EKEventStore::CalDAVStore::Resource::hold(caldav::SeriesResource read) {
    series = std::move(read);
    reachStart = std::numeric_limits<double>::infinity();
    reachEnd = -reachStart;
    const auto reach = [&](double start, double end) {
        reachStart = std::min(reachStart, start);
        reachEnd = std::max(reachEnd, end);
    };
    for (const auto& fields : series.overrides)
        reach(fields.start, fields.end);
    if (!series.master) return;
    const auto& master = *series.master;
    if (!series.rule) return reach(master.start, master.end);
    const auto& end = series.rule->recurrenceEnd;
    const bool until = end && end->occurrenceCount <= 0 && end->endDate;
    reach(master.start,
          until ? *end->endDate + std::max(0.0, master.end - master.start) : std::numeric_limits<double>::infinity());
}

EKEventStore::CalDAVStore::CalDAVStore(const CalDAVAccount& account) : client(account) {
    auto made = std::make_shared<EKSource>();
    made->sourceIdentifier = account.url;
    made->title = account.name;
    source = std::move(made);
    discover();
}

void EKEventStore::CalDAVStore::discover() {
    const auto found = caldav::discoverCalendars(client);
    std::map<std::string, CalendarState> kept;
    calendars.clear();
    for (const auto& collection : found) {
        auto calendar = std::make_shared<EKCalendar>();
        calendar->calendarIdentifier = collection.href;
        calendar->title = collection.title;
        calendar->type = collection.subscribed ? EKCalendarType::subscription : EKCalendarType::calDAV;
        calendar->source = source;
        calendar->colorComponents = collection.colorComponents;
        calendar->allowsContentModifications = collection.writable;
        calendar->rowID_ = static_cast<std::int64_t>(calendars.size() + 1);
        auto& state = kept[collection.href];
        if (const auto old = states.find(collection.href); old != states.end()) state = std::move(old->second);
        state.calendar = calendar;
        calendars.push_back(std::move(calendar));
    }
    states = std::move(kept);
}

std::vector<std::shared_ptr<const EKCalendar>> EKEventStore::CalDAVStore::calendarsForEntityType(EKEntityType type) {
    if (type != EKEntityType::event) return {};
    return calendars;
}

std::shared_ptr<const EKCalendar> EKEventStore::CalDAVStore::calendarWithIdentifier(const std::string& identifier) {
    const auto found = states.find(identifier);
    return found == states.end() ? nullptr : found->second.calendar;
}

std::int64_t EKEventStore::CalDAVStore::idOf(const std::string& href) {
    const auto [at, added] = idByHref.emplace(href, nextID);
    if (added) ++nextID;
    return at->second;
}

std::optional<EKEventStore::CalDAVStore::Resource>
EKEventStore::CalDAVStore::readFetched(caldav::FetchedResource& fetched, const std::string& calendar, ZoneCache& zones,
                                       bool keepText) {
    // One unreadable resource doesn't hide the calendar's others.
    const auto skip = [&](const std::string& reason) {
        SystemLog::current().write("Skipped " + fetched.href + " of the account \"" + client.account().name +
                                   "\": " + reason + ".");
        return std::nullopt;
    };
    if (fetched.oversized) {
        return skip("it is larger than " + std::to_string(caldav::MultistatusReader::defaultTextLimit >> 20) + " MB");
    }
    Resource resource;
    try {
        resource.hold(caldav::readResource(fetched.text, zones));
    } catch (const EventStoreError& error) {
        return skip("it can't be read as iCalendar (" + error.description() + ")");
    }
    resource.id = idOf(fetched.href);
    resource.calendar = calendar;
    resource.href = std::move(fetched.href);
    resource.etag = std::move(fetched.etag);
    if (keepText) resource.serverText = std::move(fetched.text);
    resource.onServer = true;
    return resource;
}

const std::string& EKEventStore::CalDAVStore::textOf(Resource& resource) {
    if (resource.pendingText) return *resource.pendingText;
    if (!resource.serverText && resource.onServer) {
        auto fetched = caldav::fetchResource(client, resource.href);
        if (!fetched || fetched->oversized)
            throw EventStoreError(titleOf(resource.series) + " was changed on the server since it was read.");
        // A text newer than the one read keeps the ETag read: writing over it fails at commit as
        // any write over a change made elsewhere does.
        resource.serverText = std::move(fetched->text);
    }
    return resource.serverText ? *resource.serverText : emptyText;
}

EKEventStore::CalDAVStore::CalendarState& EKEventStore::CalDAVStore::loaded(const std::string& calendarIdentifier) {
    auto& state = states.at(calendarIdentifier);
    if (state.loaded) return state;
    std::vector<std::int64_t> ids;
    std::map<std::int64_t, Resource> read;
    ZoneCache zones;
    caldav::fetchResources(client, calendarIdentifier, [&](caldav::FetchedResource& fetched) {
        if (auto resource = readFetched(fetched, calendarIdentifier, zones, false)) {
            ids.push_back(resource->id);
            read.emplace(resource->id, std::move(*resource));
        }
    });
    // A new event saved before the calendar was read is the server's only once committed.
    for (const auto id : state.resources) {
        const auto found = resources.find(id);
        if (found != resources.end() && !found->second.onServer && read.count(id) == 0) ids.push_back(id);
    }
    for (auto& [id, resource] : read) {
        reread.erase(id);
        // A write waiting for commit was made from what was read before.
        const auto held = resources.find(id);
        if (held != resources.end() && (held->second.pendingText || held->second.pendingRemoval)) continue;
        resources.insert_or_assign(id, std::move(resource));
    }
    state.resources = std::move(ids);
    state.loaded = true;
    return state;
}

EKEventStore::CalDAVStore::Resource* EKEventStore::CalDAVStore::fetchedAlone(const std::string& href,
                                                                             const std::string& calendar) {
    const auto known = idByHref.find(href);
    if (known != idByHref.end() && (resources.count(known->second) > 0 || reread.count(known->second) > 0))
        return resourceAt(known->second);
    auto fetched = caldav::fetchResource(client, href);
    if (!fetched) return nullptr;
    ZoneCache zones;
    auto resource = readFetched(*fetched, calendar, zones, true);
    if (!resource) return nullptr;
    const auto id = resource->id;
    // Not among the calendar's resources until the calendar is read; then it is listed there.
    return &resources.insert_or_assign(id, std::move(*resource)).first->second;
}

void EKEventStore::CalDAVStore::loadAll() {
    for (const auto& calendar : calendars)
        loaded(calendar->calendarIdentifier);
}

EKEventStore::CalDAVStore::Resource* EKEventStore::CalDAVStore::resourceAt(std::int64_t id) {
    if (const auto found = resources.find(id); found != resources.end())
        return found->second.pendingRemoval ? nullptr : &found->second;
    const auto again = reread.find(id);
    if (again == reread.end()) return nullptr;
    const auto [calendar, href] = again->second;
    reread.erase(again);
    return fetchedAlone(href, calendar);
}

std::shared_ptr<EKEvent> EKEventStore::CalDAVStore::makeEvent(const Resource& resource, const EventFields& fields,
                                                              ZoneCache& zones) const {
    auto event = std::make_shared<EKEvent>();
    event->title = fields.title;
    if (const auto state = states.find(resource.calendar); state != states.end())
        event->calendar = state->second.calendar;
    event->startDate = zones.moment(fields.zone, fields.start);
    event->endDate = zones.moment(fields.zone, fields.end);
    event->allDay = fields.allDay;
    event->timeZone = fields.zone;
    event->location = fields.location;
    event->notes = fields.notes;
    event->URL = fields.url;
    const auto& series = resource.series;
    if (series.rule) event->recurrenceRules = {*series.rule};
    event->loadedRules_ = std::make_shared<const std::vector<EKRecurrenceRule>>(event->recurrenceRules);
    event->alarms = fields.alarms;
    event->calendarItemIdentifier_ = resource.href;
    event->externalIdentifier_ = series.uid;
    event->eventIdentifier_ = resource.calendar + ":" + series.uid;
    event->hasAttendees_ = fields.hasAttendees;
    event->lastModified_ = fields.lastModified;
    event->rowID_ = resource.id;
    event->occurrenceDate_ = event->startDate;
    if (series.rule) event->originalStored_ = fields.start;
    return event;
}

std::shared_ptr<EKEvent> EKEventStore::CalDAVStore::makeDetached(const Resource& resource, const EventFields& fields,
                                                                 ZoneCache& zones) const {
    auto event = makeEvent(resource, fields, zones);
    const double original = fields.recurrenceID.value_or(fields.start);
    const auto& master = resource.series.master;
    const std::string uid = resource.series.uid + "/RID=" + std::to_string(occurrenceKey(original));
    event->externalIdentifier_ = uid;
    event->eventIdentifier_ = resource.calendar + ":" + uid;
    event->originalStored_ = original;
    event->occurrenceDate_ = zones.moment(master ? master->zone : fields.zone, original);
    event->detached_ = true;
    event->masterRowID_ = resource.id;
    return event;
}

void EKEventStore::CalDAVStore::appendEvents(const Resource& resource, double spanStart, double spanEnd,
                                             ZoneCache& zones, std::vector<std::shared_ptr<EKEvent>>& events) const {
    // Stored dates lie within a day of their moments, whatever the zone.
    if (resource.reachEnd < spanStart - padding || resource.reachStart > spanEnd + padding) return;
    const auto& series = resource.series;
    for (const auto& fields : series.overrides) {
        const double start = zones.moment(fields.zone, fields.start);
        const double end = zones.moment(fields.zone, fields.end);
        if (overlaps(start, end, spanStart, spanEnd)) events.push_back(makeDetached(resource, fields, zones));
    }
    if (!series.master) return;
    const auto& master = *series.master;
    if (!series.rule) {
        const double start = zones.moment(master.zone, master.start);
        const double end = zones.moment(master.zone, master.end);
        if (overlaps(start, end, spanStart, spanEnd)) events.push_back(makeEvent(resource, master, zones));
        return;
    }
    // A series is expanded on the wall clock of its zone, as the local store expands it.
    if (!(master.start >= earliestRepresentable && master.start < latestRepresentable)) return;
    if (master.start >= spanEnd + padding) return;
    const auto& rule = *series.rule;
    auto& current = zones.current;
    auto& zone = zones.of(master.zone);
    const double duration = std::max(0.0, master.end - master.start);
    std::optional<double> untilWallClock;
    if (rule.recurrenceEnd && rule.recurrenceEnd->occurrenceCount <= 0 && rule.recurrenceEnd->endDate) {
        if (*rule.recurrenceEnd->endDate < spanStart - duration - padding) return;
        untilWallClock = zone.wallClock(*rule.recurrenceEnd->endDate);
    }
    std::set<std::int64_t> moved;
    for (const auto& fields : series.overrides) {
        if (fields.recurrenceID) moved.insert(occurrenceKey(*fields.recurrenceID));
    }
    std::shared_ptr<EKEvent> model;
    const double startWallClock = master.zone ? zone.wallClock(master.start) : master.start;
    recurrence::expand(rule, startWallClock, untilWallClock, spanStart - duration - padding, spanEnd + padding,
                       [&](double wallClock) {
                           const double stored = master.zone ? zone.moment(wallClock) : wallClock;
                           const auto key = occurrenceKey(stored);
                           if (series.exceptions.count(key) > 0 || moved.count(key) > 0) return true;
                           const double start = master.zone ? stored : current.moment(stored);
                           const double end = master.zone ? stored + duration : current.moment(wallClock + duration);
                           if (!overlaps(start, end, spanStart, spanEnd)) return true;
                           if (!model) model = makeEvent(resource, master, zones);
                           auto occurrence = std::make_shared<EKEvent>(*model);
                           occurrence->startDate = start;
                           occurrence->endDate = end;
                           occurrence->occurrenceDate_ = start;
                           occurrence->originalStored_ = stored;
                           occurrence->masterRowID_ = resource.id;
                           occurrence->isOccurrence_ = true;
                           events.push_back(std::move(occurrence));
                           return true;
                       });
}

std::vector<std::shared_ptr<EKEvent>>
EKEventStore::CalDAVStore::eventsMatchingPredicate(const EKEventPredicate& predicate) {
    std::vector<std::shared_ptr<EKEvent>> events;
    ZoneCache zones;
    for (const auto& calendar : calendars) {
        const auto& identifier = calendar->calendarIdentifier;
        if (predicate.calendarIdentifiers &&
            std::find(predicate.calendarIdentifiers->begin(), predicate.calendarIdentifiers->end(), identifier) ==
                predicate.calendarIdentifiers->end()) {
            continue;
        }
        for (const auto id : loaded(identifier).resources) {
            if (const auto* resource = resourceAt(id)) {
                appendEvents(*resource, predicate.startDate, predicate.endDate, zones, events);
            }
        }
    }
    return events;
}

std::shared_ptr<EKCalendarItem> EKEventStore::CalDAVStore::itemOf(const Resource& resource, ZoneCache& zones) const {
    const auto& series = resource.series;
    if (series.master) return makeEvent(resource, *series.master, zones);
    if (!series.overrides.empty()) return makeDetached(resource, series.overrides.front(), zones);
    return nullptr;
}

std::shared_ptr<EKCalendarItem> EKEventStore::CalDAVStore::calendarItemWithIdentifier(const std::string& identifier) {
    for (const auto& calendar : calendars) {
        const auto& prefix = calendar->calendarIdentifier;
        if (identifier.size() <= prefix.size() || identifier.compare(0, prefix.size(), prefix) != 0) continue;
        const Resource* resource = nullptr;
        auto& state = states.at(prefix);
        if (!state.loaded && ++state.lookedUpAlone > aloneLimit) loaded(prefix);
        if (state.loaded) {
            const auto id = idByHref.find(identifier);
            if (id != idByHref.end()) resource = resourceAt(id->second);
        } else {
            resource = fetchedAlone(identifier, prefix);
        }
        if (!resource) return nullptr;
        ZoneCache zones;
        return itemOf(*resource, zones);
    }
    return nullptr;
}

std::vector<std::shared_ptr<EKCalendarItem>>
EKEventStore::CalDAVStore::calendarItemsWithExternalIdentifier(const std::string& identifier) {
    loadAll();
    const auto marker = identifier.find("/RID=");
    const std::string uid = identifier.substr(0, marker);
    std::vector<std::shared_ptr<EKCalendarItem>> items;
    ZoneCache zones;
    for (const auto& calendar : calendars) {
        for (const auto id : states.at(calendar->calendarIdentifier).resources) {
            const auto* resource = resourceAt(id);
            if (!resource || resource->series.uid != uid) continue;
            if (marker == std::string::npos && resource->series.master) {
                items.push_back(makeEvent(*resource, *resource->series.master, zones));
            }
            for (const auto& fields : resource->series.overrides) {
                auto detached = makeDetached(*resource, fields, zones);
                if (marker == std::string::npos || detached->externalIdentifier_ == identifier) {
                    items.push_back(std::move(detached));
                }
            }
        }
    }
    return items;
}

std::shared_ptr<const EKCalendar>
EKEventStore::CalDAVStore::writableCalendar(const std::shared_ptr<const EKCalendar>& wanted) {
    if (!wanted) throw EventStoreError("No calendar has been set.");
    const auto calendar = calendarWithIdentifier(wanted->calendarIdentifier);
    if (!calendar) throw EventStoreError("The calendar isn't in this event store.");
    if (!calendar->allowsContentModifications) throw EventStoreError("The calendar is read-only.");
    return calendar;
}

void EKEventStore::CalDAVStore::stage(Resource& resource, std::optional<std::string> text, bool removal) {
    if (removal && !resource.onServer) {
        // Created and removed before any commit: nothing for the server to hear of.
        std::erase(pendingOrder, resource.id);
        auto& ids = states.at(resource.calendar).resources;
        std::erase(ids, resource.id);
        resources.erase(resource.id);
        return;
    }
    // What a failed commit puts back.
    textOf(resource);
    if (text) resource.hold(caldav::readResource(*text));
    resource.pendingText = std::move(text);
    resource.pendingRemoval = removal;
    if (std::find(pendingOrder.begin(), pendingOrder.end(), resource.id) == pendingOrder.end()) {
        pendingOrder.push_back(resource.id);
    }
}

std::int64_t EKEventStore::CalDAVStore::createResource(const std::string& calendar, const std::string& uid,
                                                       const std::string& text) {
    Resource resource;
    resource.hold(caldav::readResource(text));
    resource.href = calendar + fileNameFor(uid);
    resource.id = idOf(resource.href);
    resource.calendar = calendar;
    resource.pendingText = text;
    const auto id = resource.id;
    resources.insert_or_assign(id, std::move(resource));
    states.at(calendar).resources.push_back(id);
    pendingOrder.push_back(id);
    return id;
}

void EKEventStore::CalDAVStore::saveEvent(EKEvent& event, EKSpan span, bool commitNow) {
    checkSavable(event);
    const auto calendar = writableCalendar(event.calendar);
    const auto& calendarID = calendar->calendarIdentifier;
    // A new event needs nothing of its calendar's; one read before a reset is looked for again.
    if (event.rowID_ != 0 && !resourceAt(event.rowID_)) loaded(calendarID);
    // What the event becomes: its resource, its UID and whether it is now an override.
    std::int64_t savedID = 0;
    std::string uid;
    bool detached = false;
    std::optional<double> original;
    bool newSeries = false;
    if (event.rowID_ == 0) {
        uid = files::randomUUID();
        savedID = createResource(calendarID, uid, caldav::ResourceEditor(event, uid).text());
        newSeries = true;
    } else {
        auto* resource = resourceAt(event.rowID_);
        if (!resource) throw EventStoreError("The event isn't in the event store.");
        if (resource->calendar != calendarID) {
            // A restore into another calendar makes a new event there: nothing here needs a move.
            const auto from = calendarWithIdentifier(resource->calendar);
            throw EventStoreError("An event of the account \"" + client.account().name + "\" can't move from \"" +
                                  (from ? from->title : resource->calendar) + "\" to \"" + calendar->title +
                                  "\"; save a new event in \"" + calendar->title + "\" instead.");
        }
        uid = resource->series.uid;
        savedID = resource->id;
        caldav::ResourceEditor editor(textOf(*resource));
        const auto& series = resource->series;
        if (!isSeries(series)) {
            editor.setMaster(event);
            stage(*resource, editor.text(), false);
            newSeries = true;
        } else {
            const bool ruleChanged =
                event.recurrenceRules != (event.loadedRules_ ? *event.loadedRules_ : std::vector<EKRecurrenceRule>{});
            const double at = event.originalStored_.value_or(series.master->start);
            const bool first = occurrenceKey(at) == occurrenceKey(series.master->start);
            if (span == EKSpan::thisEvent && !ruleChanged) {
                editor.setOverride(at, event);
                stage(*resource, editor.text(), false);
                detached = true;
                original = at;
            } else if (first) {
                editor.setMaster(event);
                stage(*resource, editor.text(), false);
                newSeries = true;
            } else {
                // This and the following occurrences: the series ends before this one, and a new
                // series starts here with what was changed.
                editor.endBefore(at);
                auto newUID = files::randomUUID();
                const auto newText = caldav::ResourceEditor(event, newUID).text();
                stage(*resource, editor.text(), false);
                savedID = createResource(calendarID, newUID, newText);
                uid = std::move(newUID);
                newSeries = true;
            }
        }
    }
    // The event changes only once the write stands: a commit that fails leaves it as it was.
    const auto& saved = resources.at(savedID);
    const std::string href = saved.href;
    const auto lastModified = saved.series.master ? saved.series.master->lastModified : std::nullopt;
    if (commitNow) commit();
    event.calendarItemIdentifier_ = href;
    event.rowID_ = savedID;
    event.masterRowID_ = detached ? savedID : 0;
    event.detached_ = detached;
    event.isOccurrence_ = false;
    if (detached) {
        event.originalStored_ = original;
        event.externalIdentifier_ = uid + "/RID=" + std::to_string(occurrenceKey(*original));
    } else {
        event.originalStored_ =
            event.recurrenceRules.empty() || !newSeries
                ? std::nullopt
                : std::optional(ZoneCache().stored(event.allDay ? std::nullopt : event.timeZone, *event.startDate));
        event.occurrenceDate_ = event.startDate;
        event.externalIdentifier_ = uid;
    }
    event.eventIdentifier_ = calendarID + ":" + *event.externalIdentifier_;
    event.lastModified_ = lastModified;
    event.loadedRules_ = std::make_shared<const std::vector<EKRecurrenceRule>>(event.recurrenceRules);
}

void EKEventStore::CalDAVStore::removeEvent(EKEvent& event, EKSpan span, bool commitNow) {
    if (event.rowID_ == 0) throw EventStoreError("The event isn't in the event store.");
    auto* resource = resourceAt(event.rowID_);
    if (!resource) throw EventStoreError("The event isn't in the event store.");
    const auto calendar = calendarWithIdentifier(resource->calendar);
    if (calendar && !calendar->allowsContentModifications) throw EventStoreError("The calendar is read-only.");
    const auto& series = resource->series;
    bool gone = false;
    if (!isSeries(series)) {
        stage(*resource, std::nullopt, true);
        gone = true;
    } else {
        const double at = event.originalStored_.value_or(series.master->start);
        caldav::ResourceEditor editor(textOf(*resource));
        if (span == EKSpan::thisEvent) {
            editor.removeOccurrence(at);
            stage(*resource, editor.text(), false);
        } else if (occurrenceKey(at) == occurrenceKey(series.master->start)) {
            stage(*resource, std::nullopt, true);
            gone = true;
        } else {
            editor.endBefore(at);
            stage(*resource, editor.text(), false);
        }
    }
    if (commitNow) commit();
    if (gone) event.rowID_ = 0;
}

namespace {

struct Written {
    std::string href;
    bool created = false;
    bool removed = false;
    std::string previousText;
    std::string etag;
};

} // namespace

void EKEventStore::CalDAVStore::commit() {
    if (pendingOrder.empty()) return;
    std::vector<Written> written;
    std::string failure;
    std::map<std::int64_t, std::string> newETags;
    for (const auto id : pendingOrder) {
        auto& resource = resources.at(id);
        const auto url = client.absolute(resource.href);
        try {
            caldav::HttpResponse response;
            if (resource.pendingRemoval) {
                response = client.send("DELETE", url, {"If-Match: " + resource.etag}, {});
            } else {
                response = client.send("PUT", url,
                                       {"Content-Type: text/calendar; charset=utf-8",
                                        resource.onServer ? "If-Match: " + resource.etag : "If-None-Match: *"},
                                       *resource.pendingText);
            }
            const bool gone = resource.pendingRemoval && response.status == 404;
            if (response.status == 412 || (response.status >= 300 && !gone)) {
                const auto title =
                    titleOf(caldav::readResource(resource.serverText ? *resource.serverText : *resource.pendingText));
                failure = response.status == 412 ? title + " was changed on the server since it was read"
                                                 : "The server of \"" + client.account().name + "\" refused to write " +
                                                       title + " (HTTP " + std::to_string(response.status) + ")";
                break;
            }
            std::string etag = response.etag;
            if (etag.empty() && !resource.pendingRemoval) etag = caldav::fetchETag(client, resource.href);
            newETags[id] = etag;
            written.push_back(
                {resource.href, !resource.onServer, resource.pendingRemoval, resource.serverText.value_or(""), etag});
        } catch (const EventStoreError& error) {
            failure = error.description();
            while (!failure.empty() && failure.back() == '.')
                failure.pop_back();
            break;
        }
    }
    if (!failure.empty()) {
        // Back to what the server held before this commit, newest first.
        std::vector<std::string> left;
        for (auto done = written.rbegin(); done != written.rend(); ++done) {
            const auto url = client.absolute(done->href);
            try {
                caldav::HttpResponse response;
                if (done->created) {
                    response = client.send("DELETE", url, {"If-Match: " + done->etag}, {});
                } else if (done->removed) {
                    response =
                        client.send("PUT", url, {"Content-Type: text/calendar; charset=utf-8", "If-None-Match: *"},
                                    done->previousText);
                } else {
                    response = client.send("PUT", url,
                                           {"Content-Type: text/calendar; charset=utf-8", "If-Match: " + done->etag},
                                           done->previousText);
                }
                if (response.status >= 300) left.push_back(done->href);
            } catch (const EventStoreError&) {
                left.push_back(done->href);
            }
        }
        reset();
        if (left.empty()) throw EventStoreError(failure + "; nothing was written.");
        std::string list;
        for (const auto& href : left)
            list += (list.empty() ? "" : ", ") + href;
        throw EventStoreError(failure + ". What was already written couldn't all be taken back: " + list +
                              " still hold this commit's changes.");
    }
    for (const auto id : pendingOrder) {
        auto& resource = resources.at(id);
        if (resource.pendingRemoval) {
            std::erase(states.at(resource.calendar).resources, id);
            resources.erase(id);
            continue;
        }
        resource.serverText = std::move(*resource.pendingText);
        resource.pendingText.reset();
        resource.etag = newETags[id];
        resource.onServer = true;
        resource.written = true;
    }
    pendingOrder.clear();
}

void EKEventStore::CalDAVStore::dropResources() {
    resources.clear();
    reread.clear();
    pendingOrder.clear();
    for (auto& [identifier, state] : states) {
        state.loaded = false;
        state.resources.clear();
        state.lookedUpAlone = 0;
    }
}

void EKEventStore::CalDAVStore::reset() {
    pendingOrder.clear();
    for (auto at = resources.begin(); at != resources.end();) {
        const auto& resource = at->second;
        if (!resource.written && !resource.pendingText && !resource.pendingRemoval) {
            ++at;
            continue;
        }
        if (resource.onServer) {
            reread[at->first] = {resource.calendar, resource.href};
        } else {
            std::erase(states.at(resource.calendar).resources, at->first);
        }
        at = resources.erase(at);
    }
}

void EKEventStore::CalDAVStore::refreshSourcesIfNecessary() {
    discover();
    // Pending writes keep the resources they were made from.
    if (pendingOrder.empty()) dropResources();
}

} // namespace morvane
