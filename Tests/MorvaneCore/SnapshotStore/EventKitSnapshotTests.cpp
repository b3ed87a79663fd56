#include "MorvaneCore/SnapshotStore/EventKitSnapshot.h"

#include "Lzfse/Lzfse.h"
#include "MorvaneCore/LiveCalendars/CurrentEvents.h"
#include "MorvaneCore/Shared/Compression.h"
#include "MorvaneCore/Shared/Errors.h"
#include "MorvanePlatform/SHA256.h"
#include "Support/CalendarDatabaseBuilder.h"
#include "Support/ErrorText.h"
#include "Support/Fakes.h"
#include "Support/Mapped.h"
#include "Support/Pinned.h"
#include "Support/SavedEvents.h"
#include "Support/UTC.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace morvane {
namespace {

using testing::saveEvent;
using testing::utc;

std::vector<std::string> keysOf(const json::Ordered& object) {
    std::vector<std::string> keys;
    for (const auto& [key, value] : object.items())
        keys.push_back(key);
    return keys;
}

std::int64_t keyAt(double seconds) { return Date{seconds}.occurrenceKey(); }

class EventKitSnapshotTest : public ::testing::Test {
protected:
    // A small document by hand: a single, a series with one detached occurrence, one calendar.
    static EventKitSnapshot document() {
        EventKitSnapshot made;
        made.taken = Date{utc(2024, 6, 1, 12)};
        made.windowStart = Date{utc(1994, 6, 1, 7)};
        made.windowEnd = Date{utc(2027, 6, 1, 7)};
        made.calendars = {{.rowID = 1,
                           .uuid = "CAL",
                           .title = "Home",
                           .storeName = "Default",
                           .storeType = 0,
                           .colorHex = "#FF8000"}};

        EventKitSnapshot::Event single{.rowID = 1, .uniqueIdentifier = "SINGLE", .uuid = "U1", .calendarRowID = 1};
        single.snapshot.title = "Dentist";
        single.snapshot.start = Date{utc(2024, 6, 3, 16)};
        single.snapshot.end = Date{utc(2024, 6, 3, 17)};
        single.snapshot.calendarName = "Home (On My Mac)";

        EventKitSnapshot::Event master{.rowID = 2,
                                       .uniqueIdentifier = "SERIES",
                                       .uuid = "U2",
                                       .hasRecurrences = true,
                                       .lastModified = Date{utc(2024, 5, 1)},
                                       .calendarRowID = 1,
                                       .hasAttendees = true};
        master.snapshot.title = "Standup";
        master.snapshot.start = Date{utc(2024, 6, 3, 16)};
        master.snapshot.end = Date{utc(2024, 6, 3, 16, 30)};
        master.snapshot.timeZone = "America/Los_Angeles";
        master.snapshot.calendarUUID = "CAL";
        master.snapshot.calendarName = "Home (On My Mac)";
        master.snapshot.recurrence = RecurrenceRule::fromEK(testing::repeating(EKRecurrenceFrequency::weekly, 3));
        master.snapshot.alarms = {AlarmSpec::relative(-900), AlarmSpec::absolute(Date{utc(2024, 6, 3, 15)})};

        auto moved = master;
        moved.rowID = 3;
        moved.uniqueIdentifier = "SERIES/RID=" + std::to_string(keyAt(utc(2024, 6, 10, 16)));
        moved.uuid.reset();
        moved.masterRowID = 2;
        moved.originalDate = Date{static_cast<double>(keyAt(utc(2024, 6, 10, 16)))};
        moved.snapshot.title = "Standup (moved)";
        made.events = {single, master, moved};
        made.occurrences["SERIES"] = {keyAt(utc(2024, 6, 3, 16)), keyAt(utc(2024, 6, 10, 16))};
        return made;
    }

    testing::TemporaryUser user;
    testing::Installed<testing::FixedClock> clock{utc(2024, 6, 1, 12)};
    const Date now{utc(2024, 6, 1, 12)}; // 05:00 in Los Angeles
};

// ---- Capture ----

TEST_F(EventKitSnapshotTest, CaptureReadsBackWithTheStoresOwnEventsAndOccurrenceKeys) {
    auto store = std::make_shared<EKEventStore>();
    saveEvent(*store, "Dentist", utc(2024, 6, 3, 16), utc(2024, 6, 3, 17));
    // Across midnight of 1 June 2025 local, where one fetched year ends and the next begins.
    saveEvent(*store, "Overnight", utc(2025, 6, 1, 5), utc(2025, 6, 1, 9));
    auto standup = saveEvent(*store, "Standup", utc(2024, 3, 4, 17), utc(2024, 3, 4, 17, 30), testing::pinnedZone,
                             testing::repeating(EKRecurrenceFrequency::weekly, 6));
    // 23:00 to 01:00 floating, the second night crossing the same year boundary.
    auto late = saveEvent(*store, "Late shift", utc(2025, 5, 31, 6), utc(2025, 5, 31, 8), std::nullopt,
                          testing::repeating(EKRecurrenceFrequency::daily, 3));

    store->removeEvent(*testing::occurrenceAt(*store, *standup, utc(2024, 3, 18, 16)), EKSpan::thisEvent, true);
    auto moving = testing::occurrenceAt(*store, *standup, utc(2024, 3, 25, 16));
    moving->title = "Standup (moved)";
    moving->startDate = *moving->startDate + 3600;
    moving->endDate = *moving->endDate + 3600;
    store->saveEvent(*moving, EKSpan::thisEvent, true);

    const auto snapshot = EventKitSnapshot::capture(*store, now);
    // The start of the day in Los Angeles, 30 years back and 3 ahead.
    EXPECT_EQ(snapshot.windowStart, Date{utc(1994, 6, 1, 7)});
    EXPECT_EQ(snapshot.windowEnd, Date{utc(2027, 6, 1, 7)});

    const auto standupUID = *standup->calendarItemExternalIdentifier();
    const auto lateUID = *late->calendarItemExternalIdentifier();
    const auto movedKey = keyAt(utc(2024, 3, 25, 16));
    EXPECT_EQ(snapshot.occurrences.at(standupUID),
              (std::vector{keyAt(utc(2024, 3, 4, 17)), keyAt(utc(2024, 3, 11, 16)), movedKey,
                           keyAt(utc(2024, 4, 1, 16)), keyAt(utc(2024, 4, 8, 16))}));
    // Floating keys are the wall clock read as UTC, each night once.
    EXPECT_EQ(snapshot.occurrences.at(lateUID),
              (std::vector{keyAt(utc(2025, 5, 30, 23)), keyAt(utc(2025, 5, 31, 23)), keyAt(utc(2025, 6, 1, 23))}));

    // Singles by UID, then each series followed by its detached occurrence, numbered from 1.
    ASSERT_EQ(snapshot.events.size(), 5u);
    for (size_t index = 0; index < snapshot.events.size(); ++index)
        EXPECT_EQ(snapshot.events[index].rowID, static_cast<std::int64_t>(index + 1));
    EXPECT_LT(snapshot.events[0].uniqueIdentifier, snapshot.events[1].uniqueIdentifier);
    const auto master = std::find_if(snapshot.events.begin(), snapshot.events.end(),
                                     [&](const auto& event) { return event.uniqueIdentifier == standupUID; });
    ASSERT_NE(master, snapshot.events.end());
    ASSERT_NE(master + 1, snapshot.events.end());
    const auto& detached = *(master + 1);
    EXPECT_EQ(master->uuid, standup->calendarItemIdentifier());
    EXPECT_EQ(detached.uniqueIdentifier, standupUID + "/RID=" + std::to_string(movedKey));
    EXPECT_EQ(detached.uuid, std::nullopt);
    EXPECT_EQ(detached.masterRowID, master->rowID);
    EXPECT_EQ(detached.originalDate, Date{static_cast<double>(movedKey)});

    ASSERT_EQ(snapshot.calendars.size(), 1u);
    EXPECT_EQ(snapshot.calendars[0].uuid, store->defaultCalendarForNewEvents()->calendarIdentifier);

    // Read back as a store, every event holds what the event store itself says of it.
    EventKitStore backup(snapshot);
    EventKitSource live(store);
    const auto current = live.occurrences({standupUID, lateUID}, {snapshot.windowStart, snapshot.windowEnd});
    EXPECT_EQ(backup.occurrences().dates, current.dates);
    EXPECT_EQ(backup.occurrences().window, (DateInterval{snapshot.windowStart, snapshot.windowEnd}));
    const auto events = backup.loadEvents();
    ASSERT_EQ(events.size(), 5u);
    for (const auto& event : events) {
        SCOPED_TRACE(event.uniqueIdentifier);
        EXPECT_EQ(event.calendar, snapshot.calendars[0]);
        if (event.isDetachedOccurrence()) {
            EXPECT_EQ(event.snapshot, current.detached.at(standupUID).at(movedKey));
            EXPECT_EQ(event.title(), "Standup (moved)");
        } else {
            EXPECT_EQ(event.snapshot, live.snapshot(event));
        }
    }
    EXPECT_EQ(std::count_if(events.begin(), events.end(), [](const auto& e) { return e.title() == "Overnight"; }), 1);
}

TEST_F(EventKitSnapshotTest, CaptureFailsRatherThanLeaveOutWhatTheStoreCantRead) {
    testing::CalendarDatabaseBuilder builder(EKEventStore::defaultDatabasePath());
    builder.addItem({.calendar = builder.addCalendar({.store = builder.addStore({})}),
                     .summary = "Dentist",
                     .start = utc(2024, 6, 10, 16),
                     .end = utc(2024, 6, 10, 17)});
    EKEventStore store;
    ASSERT_EQ(EventKitSnapshot::capture(store, now).events.size(), 1u);

    // Changed under the open store: its calendars still list, but no year of events can be read.
    builder.execute("ALTER TABLE CalendarItem RENAME COLUMN end_date TO gone");
    const auto words = testing::errorText<RestoreError>([&] { EventKitSnapshot::capture(store, now); });
    EXPECT_TRUE(words.starts_with("Couldn't read all of the calendars: ")) << words;
}

TEST_F(EventKitSnapshotTest, CalendarsAreNumberedByIdentifierWithTheirStoreTypesAndColours) {
    {
        testing::CalendarDatabaseBuilder builder(EKEventStore::defaultDatabasePath());
        const auto local = builder.addStore({.name = "Default", .type = std::int64_t{0}});
        const auto icloud = builder.addStore({.name = "iCloud", .type = std::int64_t{2}});
        const auto exchange = builder.addStore({.name = "Work", .type = std::int64_t{1}});
        const auto subscribed = builder.addStore({.name = "Subscribed Calendars", .type = std::int64_t{4}});
        const auto birthdays = builder.addStore({.name = "Birthdays", .type = std::int64_t{5}});
        const std::vector<std::pair<std::int64_t, std::string>> calendars = {
            {local, "E-HOME"},          {icloud, "D-FAMILY"},  {exchange, "C-WORK"},
            {subscribed, "B-HOLIDAYS"}, {birthdays, "A-BDAY"}, {999, "F-ORPHAN"}};
        for (const auto& [store, uuid] : calendars) {
            const auto calendar = builder.addCalendar(
                {.store = store,
                 .title = "Title " + uuid,
                 .uuid = uuid,
                 .color = uuid == "C-WORK" ? testing::SQLValue(nullptr) : testing::SQLValue(std::string("#1BADF8FF"))});
            builder.addItem({.calendar = calendar,
                             .summary = "In " + uuid,
                             .start = utc(2024, 6, 10, 16),
                             .end = utc(2024, 6, 10, 17),
                             .uniqueIdentifier = "ITEM-" + uuid});
        }
    }
    EKEventStore store;
    const auto snapshot = EventKitSnapshot::capture(store, now);

    std::vector<std::tuple<std::int64_t, std::string, std::string, std::int64_t, std::optional<std::string>>> listed;
    for (const auto& calendar : snapshot.calendars)
        listed.emplace_back(calendar.rowID, *calendar.uuid, calendar.storeName, calendar.storeType, calendar.colorHex);
    const std::optional<std::string> blue = "#1BADF8";
    EXPECT_EQ(listed, (decltype(listed){{1, "A-BDAY", "Birthdays", 5, blue},
                                        {2, "B-HOLIDAYS", "Subscribed Calendars", 4, blue},
                                        {3, "C-WORK", "Work", 1, std::nullopt},
                                        {4, "D-FAMILY", "iCloud", 2, blue},
                                        {5, "E-HOME", "On My Mac", 0, blue},
                                        {6, "F-ORPHAN", "?", 0, blue}}));

    // Subscribed and birthday events stay in the document but never reach a comparison.
    EventKitStore backup(snapshot);
    EXPECT_EQ(backup.allEvents().size(), 6u);
    EXPECT_EQ(
        testing::mapped(backup.loadEvents(),
                        [](const auto& event) { return event.uniqueIdentifier + " " + event.snapshot.calendarName; }),
        (std::vector<std::string>{"ITEM-C-WORK Title C-WORK (Work)", "ITEM-D-FAMILY Title D-FAMILY (iCloud)",
                                  "ITEM-E-HOME Title E-HOME (On My Mac)", "ITEM-F-ORPHAN Title F-ORPHAN (?)"}));
    EXPECT_EQ(EventKitSnapshot::storeType(static_cast<EKCalendarType>(7)), 4);
}

// ---- File form ----

TEST_F(EventKitSnapshotTest, FileFormKeepsFieldOrderLeavesOutAbsentKeysAndDecodesStrictly) {
    const auto snapshot = document();
    const auto bytes = snapshot.encoded();
    const auto text = compression::decompress(bytes);
    EXPECT_EQ(text.find('\n'), std::string::npos);
    EXPECT_EQ(text.rfind(R"({"version":1,"taken":1717243200.0,"windowStart":770454000.0,"windowEnd":1811833200.0,)", 0),
              0u);

    const auto file = json::parse(text);
    EXPECT_EQ(keysOf(file), (std::vector<std::string>{"version", "taken", "windowStart", "windowEnd", "calendars",
                                                      "events", "occurrences"}));
    const auto& events = file.at("events");
    EXPECT_EQ(keysOf(events[0]), (std::vector<std::string>{"rowID", "uniqueIdentifier", "uuid", "hasRecurrences",
                                                           "calendarRowID", "snapshot", "hasAttendees"}));
    EXPECT_EQ(keysOf(events[2]),
              (std::vector<std::string>{"rowID", "uniqueIdentifier", "hasRecurrences", "masterRowID", "originalDate",
                                        "lastModified", "calendarRowID", "snapshot", "hasAttendees"}));
    EXPECT_EQ(events[2].at("originalDate"), keyAt(utc(2024, 6, 10, 16)) + 978307200.0);
    EXPECT_EQ(events[1].at("snapshot").at("alarms")[1].at("absolute").at("_0"), utc(2024, 6, 3, 15) + 978307200.0);
    EXPECT_EQ(file.at("occurrences").dump(), "{\"SERIES\":[739123200,739728000]}");

    EXPECT_EQ(EventKitSnapshot::decode(bytes), snapshot);

    // Decoding is strict, and refuses a later version only once decoded.
    const auto encode = [](const json::Ordered& form) {
        return compression::compress(json::dumpKeepingOrder(form, false));
    };
    auto edited = document().json();

    edited["version"] = 0;
    EXPECT_EQ(EventKitSnapshot::decode(encode(edited)).version, 0);

    edited["version"] = 2;
    EXPECT_EQ(testing::errorText<RestoreError>([&] { EventKitSnapshot::decode(encode(edited)); }),
              "This snapshot was made by a newer version of Morvane.");

    // A later format that no longer decodes says so in the decoder's words.
    edited["events"][1].erase("calendarRowID");
    const auto error = testing::caught<json::DecodingError>([&] { EventKitSnapshot::decode(encode(edited)); });
    ASSERT_TRUE(error) << "an event without its calendar was accepted";
    EXPECT_EQ(error->which(), json::DecodingError::Case::keyNotFound);
    EXPECT_EQ(error->codingPath(), "events[1]");
    auto badKeys = document().json();
    badKeys["occurrences"]["SERIES"][1] = "soon";
    const auto keyError = testing::caught<json::DecodingError>([&] { EventKitSnapshot::decode(encode(badKeys)); });
    ASSERT_TRUE(keyError) << "an occurrence key that isn't a number was accepted";
    EXPECT_EQ(keyError->codingPath(), "occurrences.SERIES[1]");

    EXPECT_THROW(EventKitSnapshot::decode(encode(edited).substr(0, 20)), lzfse::LzfseError);
    auto noStore = document().json();
    noStore["calendars"][0].erase("storeName");
    EXPECT_THROW(EventKitSnapshot::decode(encode(noStore)), json::DecodingError);
    const auto gone = user.home() / "gone.calevents";
    EXPECT_EQ(testing::errorText<RestoreError>([&] { EventKitStore{gone}; }), "Couldn't read " + gone.string() + ".");
}

// ---- Fingerprint ----

TEST_F(EventKitSnapshotTest, FingerprintHashesEventsOccurrencesAndCalendarsWithSortedKeys) {
    EventKitSnapshot small;
    small.calendars = {{.rowID = 1, .uuid = "CAL", .title = "Home", .storeName = "Default", .storeType = 0}};
    EventKitSnapshot::Event event{.rowID = 1, .uniqueIdentifier = "A", .calendarRowID = 1};
    event.snapshot.title = "Dentist";
    event.snapshot.start = Date{0};
    event.snapshot.end = Date{3600.5};
    event.snapshot.calendarName = "Home (On My Mac)";
    small.events = {event};
    small.occurrences["A"] = {5, -3};
    const std::string hashed =
        R"~([{"calendarRowID":1,"hasAttendees":false,"hasRecurrences":false,"rowID":1,"snapshot":{"alarms":[],)~"
        R"~("calendarName":"Home (On My Mac)","end":978310800.5,"isAllDay":false,"start":978307200.0,)~"
        R"~("title":"Dentist"},"uniqueIdentifier":"A"}])~"
        R"~({"A":[5,-3]})~"
        R"~([{"rowID":1,"storeName":"Default","storeType":0,"title":"Home","uuid":"CAL"}])~";
    EXPECT_EQ(small.fingerprint(), SHA256::hex(SHA256::of(hashed)));

    // The same content taken on another day, in another window, by another version.
    auto base = document();
    auto later = base;
    later.version = 0;
    later.taken.seconds += 86400 * 30;
    later.windowStart.seconds += 86400 * 30;
    later.windowEnd.seconds += 86400 * 30;
    EXPECT_EQ(later.fingerprint(), base.fingerprint());
    EXPECT_EQ(EventKitSnapshot::decode(base.encoded()).fingerprint(), base.fingerprint());

    auto recoloured = base;
    recoloured.calendars[0].colorHex = "#FF8001";
    EXPECT_NE(recoloured.fingerprint(), base.fingerprint());
}

// ---- The store ----

TEST_F(EventKitSnapshotTest, StoreDropsUnlistedCalendarsAndKeepsOccurrencesPerSeries) {
    auto snapshot = document();
    auto stray = snapshot.events[0];
    stray.rowID = 4;
    stray.uniqueIdentifier = "STRAY";
    stray.calendarRowID = 9;
    snapshot.events.push_back(stray);
    EventKitStore store(snapshot);

    EXPECT_EQ(testing::mapped(store.loadEvents(), &BackupEvent::rowID), (std::vector<std::int64_t>{1, 2, 3}));
    EXPECT_EQ(store.allEvents().size(), 3u);

    const DateInterval window{snapshot.windowStart, snapshot.windowEnd};
    const KeptOccurrences series{window, {keyAt(utc(2024, 6, 3, 16)), keyAt(utc(2024, 6, 10, 16))}};
    EXPECT_EQ(store.keptOccurrences(2), series);
    EXPECT_EQ(store.keptOccurrences(3), series); // a detached occurrence answers for its series
    EXPECT_EQ(store.keptOccurrences(1), (KeptOccurrences{window, {}}));
    EXPECT_EQ(store.keptOccurrences(4), std::nullopt);
    EXPECT_EQ(store.keptOccurrences(99), std::nullopt);
}

} // namespace
} // namespace morvane
