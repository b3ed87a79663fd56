#pragma once

// The CalDAV account's store: its private header, for its own file only.
#include "MorvanePlatform/EventKit.h"
#include "MorvanePlatform/EventStore/CalDAV/Collections.h"
#include "MorvanePlatform/EventStore/CalDAV/HttpClient.h"
#include "MorvanePlatform/EventStore/CalDAV/ICalendarResource.h"
#include "MorvanePlatform/EventStore/EventStoreImplementation.h"
#include "MorvanePlatform/EventStore/ZoneOffsets.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace morvane {

// The calendars of an account on a CalDAV server. Calendars are found once per store (and again
// by `refreshSourcesIfNecessary`); a calendar's resources are fetched on first use and kept
// until `reset`. Writes rewrite whole resources and are held until `commit`, which sends them in
// order, each on the condition that the server still holds what was read (If-Match on its
// ETag, If-None-Match for a new one), so that a change made elsewhere is never overwritten. A
// commit that fails part-way takes back what it wrote (DELETE what it created, PUT back the
// text it replaced) and says what, if anything, is left.
//
// Item identifiers are the resources' paths on the server; there is no database, so
// `databasePath` is empty. Looking up an item by its identifier in a calendar not yet fetched
// reads that one resource, and saving a new event doesn't fetch its calendar; `reset` drops
// pending writes and forgets what this store wrote, to be read again when next used, while what
// it only read stays until `refreshSourcesIfNecessary`. A restore so costs what it writes, not
// the size of the account.
class EKEventStore::CalDAVStore final : public EKEventStore::Implementation {
public:
    // Finds the account's calendars. Throws EventStoreError.
    explicit CalDAVStore(const CalDAVAccount& account);

    const std::filesystem::path& databasePath() const override { return noPath; }
    std::vector<std::shared_ptr<const EKCalendar>> calendarsForEntityType(EKEntityType type) override;
    std::shared_ptr<const EKCalendar> calendarWithIdentifier(const std::string& identifier) override;
    std::vector<std::shared_ptr<const EKSource>> sources() override { return {source}; }
    std::vector<std::shared_ptr<EKEvent>> eventsMatchingPredicate(const EKEventPredicate& predicate) override;
    std::shared_ptr<EKCalendarItem> calendarItemWithIdentifier(const std::string& identifier) override;
    std::vector<std::shared_ptr<EKCalendarItem>>
    calendarItemsWithExternalIdentifier(const std::string& identifier) override;
    void saveEvent(EKEvent& event, EKSpan span, bool commitNow) override;
    void removeEvent(EKEvent& event, EKSpan span, bool commitNow) override;
    void commit() override;
    void reset() override;
    void refreshSourcesIfNecessary() override;

private:
    struct Resource {
        std::int64_t id = 0;
        std::string calendar;
        std::string href;
        // What the server holds, as last read or written; `onServer` false for a new one. The
        // text of a resource read with its whole calendar isn't kept: it is read again when the
        // resource is first changed, so that a large calendar is held once, as events.
        std::string etag;
        std::optional<std::string> serverText;
        bool onServer = false;
        // A write waiting for `commit`: new text, or the resource's removal.
        std::optional<std::string> pendingText;
        bool pendingRemoval = false;
        // Written by this store since the last `reset`.
        bool written = false;
        // The resource as this store sees it: with its pending write.
        caldav::SeriesResource series;
        // The stored dates every occurrence lies within, so that a fetch passes over a resource
        // outside its span without converting a date.
        double reachStart = 0;
        double reachEnd = 0;

        void hold(caldav::SeriesResource read);
    };
    struct CalendarState {
        std::shared_ptr<const EKCalendar> calendar;
        bool loaded = false;
        std::vector<std::int64_t> resources;
        // Items looked up one by one before the calendar was read.
        int lookedUpAlone = 0;
    };
    // Past this many, looking items up one by one costs more than reading the calendar once.
    static constexpr int aloneLimit = 16;

    void discover();
    CalendarState& loaded(const std::string& calendarIdentifier);
    std::optional<Resource> readFetched(caldav::FetchedResource& fetched, const std::string& calendar, ZoneCache& zones,
                                        bool keepText);
    // The resource's text as it stands here, read from the server when it wasn't kept.
    const std::string& textOf(Resource& resource);
    Resource* fetchedAlone(const std::string& href, const std::string& calendar);
    void loadAll();
    Resource* resourceAt(std::int64_t id);
    std::int64_t idOf(const std::string& href);
    void stage(Resource& resource, std::optional<std::string> text, bool removal);
    std::int64_t createResource(const std::string& calendar, const std::string& uid, const std::string& text);
    std::shared_ptr<const EKCalendar> writableCalendar(const std::shared_ptr<const EKCalendar>& calendar);
    std::shared_ptr<EKEvent> makeEvent(const Resource& resource, const caldav::EventFields& fields,
                                       ZoneCache& zones) const;
    std::shared_ptr<EKEvent> makeDetached(const Resource& resource, const caldav::EventFields& fields,
                                          ZoneCache& zones) const;
    void appendEvents(const Resource& resource, double spanStart, double spanEnd, ZoneCache& zones,
                      std::vector<std::shared_ptr<EKEvent>>& events) const;
    std::shared_ptr<EKCalendarItem> itemOf(const Resource& resource, ZoneCache& zones) const;
    void dropResources();

    static inline const std::filesystem::path noPath;

    caldav::HttpClient client;
    std::shared_ptr<const EKSource> source;
    std::vector<std::shared_ptr<const EKCalendar>> calendars;
    std::map<std::string, CalendarState> states;
    std::map<std::int64_t, Resource> resources;
    // Kept for the life of the store, so that a resource keeps its number across `reset`.
    std::map<std::string, std::int64_t> idByHref;
    std::int64_t nextID = 1;
    std::vector<std::int64_t> pendingOrder;
    // Resources forgotten by `reset`, to be read again when next used: their calendars and paths.
    std::map<std::int64_t, std::pair<std::string, std::string>> reread;
};

} // namespace morvane
