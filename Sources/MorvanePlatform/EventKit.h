#pragma once

#include "MorvanePlatform/CalDAVAccount.h"
#include "MorvanePlatform/Error.h"
#include "MorvanePlatform/Replaceable.h"

#include <cstdint>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

// The platform's event store and its objects, under their platform names. On Linux the store is
// our own local event store: the live calendars in a database of the operating system's schema
// at the user's Calendar.sqlitedb, created on first use with one local account and one calendar.
//
// Dates are seconds since 2001-01-01 00:00:00 UTC, as doubles. An event without a time zone is
// floating: its dates are the moments at which its wall-clock times occur in the machine's
// current zone (ICU's default zone), while the database keeps the wall clock read as UTC.
namespace morvane {

enum class EKEntityType : int { event = 0, reminder = 1 };

// Raw values as the platform defines them: 3 is full access, 0 not determined.
enum class EKAuthorizationStatus : int { notDetermined = 0, restricted = 1, denied = 2, fullAccess = 3, writeOnly = 4 };

enum class EKSpan : int { thisEvent = 0, futureEvents = 1 };

enum class EKCalendarType : int { local = 0, calDAV = 1, exchange = 2, subscription = 3, birthday = 4 };

enum class EKRecurrenceFrequency : int { daily = 0, weekly = 1, monthly = 2, yearly = 3 };

// A failure of the event store: a save or removal it refuses, or a database it can't use.
class EventStoreError : public PlatformError {
public:
    using PlatformError::PlatformError;
};

// An account that holds calendars.
struct EKSource {
    std::string sourceIdentifier;
    std::string title;

    friend bool operator==(const EKSource&, const EKSource&) = default;
};

class EKCalendar {
public:
    std::string calendarIdentifier;
    std::string title;
    EKCalendarType type = EKCalendarType::local;
    std::shared_ptr<const EKSource> source;
    // The components of the calendar's colour (red, green, blue, alpha, each 0 to 1); absent
    // when it has none.
    std::optional<std::vector<double>> colorComponents;
    // False for subscribed and birthday calendars.
    bool allowsContentModifications = true;

private:
    friend class EKEventStore;
    std::int64_t rowID_ = 0;
    std::int64_t storeRowID_ = 0;
};

struct EKRecurrenceDayOfWeek {
    // 1 is Sunday up to 7, Saturday.
    int dayOfTheWeek = 1;
    // 0 for every such weekday of the period, n for the n-th, -1 for the last.
    int weekNumber = 0;

    static EKRecurrenceDayOfWeek dayOfWeek(int day, int weekNumber = 0) { return {day, weekNumber}; }

    friend bool operator==(const EKRecurrenceDayOfWeek&, const EKRecurrenceDayOfWeek&) = default;
};

struct EKRecurrenceEnd {
    std::optional<double> endDate;
    // 0 when the end is a date.
    int occurrenceCount = 0;

    static EKRecurrenceEnd recurrenceEndWithEndDate(double date) { return {date, 0}; }
    static EKRecurrenceEnd recurrenceEndWithOccurrenceCount(int count) { return {std::nullopt, count}; }

    friend bool operator==(const EKRecurrenceEnd&, const EKRecurrenceEnd&) = default;
};

// One recurrence rule. Absent lists and an empty list mean the same to the store; it gives back
// absent for what it doesn't hold.
struct EKRecurrenceRule {
    EKRecurrenceFrequency frequency = EKRecurrenceFrequency::daily;
    int interval = 1;
    std::optional<std::vector<EKRecurrenceDayOfWeek>> daysOfTheWeek;
    std::optional<std::vector<int>> daysOfTheMonth;
    std::optional<std::vector<int>> monthsOfTheYear;
    std::optional<std::vector<int>> weeksOfTheYear;
    std::optional<std::vector<int>> daysOfTheYear;
    std::optional<std::vector<int>> setPositions;
    std::optional<EKRecurrenceEnd> recurrenceEnd;

    friend bool operator==(const EKRecurrenceRule&, const EKRecurrenceRule&) = default;
};

struct EKAlarm {
    // When present, the alarm fires at this moment and `relativeOffset` means nothing.
    std::optional<double> absoluteDate;
    // Seconds from the event's start; negative is before it.
    double relativeOffset = 0;

    static EKAlarm alarmWithRelativeOffset(double offset) { return {std::nullopt, offset}; }
    static EKAlarm alarmWithAbsoluteDate(double date) { return {date, 0}; }

    friend bool operator==(const EKAlarm&, const EKAlarm&) = default;
};

// An item of a calendar: an event or a reminder. Identity is set by the store.
class EKCalendarItem {
public:
    virtual ~EKCalendarItem() = default;

    std::optional<std::string> title;
    std::shared_ptr<const EKCalendar> calendar;

    // Stable for the life of the item; every occurrence of a series shares its master's.
    const std::string& calendarItemIdentifier() const { return calendarItemIdentifier_; }
    // The UID; a detached occurrence's is "{UID}/RID={occurrence key}". Absent before saving.
    const std::optional<std::string>& calendarItemExternalIdentifier() const { return externalIdentifier_; }

protected:
    friend class EKEventStore;
    std::string calendarItemIdentifier_;
    std::optional<std::string> externalIdentifier_;
};

class EKReminder final : public EKCalendarItem {};

class EKEventStore;

// An event, or one occurrence of a repeating event. Objects are snapshots: changing one changes
// nothing until it is saved, and a store's `reset` leaves the objects it gave out stale.
class EKEvent final : public EKCalendarItem {
public:
    // A new event with a fresh item identifier, not yet in the store.
    static std::shared_ptr<EKEvent> eventWithEventStore(EKEventStore& store);

    std::optional<double> startDate;
    std::optional<double> endDate;
    bool allDay = false;
    // A zone identifier ("Europe/Berlin"); absent for a floating event.
    std::optional<std::string> timeZone;
    std::optional<std::string> location;
    std::optional<std::string> notes;
    // The URL's absolute text.
    std::optional<std::string> URL;
    // At most one rule is kept.
    std::vector<EKRecurrenceRule> recurrenceRules;
    std::vector<EKAlarm> alarms;

    bool isAllDay() const { return allDay; }
    bool hasRecurrenceRules() const { return !recurrenceRules.empty(); }
    // "{calendar identifier}:{external identifier}"; absent before saving.
    const std::optional<std::string>& eventIdentifier() const { return eventIdentifier_; }
    bool hasAttendees() const { return hasAttendees_; }
    std::optional<double> lastModifiedDate() const { return lastModified_; }
    // Whether this is an occurrence edited apart from its series.
    bool isDetached() const { return detached_; }
    // The original start of this occurrence (the start of a single event).
    std::optional<double> occurrenceDate() const { return occurrenceDate_; }

private:
    friend class EKEventStore;

    std::optional<std::string> eventIdentifier_;
    bool hasAttendees_ = false;
    std::optional<double> lastModified_;
    bool detached_ = false;
    std::optional<double> occurrenceDate_;

    // The row that holds this object: the master's for a series and its plain occurrences, its
    // own for a detached occurrence; 0 before the first save.
    std::int64_t rowID_ = 0;
    // The series' row for a detached occurrence or a plain occurrence; 0 otherwise.
    std::int64_t masterRowID_ = 0;
    // The occurrence's original start as the database keeps it (the wall clock for a floating
    // series), for occurrences and masters of a series.
    std::optional<double> originalStored_;
    // Whether the object is an occurrence given out by a fetch rather than the series itself.
    bool isOccurrence_ = false;
    // The rules as loaded, to tell a change of the rule from an edit of one occurrence; shared
    // by the occurrences of a series, which are many.
    std::shared_ptr<const std::vector<EKRecurrenceRule>> loadedRules_;
};

// Which events a fetch wants: a span and the calendars (all when absent).
struct EKEventPredicate {
    double startDate = 0;
    double endDate = 0;
    std::optional<std::vector<std::string>> calendarIdentifiers;
};

// Who may use the calendars, and the system prompt that asks. On Linux the user owns the store:
// full access, and a prompt that grants. Tests replace it for the other answers.
//
// Threads: any thread, concurrently; the real one holds no state.
class CalendarPermission : public Replaceable<CalendarPermission> {
public:
    virtual ~CalendarPermission() = default;

    virtual EKAuthorizationStatus status(EKEntityType type) = 0;
    // Shows the prompt and gives the user's answer; may throw the platform's error.
    virtual bool requestFullAccess() = 0;

    static CalendarPermission& system();
};

// The live calendars.
//
// Threads: one thread at a time per store. Any thread may use a store, a background thread
// included, but two threads never at once, and handing it from one thread to another needs a
// lock or a join between them. The static members and `EKEvent::eventWithEventStore` may be
// called from any thread at any time. What a store gives out belongs to the caller and may go to
// any thread: events are plain values, and the calendars and sources they share are never
// changed. Several stores over one file may live on several threads of one process, or in
// several processes; their writes wait up to five seconds for each other. A store that has read
// keeps what it learnt of the file's series (and of its longest event) until its own next write,
// `reset` or `refreshSourcesIfNecessary`, so what another store committed meanwhile shows in full
// only after one of those.
//
// Writes run in a transaction of the database: a save or removal with `commit` false stays
// pending, visible to this store only, until `commit` (or a later write with `commit` true), and
// `reset` drops it. Each write keeps the rows the operating system keeps (Recurrence,
// ExceptionDate, Alarm, Location, OccurrenceCache and its window) in step, so that a copy of the
// file reads like the system's own. A write that fails leaves nothing of itself behind, in the
// file or among the pending writes, and leaves the event object as it was; one that fails in
// committing takes the writes pending before it along, as `commit` does.
class EKEventStore {
public:
    // Opens the live calendars: the CalDAV account chosen as live in the accounts file
    // (Accounts.h), else the local ones at `defaultDatabasePath()`, creating the file on first
    // use. Throws EventStoreError when the accounts file can't be read, the account can't be
    // opened, or the file can't be created or isn't a calendar database.
    EKEventStore();
    // The same over a database anywhere. An existing file is opened as found and not written to
    // until something is saved.
    explicit EKEventStore(const std::filesystem::path& databasePath);
    // The calendars of an account on a CalDAV server. Throws EventStoreError when the server
    // can't be reached or refuses the account. Writes rewrite whole resources on the server at
    // `commit`, each only if the server still holds what was read; a commit that fails takes back
    // what it had written and says what, if anything, is left.
    explicit EKEventStore(const CalDAVAccount& account);
    ~EKEventStore();
    EKEventStore(const EKEventStore&) = delete;
    EKEventStore& operator=(const EKEventStore&) = delete;

    // The home folder's "Library/Group Containers/group.com.apple.calendar/Calendar.sqlitedb".
    static std::filesystem::path defaultDatabasePath();

    // Empty for a CalDAV account, which has no database.
    const std::filesystem::path& databasePath() const;

    static EKAuthorizationStatus authorizationStatusForEntityType(EKEntityType type);
    // Asks the user, then calls `completion` with the answer and the platform's error, if any.
    void requestFullAccessToEvents(const std::function<void(bool granted, std::exception_ptr error)>& completion);

    // Event calendars in the store's order.
    std::vector<std::shared_ptr<const EKCalendar>> calendarsForEntityType(EKEntityType type);
    std::shared_ptr<const EKCalendar> calendarWithIdentifier(const std::string& identifier);
    std::shared_ptr<const EKCalendar> defaultCalendarForNewEvents();
    std::vector<std::shared_ptr<const EKSource>> sources();

    // A span longer than a year is cut to its first year.
    EKEventPredicate predicateForEvents(double startDate, double endDate,
                                        const std::optional<std::vector<std::shared_ptr<const EKCalendar>>>& calendars);
    // Every event overlapping the span, repeating events expanded into one object per
    // occurrence, deleted occurrences left out and detached ones in their place. No order.
    std::vector<std::shared_ptr<EKEvent>> eventsMatchingPredicate(const EKEventPredicate& predicate);

    // The item with that identifier (a series comes back as its master), or nothing.
    std::shared_ptr<EKCalendarItem> calendarItemWithIdentifier(const std::string& identifier);
    // Items whose external identifier is `identifier`, or whose series' is: masters, detached
    // occurrences and reminders alike, in any calendar.
    std::vector<std::shared_ptr<EKCalendarItem>> calendarItemsWithExternalIdentifier(const std::string& identifier);

    // Saving a series' master or an occurrence with `futureEvents` changes the series from that
    // occurrence on (the whole series from its first); `thisEvent` on an occurrence detaches it,
    // unless its rule was changed. Throws EventStoreError.
    void saveEvent(EKEvent& event, EKSpan span, bool commit);
    // Removing one occurrence adds an exception date; `futureEvents` ends the series before the
    // occurrence (removes it whole from its first). Throws EventStoreError.
    void removeEvent(EKEvent& event, EKSpan span, bool commit);
    // Makes pending changes permanent. When that fails they are dropped, as by `reset`, and the
    // file holds none of them. Throws EventStoreError.
    void commit();
    // Drops pending changes, and reads again what the store wrote when next asked. The local
    // store reads everything again; an account's store keeps what it only read, which
    // `refreshSourcesIfNecessary` reads again.
    void reset();
    // Rereads the accounts and calendars.
    void refreshSourcesIfNecessary();

private:
    // The store behind this interface (EventStore/EventStoreImplementation.h): the local event
    // store or a CalDAV account. Implementations are nested so that they may set the objects'
    // store-only fields.
    class Implementation;
    class LocalStore;
    class CalDAVStore;
    std::unique_ptr<Implementation> impl_;
};

} // namespace morvane
