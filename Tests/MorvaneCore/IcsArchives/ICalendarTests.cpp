#include "MorvaneCore/EventModel/RecurrenceRule.h"
#include "MorvaneCore/IcsArchives/ICalendar.h"
#include "MorvaneCore/Shared/DateFormatting.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

namespace morvane {
namespace {

namespace fs = std::filesystem;

Date utc(const char* iso) { return *dates::parseISO8601(iso); }

const fs::path corpus = fs::path(MORVANE_SHARED_TEST_DATA_DIR) / "ics-real";

std::string contentsOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return bytes.str();
}

// --- Lines -----------------------------------------------------------------------------------

TEST(ICalUnfold, JoinsContinuationsDropsBlankLinesAndEndsLinesOnlyAtLineFeeds) {
    const std::pair<const char*, std::vector<std::string>> cases[] = {
        {"DESCRIPTION:one\r\n two\r\n\tthree\r\nSUMMARY:x", {"DESCRIPTION:onetwothree", "SUMMARY:x"}},
        // A blank line doesn't end a folded line: the continuation after it still joins.
        {"A:1\n\n\n 2\nB:3\n", {"A:12", "B:3"}},
        // Only one blank goes; a leading blank at the very start stays on its line.
        {"  X:1\n  y", {"  X:1 y"}},
        {"", {}},
        {"\r\n\n", {}},
        // One CR goes per CR LF pair; a lone CR is part of the line, so CR-only files are one line.
        {"A:1\r\r\nB:2\rC:3\r", {"A:1\r", "B:2\rC:3\r"}},
    };
    for (const auto& [text, lines] : cases)
        EXPECT_EQ(ICalParser::unfold(text), lines) << text;
}

TEST(ICalParseLine, SplitsNameParametersAndRawValue) {
    using Params = std::map<std::string, std::string>;
    const std::pair<const char*, std::optional<ICalProperty>> cases[] = {
        {"dtstart;tzid=\"America/New_York\";Value=DATE-TIME:20260101T090000",
         ICalProperty{"DTSTART", {{"TZID", "America/New_York"}, {"VALUE", "DATE-TIME"}}, "20260101T090000"}},
        // The value is raw: backslashes, colons and quotes of its own stay.
        {"SUMMARY:Lunch\\, then \"talk\": 1:30", ICalProperty{"SUMMARY", {}, "Lunch\\, then \"talk\": 1:30"}},
        // Quoted parameter values keep colons and semicolons; multi-values are not split.
        {"X-FOO;BAR=\";hidden=value\";FOO=baz:realvalue",
         ICalProperty{"X-FOO", {{"BAR", ";hidden=value"}, {"FOO", "baz"}}, "realvalue"}},
        {"ATTENDEE;CN=\"Doe; Jane: PhD\";ROLE=A,B:mailto:jane@example.com",
         ICalProperty{"ATTENDEE", {{"CN", "Doe; Jane: PhD"}, {"ROLE", "A,B"}}, "mailto:jane@example.com"}},
        // Group prefixes go, and so do parameters without a name or a value; the last one of a name wins.
        {"item1.url:http://x", ICalProperty{"URL", {}, "http://x"}},
        {"A.B.Summary:x", ICalProperty{"SUMMARY", {}, "x"}},
        {"X;=1;NOVALUE;EMPTY=;A=1;a=2;B=x=y:v", ICalProperty{"X", Params{{"A", "2"}, {"B", "x=y"}}, "v"}},
        // A colon outside quotes is needed; an empty name is still a property.
        {"", std::nullopt},
        {"NOCOLON", std::nullopt},
        {"X;P=\"a:b\"", std::nullopt},
        {":v", ICalProperty{"", {}, "v"}},
    };
    for (const auto& [line, expected] : cases)
        EXPECT_EQ(ICalParser::parseLine(line), expected) << line;

    const auto property = ICalParser::parseLine("DTSTART;TZID=Europe/Berlin:20260101T090000");
    EXPECT_EQ(property->param("tzid"), "Europe/Berlin");
    EXPECT_EQ(property->param("X"), std::nullopt);
}

// --- Components ------------------------------------------------------------------------------

// How the tree is built, the archive's tests and the corpus's totals show.
TEST(ICalParse, AnyEndClosesTheInnermostComponentAndWhatStaysOpenIsDropped) {
    const auto calendars = ICalParser::parse("BEGIN:VCALENDAR\nBEGIN:VTODO\nEND:VEVENT\nX:1\nEND:VCALENDAR\nEND:X\n");
    ASSERT_EQ(calendars.size(), 1u);
    ASSERT_EQ(calendars[0].children.size(), 1u);
    EXPECT_EQ(calendars[0].children[0].name(), "VTODO");
    EXPECT_TRUE(calendars[0].children[0].properties.empty());
    ASSERT_EQ(calendars[0].properties.size(), 1u);

    // What is still open at the end is dropped.
    EXPECT_TRUE(ICalParser::parse("BEGIN:VCALENDAR\nBEGIN:VEVENT\nEND:VEVENT\n").empty());
    const auto bare = ICalParser::parse("BEGIN:VEVENT\nSUMMARY:a\nEND:VEVENT\nBEGIN:VEVENT\nSUMMARY:cut off");
    ASSERT_EQ(bare.size(), 1u);
    EXPECT_EQ(bare[0].name(), "VEVENT");
}

TEST(ICalParse, SkipsComponentsNestedBeyondTheDepthCap) {
    std::string text;
    const size_t depth = ICalParser::maximumDepth + 50;
    for (size_t i = 0; i < depth; ++i)
        text += "BEGIN:X\nP:" + std::to_string(i) + "\n";
    for (size_t i = 0; i < depth; ++i)
        text += "END:X\n";
    text += "BEGIN:AFTER\nEND:AFTER\n";

    const auto components = ICalParser::parse(text);
    ASSERT_EQ(components.size(), 2u);
    EXPECT_EQ(components[1].name(), "AFTER");
    size_t levels = 0;
    for (const auto* level = &components[0]; level; level = level->children.empty() ? nullptr : &level->children[0]) {
        ASSERT_EQ(level->properties.size(), 1u);
        EXPECT_EQ(level->properties[0].value, std::to_string(levels));
        ++levels;
    }
    EXPECT_EQ(levels, ICalParser::maximumDepth);
}

// --- Dates -----------------------------------------------------------------------------------

TEST(ICalDateParse, ReadsTheThreeFormsInTheirZonesAndRefusesWhatDoesNotFitThePattern) {
    struct Case {
        const char* value;
        const char* zone; // the TZID parameter, when there is one
        std::optional<ICalDate> expected;
    };
    const Case cases[] = {
        {"20260101", nullptr, ICalDate{utc("2026-01-01T00:00:00Z"), true, std::nullopt}},
        {"20240229", nullptr, ICalDate{utc("2024-02-29T00:00:00Z"), true, std::nullopt}},
        // A date-only value ignores its zone, a UTC one too.
        {"20260101", "Europe/Berlin", ICalDate{utc("2026-01-01T00:00:00Z"), true, std::nullopt}},
        {" 20260101T090000Z\t", "Europe/Berlin", ICalDate{utc("2026-01-01T09:00:00Z"), false, "UTC"}},
        {"20260101T090000", nullptr, ICalDate{utc("2026-01-01T09:00:00Z"), false, std::nullopt}},
        {"20260701T090000", "Europe/Berlin", ICalDate{utc("2026-07-01T07:00:00Z"), false, "Europe/Berlin"}},
        // Unknown zones are floating; Windows names in the table are mapped, exactly as written.
        {"20260101T090000", "Nowhere/Land", ICalDate{utc("2026-01-01T09:00:00Z"), false, std::nullopt}},
        {"20260101T090000", "Etc/Unknown", ICalDate{utc("2026-01-01T09:00:00Z"), false, std::nullopt}},
        {"20260101T090000", "", ICalDate{utc("2026-01-01T09:00:00Z"), false, std::nullopt}},
        {"20260101T090000", "Eastern Standard Time", ICalDate{utc("2026-01-01T14:00:00Z"), false, "America/New_York"}},
        {"20260101T090000", "eastern standard time", ICalDate{utc("2026-01-01T09:00:00Z"), false, std::nullopt}},
        // 02:30 doesn't exist in New York on 2026-03-08: read with the winter offset, it is 03:30 EDT.
        {"20260308T023000", "America/New_York", ICalDate{utc("2026-03-08T07:30:00Z"), false, "America/New_York"}},
        // 01:30 on 2026-11-01 happens twice: the later one, in winter time.
        {"20261101T013000", "America/New_York", ICalDate{utc("2026-11-01T06:30:00Z"), false, "America/New_York"}},
    };
    for (const auto& [value, zone, expected] : cases) {
        const auto parsed = zone ? ICalDate::parse(value, std::string_view(zone)) : ICalDate::parse(value);
        EXPECT_EQ(parsed, expected) << value << " " << (zone ? zone : "");
    }
    for (const char* bad :
         {"", "2026010", "202601011", "2026-1-1", "20261301", "20260230", "20260101T240000", "20260101T236000",
          "20260101T235960", "20260101t090000", "20260101T090000z", "20260101T0900Z", "20260101T090000+0100",
          "+0260101", "00000101", "２０２６0101", "20260101 T090000", "20260101T090000ZZ"}) {
        EXPECT_EQ(ICalDate::parse(bad, "America/New_York"), std::nullopt) << bad;
    }
}

TEST(ICalDuration, ReadsWeeksDaysAndTimesAndRefusesMalformedValues) {
    const std::pair<const char*, std::optional<std::int64_t>> cases[] = {
        {"-PT15M", -900}, {"P1W", 604800}, {"P1DT1H", 90000}, {" +PT1H30M5S\t", 5405},
        {"P", 0},         {"-P", 0},       {"P2D3D", 432000}, // designators add up
    };
    for (const auto& [text, seconds] : cases)
        EXPECT_EQ(iCalDuration(text), seconds) << text;
    for (const char* bad : {"", "PT5", "P5H", "P1M", "PT1W", "PT1D", "p1D", "1D", "--PT1M", "-+PT1M", "P-1D", "PD",
                            "P1.5D", "P1DT1Y", "P99999999999999999999D", "P9223372036854775807W"}) {
        EXPECT_EQ(iCalDuration(bad), std::nullopt) << bad;
    }
}

// --- Real files ------------------------------------------------------------------------------

class RealCorpus : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fs::is_directory(corpus)) GTEST_SKIP() << "the shared corpus is not at " << corpus;
    }

    static std::optional<ICalDate> startOf(const ICalComponent& event) {
        const auto* start = event.first("DTSTART");
        if (!start) return std::nullopt;
        const auto zone = start->param("TZID");
        return ICalDate::parse(start->value, zone ? std::optional<std::string_view>(*zone) : std::nullopt);
    }
};

// Every file, hostile ones included, goes through the reader; the totals pin what it gets out of
// them, so that a change in any rule shows here as a changed count.
TEST_F(RealCorpus, EveryFileParses) {
    size_t files = 0, withComponents = 0, events = 0;
    size_t dateOnly = 0, utcStarts = 0, zoned = 0, floating = 0, unreadableStarts = 0;
    size_t rules = 0, rulesWithUnparsed = 0;
    for (const auto& entry : fs::recursive_directory_iterator(corpus)) {
        if (!entry.is_regular_file() || entry.path().extension() != ".ics") continue;
        ++files;
        const auto components = ICalParser::parse(contentsOf(entry.path()));
        if (!components.empty()) ++withComponents;
        for (const auto& component : components) {
            for (const auto* event : component.components("VEVENT")) {
                ++events;
                if (const auto start = startOf(*event)) {
                    if (start->isDateOnly)
                        ++dateOnly;
                    else if (start->timeZone == "UTC")
                        ++utcStarts;
                    else if (start->timeZone)
                        ++zoned;
                    else
                        ++floating;
                } else {
                    ++unreadableStarts;
                }
                if (const auto* rrule = event->first("RRULE")) {
                    const auto zone = event->first("DTSTART") ? event->first("DTSTART")->param("TZID") : std::nullopt;
                    const auto rule = RecurrenceRule::fromRRule(
                        rrule->value, zone ? std::optional<std::string_view>(*zone) : std::nullopt);
                    if (rule) ++rules;
                    if (rule && rule->unparsed) ++rulesWithUnparsed;
                }
            }
        }
    }
    EXPECT_EQ(files, 565u);
    EXPECT_EQ(withComponents, 539u);
    EXPECT_EQ(events, 11461u);
    EXPECT_EQ(dateOnly, 4320u);
    EXPECT_EQ(utcStarts, 5419u);
    EXPECT_EQ(zoned, 952u);
    EXPECT_EQ(floating, 699u);
    EXPECT_EQ(unreadableStarts, 71u);
    EXPECT_EQ(rules, 2651u);
    EXPECT_EQ(rulesWithUnparsed, 10u);
}

// A file of each producer, pinning what the totals can't tell apart: where a start lands, and how
// a rule reads in its start's zone.
TEST_F(RealCorpus, StartsAndRulesOfEachProducer) {
    struct Golden {
        const char* file;
        size_t events;
        size_t index;
        std::optional<ICalDate> start;
        const char* rule = nullptr;
    };
    const Golden cases[] = {
        {"python-recurring-ical-events/large/issue42.ics", 4778, 1,
         ICalDate{utc("2021-02-01T17:00:00Z"), false, "UTC"}},
        {"ical4j/valid/mathBirthdays.ics", 1321, 0, ICalDate{utc("2004-09-17T00:00:00Z"), true, std::nullopt},
         "FREQ=YEARLY"},
        {"ical4j/transform-txt/apple.txt.ics", 5, 2, ICalDate{utc("2014-02-09T11:00:00Z"), false, "Europe/Bucharest"}},
        // A date-only UNTIL ends with its day.
        {"ical4j/transform-txt/apple.txt.ics", 5, 3, std::nullopt, "FREQ=MONTHLY;UNTIL=2014-11-19T23:59:59Z"},
        // Exchange's Windows zone names: a known one is mapped, for the start and the rule's end.
        {"python-recurring-ical-events/issue_107_omitting_last_event.ics", 1, 0,
         ICalDate{utc("2023-01-05T18:00:00Z"), false, "America/Los_Angeles"},
         "FREQ=WEEKLY;BYDAY=TH;UNTIL=2023-06-08T17:00:00Z"},
        {"thunderbird/unit/data/importLatin1.ics", 4, 0, ICalDate{utc("2019-01-01T15:00:00Z"), false, std::nullopt}},
    };
    for (const auto& golden : cases) {
        SCOPED_TRACE(golden.file);
        const auto calendars = ICalParser::parse(contentsOf(corpus / golden.file));
        ASSERT_EQ(calendars.size(), 1u);
        const auto events = calendars[0].components("VEVENT");
        ASSERT_EQ(events.size(), golden.events);
        const auto& event = *events.at(golden.index);
        if (golden.start) {
            EXPECT_EQ(startOf(event), golden.start);
        }
        if (golden.rule) {
            const auto zone = event.first("DTSTART")->param("TZID");
            EXPECT_EQ(RecurrenceRule::fromRRule(event.first("RRULE")->value,
                                                zone ? std::optional<std::string_view>(*zone) : std::nullopt)
                          ->description(),
                      golden.rule);
        }
    }
}

} // namespace
} // namespace morvane
