#include "MorvaneCore/EventModel/EventSnapshot.h"
#include "MorvaneCore/Shared/DateFormatting.h"
#include "Support/ErrorText.h"
#include "Support/Pinned.h"

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>

namespace morvane {
namespace {

using testing::ScopedTimeZone;
using Changes = std::vector<FieldChange>;

Date utc(const char* iso) { return *dates::parseISO8601(iso); }

// A timed event in Los Angeles, 2024-03-01 09:00 to 10:00 local time.
EventSnapshot meeting() {
    EventSnapshot event;
    event.title = "Standup";
    event.start = utc("2024-03-01T17:00:00Z");
    event.end = utc("2024-03-01T18:00:00Z");
    event.timeZone = "America/Los_Angeles";
    event.calendarUUID = "CAL-1";
    event.calendarName = "Work";
    return event;
}

// --- Alarms ----------------------------------------------------------------------------------

TEST(AlarmSpecDescription, ChoosesTheUnitOnWholeMinutes) {
    const std::pair<std::int64_t, const char*> cases[] = {
        {0, "at start"},          {-900, "15m before"},         {-5400, "90m before"}, {-7200, "2h before"},
        {172800, "2d after"},     {-86401, "1d before"},        {-3659, "1h before"},  {-59, "0d before"},
        {1, "0d after"},          {-60, "1m before"},           {90000, "25h after"},  {-604800, "7d before"},
        {-86460, "1441m before"}, {3600 * 48 + 30, "2d after"},
    };
    for (const auto& [seconds, text] : cases)
        EXPECT_EQ(AlarmSpec::relative(seconds).description(), text) << seconds;
    EXPECT_EQ(AlarmSpec::relative(INT64_MIN).description(), "153722867280912930m before");
}

// --- Formatting ------------------------------------------------------------------------------

TEST(EventSnapshotFormat, UsesUTCForFloatingAndTheCurrentZoneOtherwise) {
    const auto date = utc("2024-03-01T02:30:00Z");
    EXPECT_EQ(EventSnapshot::format(date, false, false), "2024-02-29 18:30");
    EXPECT_EQ(EventSnapshot::format(date, true, false), "2024-03-01 02:30");
    EXPECT_EQ(EventSnapshot::format(date, false, true), "2024-02-29 (all day)");
    EXPECT_EQ(EventSnapshot::format(date, true, true), "2024-03-01 (all day)");
    testing::ScopedLocale arabic("ar_EG");
    EXPECT_EQ(EventSnapshot::format(date, true, false), "2024-03-01 02:30");

    auto event = meeting();
    EXPECT_EQ(event.startText(), "2024-03-01 09:00");
    event.timeZone.reset();
    EXPECT_TRUE(event.isFloating());
    EXPECT_EQ(event.startText(), "2024-03-01 17:00");
}

// --- Changes ---------------------------------------------------------------------------------

TEST(EventSnapshotChanges, IgnoresBlanksAtTheEndsAndAbsentAsEmptyAndComparesTextsCanonically) {
    auto before = meeting();
    before.notes = std::nullopt;
    auto after = meeting();
    after.title = " \n Standup\u00A0\t";
    after.location = "\u3000";
    after.notes = "\r\n";
    after.url = "";
    EXPECT_TRUE(before.changes(after).empty());

    after.location = "  Room 1 \n";
    EXPECT_EQ(before.changes(after), (Changes{{"location", "", "Room 1"}}));

    // Texts compare by canonical equivalence.
    before.title = "Caf\u00E9";
    after = before;
    after.title = "Cafe\u0301";
    EXPECT_TRUE(before.changes(after).empty());
    after.title = "Cafe";
    EXPECT_EQ(before.changes(after), (Changes{{"title", "Caf\u00E9", "Cafe"}}));
}

TEST(EventSnapshotChanges, ReportsEveryFieldInItsFixedOrder) {
    auto before = meeting();
    before.recurrence = RecurrenceRule(RecurrenceRule::Frequency::weekly, 1);
    auto after = meeting();
    after.title = "Retro ";
    after.start = utc("2024-03-01T18:00:00Z");
    after.end = utc("2024-03-01T19:00:00Z");
    after.location = "Room 2";
    after.notes = "bring cake";
    after.url = "https://example.com";
    after.calendarUUID = "CAL-2";
    after.calendarName = "Home";
    after.alarms = {AlarmSpec::relative(-900), AlarmSpec::absolute(utc("2024-03-01T16:00:00Z"))};

    EXPECT_EQ(before.changes(after), (Changes{
                                         {"title", "Standup", "Retro"},
                                         {"start", "2024-03-01 09:00", "2024-03-01 10:00"},
                                         {"end", "2024-03-01 10:00", "2024-03-01 11:00"},
                                         {"location", "", "Room 2"},
                                         {"notes", "", "bring cake"},
                                         {"url", "", "https://example.com"},
                                         {"calendar", "Work", "Home"},
                                         {"recurrence", "FREQ=WEEKLY", "none"},
                                         {"alarms", "", "15m before, at 2024-03-01 08:00"},
                                     }));

    // Old is always the receiver's side.
    EXPECT_EQ(after.changes(before).front(), (FieldChange{"title", "Retro", "Standup"}));
    EXPECT_EQ(before.changes(after, {false, false, false}).size(), 6u);
}

// Each case edits a copy of the meeting on either side.
TEST(EventSnapshotChanges, ComparesAsTheUserSeesIt) {
    using Edit = std::function<void(EventSnapshot&)>;
    const auto none = [](EventSnapshot&) {};
    const auto allDay = [](EventSnapshot& event) {
        event.isAllDay = true;
        event.timeZone.reset();
        event.start = utc("2024-03-01T00:00:00Z");
        event.end = utc("2024-03-01T23:59:59Z");
    };
    const auto rule = [](const char* rrule) {
        return [rrule](EventSnapshot& event) { event.recurrence = RecurrenceRule::fromRRule(rrule); };
    };
    const auto calendar = [](std::optional<std::string> uuid, std::string name) {
        return [=](EventSnapshot& event) {
            event.calendarUUID = uuid;
            event.calendarName = name;
        };
    };
    const struct {
        const char* name;
        Edit before;
        Edit after;
        Changes expected;
        CompareOptions options = {};
    } cases[] = {
        // The order of the producer counts.
        {"alarms reordered",
         [](EventSnapshot& event) {
             event.alarms = {AlarmSpec::relative(-900), AlarmSpec::relative(0)};
         },
         [](EventSnapshot& event) {
             event.alarms = {AlarmSpec::relative(0), AlarmSpec::relative(-900)};
         },
         {{"alarms", "15m before, at start", "at start, 15m before"}}},
        {"under a second", none, [](EventSnapshot& event) { event.start.seconds += 0.9; }, {}},
        {"09:00:30, the same minute", none, [](EventSnapshot& event) { event.start.seconds += 30; }, {}},
        {"09:00:45 against 09:01:15",
         [](EventSnapshot& event) { event.start.seconds += 45; },
         [](EventSnapshot& event) { event.start.seconds += 75; },
         {{"start", "2024-03-01 09:00", "2024-03-01 09:01"}}},
        // All-day events compare by the day shown.
        {"all-day, same day",
         allDay,
         [&](EventSnapshot& event) {
             allDay(event);
             event.end = utc("2024-03-01T20:00:00Z");
         },
         {}},
        {"all-day, next day",
         allDay,
         [&](EventSnapshot& event) {
             allDay(event);
             event.end = utc("2024-03-02T00:00:00Z");
         },
         {{"end", "2024-03-01 (all day)", "2024-03-02 (all day)"}}},
        {"made all-day", none, [](EventSnapshot& event) { event.isAllDay = true; }, {{"all-day", "no", "yes"}}},
        {"made all-day, end moved",
         none,
         [](EventSnapshot& event) {
             event.isAllDay = true;
             event.end.seconds += 1;
         },
         {{"all-day", "no", "yes"}, {"end", "2024-03-01 10:00", "2024-03-01 (all day)"}}},
        // Calendars count as moved only under another name, which isn't trimmed.
        {"one calendar identifier absent", none, calendar(std::nullopt, "Work"), {}},
        {"calendar renamed", none, calendar("CAL-1", "Work (old)"), {}},
        {"another calendar", none, calendar("CAL-9", " Work"), {{"calendar", "Work", " Work"}}},
        {"both identifiers absent", calendar(std::nullopt, "Work"), calendar(std::nullopt, " Work"), {}},
        {"calendar not compared", none, calendar("CAL-9", " Work"), {}, {.calendar = false}},
        // Rules compare by their descriptions.
        {"same rule written apart", rule("FREQ=WEEKLY;WKST=MO"), rule("FREQ=WEEKLY;INTERVAL=1"), {}},
        {"another rule",
         rule("FREQ=WEEKLY"),
         rule("FREQ=WEEKLY;COUNT=2"),
         {{"recurrence", "FREQ=WEEKLY", "FREQ=WEEKLY;COUNT=2"}}},
        {"rule not compared", rule("FREQ=WEEKLY"), rule("FREQ=WEEKLY;COUNT=2"), {}, {.recurrence = false}},
    };
    for (const auto& test : cases) {
        auto before = meeting();
        auto after = meeting();
        test.before(before);
        test.after(after);
        EXPECT_EQ(before.changes(after, test.options), test.expected) << test.name;
    }
}

TEST(EventSnapshotChanges, EachSideIsFormattedWithItsOwnZoneFlag) {
    // Floating 09:00 held as UTC against the same local time in Los Angeles: no change.
    auto floating = meeting();
    floating.timeZone.reset();
    floating.start = utc("2024-03-01T09:00:00Z");
    floating.end = utc("2024-03-01T10:00:00Z");
    EXPECT_TRUE(floating.changes(meeting()).empty());

    // Instants less than a second apart are the same, floating or not: nothing is formatted.
    auto sameInstants = meeting();
    sameInstants.timeZone.reset();
    EXPECT_TRUE(meeting().changes(sameInstants).empty());

    // Half a minute apart, one side floating: the texts differ unless the machine is on UTC.
    auto nearlySame = sameInstants;
    nearlySame.start = Date{nearlySame.start.seconds + 30};
    EXPECT_EQ(meeting().changes(nearlySame), (Changes{{"start", "2024-03-01 09:00", "2024-03-01 17:00"}}));
    ScopedTimeZone utcMachine("UTC");
    EXPECT_TRUE(meeting().changes(nearlySame).empty());
}

// --- JSON ------------------------------------------------------------------------------------

TEST(EventSnapshotJson, WritesKeysInFieldOrderAndLeavesOutAbsentOnes) {
    auto event = meeting();
    event.start = Date::fromSecondsSince1970(1709312400.25);
    event.notes = "n";
    event.alarms = {AlarmSpec::relative(-900), AlarmSpec::absolute(Date::fromSecondsSince1970(1709310000))};
    event.recurrence = RecurrenceRule::fromRRule("FREQ=DAILY;COUNT=2");
    EXPECT_EQ(json::dumpKeepingOrder(event.json(json::DateEncoding::secondsSince1970), false),
              R"({"title":"Standup","start":1709312400.25,"end":1709316000.0,"isAllDay":false,)"
              R"("timeZone":"America/Los_Angeles","notes":"n","calendarUUID":"CAL-1","calendarName":"Work",)"
              R"("recurrence":{"frequency":1,"interval":1,"daysOfWeek":[],"daysOfMonth":[],"monthsOfYear":[],)"
              R"("weeksOfYear":[],"daysOfYear":[],"setPositions":[],"end":{"count":{"_0":2}}},)"
              R"("alarms":[{"relative":{"_0":-900}},{"absolute":{"_0":1709310000.0}}]})");

    const auto iso = event.json(json::DateEncoding::iso8601);
    EXPECT_EQ(iso["end"], "2024-03-01T18:00:00Z");
    EXPECT_EQ(iso["alarms"][1].dump(), R"({"absolute":{"_0":"2024-03-01T16:20:00Z"}})");
    // Sorted for fingerprints.
    EXPECT_EQ(json::sorted(iso).begin().key(), "alarms");
}

TEST(EventSnapshotJson, RoundTrips) {
    auto event = meeting();
    event.location = "Room \"1\"";
    event.url = "https://example.com/\u00E9";
    event.start = Date::fromSecondsSince1970(1709312400.123456);
    event.alarms = {AlarmSpec::relative(-900), AlarmSpec::absolute(Date::fromSecondsSince1970(1709310000.5))};
    event.recurrence = RecurrenceRule::fromRRule("FREQ=MONTHLY;COUNT=5");
    // Whole seconds, as ISO 8601 dates hold no fractions.
    auto bare = EventSnapshot{};
    bare.isAllDay = true;
    bare.recurrence = RecurrenceRule::fromRRule(
        "FREQ=YEARLY;INTERVAL=2;BYDAY=1SU,-1SA;BYMONTH=1;BYSETPOS=-1;UNTIL=20260101T120000Z;X-A=1");

    for (const auto& [original, encoding] :
         {std::pair{event, json::DateEncoding::secondsSince1970}, std::pair{bare, json::DateEncoding::secondsSince1970},
          std::pair{bare, json::DateEncoding::iso8601}}) {
        const auto text = json::dumpKeepingOrder(original.json(encoding), false);
        EXPECT_EQ(EventSnapshot::fromJson(json::parse(text), encoding), original) << text;
    }
}

// Refusals of the snapshot and the rule and alarms within it, each with its case and where it lies.
TEST(EventSnapshotJson, RefusesMissingKeysAndBadValuesSayingWhere) {
    using Case = json::DecodingError::Case;
    const auto failure = [](const std::string& text) {
        return testing::caught<json::DecodingError>(
            [&] { EventSnapshot::fromJson(json::parse(text), json::DateEncoding::secondsSince1970); });
    };
    const std::string full = R"({"title":"t","start":0,"end":1,"isAllDay":false,"calendarName":"c","alarms":[]})";
    const auto with = [&](const std::string& key, const std::string& value) {
        return full.substr(0, full.size() - 1) + ",\"" + key + "\":" + value + "}";
    };
    EXPECT_FALSE(failure(full));
    for (const char* key : {"title", "start", "end", "isAllDay", "calendarName", "alarms"}) {
        auto value = json::parse(full);
        value.erase(key);
        const auto error = failure(json::dumpKeepingOrder(value, false));
        ASSERT_TRUE(error) << key;
        EXPECT_EQ(error->which(), Case::keyNotFound) << key;
        EXPECT_NE(error->description().find(key), std::string::npos) << error->description();
    }

    const std::string lists =
        R"("interval":1,"daysOfWeek":[],"daysOfMonth":[],"monthsOfYear":[],"weeksOfYear":[],"daysOfYear":[])";
    const struct {
        std::string text;
        Case which;
        const char* path;
    } cases[] = {
        {R"({"title":"t","start":"2024-03-01T00:00:00Z","end":1,"isAllDay":false,"calendarName":"c","alarms":[]})",
         Case::typeMismatch, "start"},
        // An alarm and a rule's end are each exactly one case.
        {with("alarms", R"([{}])"), Case::typeMismatch, "alarms[0]"},
        {with("alarms", R"([{"relative":{"_0":1},"absolute":{"_0":2}}])"), Case::typeMismatch, "alarms[0]"},
        {with("alarms", R"([{"other":{"_0":1}}])"), Case::typeMismatch, "alarms[0]"},
        {with("alarms", R"([{"relative":{}}])"), Case::keyNotFound, nullptr},
        {with("recurrence", R"({"frequency":1,)" + lists + "}"), Case::keyNotFound, nullptr},
        {with("recurrence", R"({"frequency":5,)" + lists + R"(,"setPositions":[]})"), Case::dataCorrupted, nullptr},
        {with("recurrence",
              R"({"frequency":1,)" + lists + R"(,"setPositions":[],"end":{"count":{"_0":1},"until":{"_0":0}}})"),
         Case::typeMismatch, "recurrence.end"},
        {with("recurrence", R"({"frequency":1,"interval":1,"daysOfWeek":[{"weekday":2}],"daysOfMonth":[],)"
                            R"("monthsOfYear":[],"weeksOfYear":[],"daysOfYear":[],"setPositions":[]})"),
         Case::keyNotFound, "recurrence.daysOfWeek[0]"},
    };
    for (const auto& [text, which, path] : cases) {
        const auto error = failure(text);
        ASSERT_TRUE(error) << text;
        EXPECT_EQ(error->which(), which) << text;
        if (path) {
            EXPECT_EQ(error->codingPath(), path) << text;
        }
        if (which == Case::typeMismatch && path != std::string_view("start")) {
            EXPECT_EQ(error->description(), "Invalid number of keys found, expected one.") << text;
        }
    }
    // Absent and null optional keys read alike.
    EXPECT_EQ(EventSnapshot::fromJson(
                  json::parse(with("recurrence",
                                   R"({"frequency":3,)" + lists + R"(,"setPositions":[],"end":null,"unparsed":null})")),
                  json::DateEncoding::secondsSince1970)
                  .recurrence,
              RecurrenceRule(RecurrenceRule::Frequency::monthly, 1));
    EXPECT_EQ(AlarmSpec::fromJson(json::parse(R"({"relative":{"_0":-600.0}})"), json::DateEncoding::iso8601),
              AlarmSpec::relative(-600));
}

} // namespace
} // namespace morvane
