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

TEST(ICalUnfold, JoinsContinuationsAndDropsBlankLines) {
    EXPECT_EQ(ICalParser::unfold("DESCRIPTION:one\r\n two\r\n\tthree\r\nSUMMARY:x"),
              (std::vector<std::string>{"DESCRIPTION:onetwothree", "SUMMARY:x"}));
    // A blank line doesn't end a folded line: the continuation after it still joins.
    EXPECT_EQ(ICalParser::unfold("A:1\n\n\n 2\nB:3\n"), (std::vector<std::string>{"A:12", "B:3"}));
    // Only one blank goes; a leading blank at the very start stays on its line.
    EXPECT_EQ(ICalParser::unfold("  X:1\n  y"), (std::vector<std::string>{"  X:1 y"}));
    EXPECT_TRUE(ICalParser::unfold("").empty());
    EXPECT_TRUE(ICalParser::unfold("\r\n\n").empty());
}

TEST(ICalUnfold, OnlyCRLFPairsAreLineEnds) {
    // One CR goes per CR LF pair; a lone CR is part of the line, so CR-only files are one line.
    EXPECT_EQ(ICalParser::unfold("A:1\r\r\nB:2\rC:3\r"), (std::vector<std::string>{"A:1\r", "B:2\rC:3\r"}));
}

TEST(ICalParseLine, SplitsNameParametersAndRawValue) {
    const auto property = ICalParser::parseLine("dtstart;tzid=\"America/New_York\";Value=DATE-TIME:20260101T090000");
    ASSERT_TRUE(property);
    EXPECT_EQ(property->name, "DTSTART");
    EXPECT_EQ(property->params,
              (std::map<std::string, std::string>{{"TZID", "America/New_York"}, {"VALUE", "DATE-TIME"}}));
    EXPECT_EQ(property->value, "20260101T090000");
    EXPECT_EQ(property->param("tzid"), "America/New_York");
    EXPECT_EQ(property->param("X"), std::nullopt);

    // The value is raw: backslashes, colons and quotes of its own stay.
    EXPECT_EQ(ICalParser::parseLine("SUMMARY:Lunch\\, then \"talk\": 1:30")->value, "Lunch\\, then \"talk\": 1:30");
}

TEST(ICalParseLine, QuotedParameterValuesKeepColonsAndSemicolons) {
    const auto property = ICalParser::parseLine("X-FOO;BAR=\";hidden=value\";FOO=baz:realvalue");
    ASSERT_TRUE(property);
    EXPECT_EQ(property->param("BAR"), ";hidden=value");
    EXPECT_EQ(property->param("FOO"), "baz");
    EXPECT_EQ(property->value, "realvalue");

    const auto mailto = ICalParser::parseLine("ATTENDEE;CN=\"Doe; Jane: PhD\";ROLE=A,B:mailto:jane@example.com");
    ASSERT_TRUE(mailto);
    EXPECT_EQ(mailto->param("CN"), "Doe; Jane: PhD");
    EXPECT_EQ(mailto->param("ROLE"), "A,B"); // multi-values are not split
    EXPECT_EQ(mailto->value, "mailto:jane@example.com");
}

TEST(ICalParseLine, DropsGroupPrefixesAndBadParameters) {
    EXPECT_EQ(ICalParser::parseLine("item1.url:http://x")->name, "URL");
    EXPECT_EQ(ICalParser::parseLine("A.B.Summary:x")->name, "SUMMARY");

    const auto property = ICalParser::parseLine("X;=1;NOVALUE;EMPTY=;A=1;a=2;B=x=y:v");
    ASSERT_TRUE(property);
    EXPECT_EQ(property->params, (std::map<std::string, std::string>{{"A", "2"}, {"B", "x=y"}}));
}

TEST(ICalParseLine, NeedsAColonOutsideQuotes) {
    EXPECT_EQ(ICalParser::parseLine(""), std::nullopt);
    EXPECT_EQ(ICalParser::parseLine("NOCOLON"), std::nullopt);
    EXPECT_EQ(ICalParser::parseLine("X;P=\"a:b\""), std::nullopt);
    // An empty name is still a property; the reader above has no use for it.
    EXPECT_EQ(ICalParser::parseLine(":v")->name, "");
}

TEST(ICalText, UnescapesBackslashes) {
    EXPECT_EQ(ICalParser::text("a\\,b\\;c\\\\d\\ne\\Nf\\:g"), "a,b;c\\d\ne\nf:g");
    EXPECT_EQ(ICalParser::text("end\\"), "end");
    EXPECT_EQ(ICalParser::text(""), "");
}

// --- Components ------------------------------------------------------------------------------

TEST(ICalParse, BuildsTheTreeInFileOrder) {
    const auto calendars = ICalParser::parse("X-BEFORE:dropped\r\n"
                                             "BEGIN:vcalendar\r\n"
                                             "VERSION:2.0\r\n"
                                             "BEGIN:VEVENT\r\n"
                                             "SUMMARY:one\r\n"
                                             "ATTENDEE:a\r\n"
                                             "ATTENDEE:b\r\n"
                                             "BEGIN:VALARM\r\n"
                                             "TRIGGER:-PT15M\r\n"
                                             "END:VALARM\r\n"
                                             "END:VEVENT\r\n"
                                             "BEGIN:VTODO\r\n"
                                             "END:VTODO\r\n"
                                             "BEGIN:VEVENT\r\n"
                                             "SUMMARY:two\r\n"
                                             "END:VEVENT\r\n"
                                             "END:VCALENDAR\r\n"
                                             "X-AFTER:dropped\r\n");
    ASSERT_EQ(calendars.size(), 1u);
    const auto& calendar = calendars[0];
    EXPECT_EQ(calendar.name(), "VCALENDAR");
    ASSERT_EQ(calendar.properties.size(), 1u);
    EXPECT_EQ(calendar.properties[0].name, "VERSION");

    const auto events = calendar.components("VEVENT");
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0]->first("SUMMARY")->value, "one");
    EXPECT_EQ(events[1]->first("SUMMARY")->value, "two");
    EXPECT_EQ(events[0]->first("summary"), nullptr); // callers pass upper case
    const auto attendees = events[0]->all("ATTENDEE");
    ASSERT_EQ(attendees.size(), 2u);
    EXPECT_EQ(attendees[1]->value, "b");
    EXPECT_EQ(events[0]->components("VALARM").size(), 1u);
    EXPECT_EQ(calendar.children[1].name(), "VTODO");
}

TEST(ICalParse, AnyEndClosesTheInnermostComponent) {
    const auto calendars = ICalParser::parse("BEGIN:VCALENDAR\nBEGIN:VTODO\nEND:VEVENT\nX:1\nEND:VCALENDAR\nEND:X\n");
    ASSERT_EQ(calendars.size(), 1u);
    ASSERT_EQ(calendars[0].children.size(), 1u);
    EXPECT_EQ(calendars[0].children[0].name(), "VTODO");
    EXPECT_TRUE(calendars[0].children[0].properties.empty());
    ASSERT_EQ(calendars[0].properties.size(), 1u);
}

TEST(ICalParse, DropsWhatIsStillOpenAtTheEnd) {
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

TEST(ICalDateParse, ReadsTheThreeForms) {
    EXPECT_EQ(ICalDate::parse("20260101"), (ICalDate{utc("2026-01-01T00:00:00Z"), true, std::nullopt}));
    EXPECT_EQ(ICalDate::parse(" 20260101T090000Z\t", "Europe/Berlin"),
              (ICalDate{utc("2026-01-01T09:00:00Z"), false, "UTC"}));
    EXPECT_EQ(ICalDate::parse("20260101T090000"), (ICalDate{utc("2026-01-01T09:00:00Z"), false, std::nullopt}));
    EXPECT_EQ(ICalDate::parse("20260701T090000", "Europe/Berlin"),
              (ICalDate{utc("2026-07-01T07:00:00Z"), false, "Europe/Berlin"}));
    // A date-only value ignores its zone.
    EXPECT_EQ(ICalDate::parse("20260101", "Europe/Berlin")->timeZone, std::nullopt);
}

TEST(ICalDateParse, UnknownZonesAreFloatingAndWindowsNamesAreMapped) {
    EXPECT_EQ(ICalDate::parse("20260101T090000", "Nowhere/Land"),
              (ICalDate{utc("2026-01-01T09:00:00Z"), false, std::nullopt}));
    EXPECT_EQ(ICalDate::parse("20260101T090000", "Eastern Standard Time"),
              (ICalDate{utc("2026-01-01T14:00:00Z"), false, "America/New_York"}));
    EXPECT_EQ(ICalDate::parse("20260101T090000", "eastern standard time")->timeZone, std::nullopt);
    EXPECT_EQ(ICalDate::parse("20260101T090000", "Etc/Unknown")->timeZone, std::nullopt);
    EXPECT_EQ(ICalDate::parse("20260101T090000", "")->timeZone, std::nullopt);

    EXPECT_EQ(ICalDate::windowsZone("GMT Standard Time"), "Europe/London");
    EXPECT_EQ(ICalDate::windowsZone("UTC"), "UTC");
    EXPECT_EQ(ICalDate::windowsZone("W. Europe Standard Time"), std::nullopt);
    EXPECT_EQ(ICalDate::windowsZone("Pacific Standard Time "), std::nullopt);
}

TEST(ICalDateParse, ResolvesClockChangesForwardAndLate) {
    // 02:30 doesn't exist in New York on 2026-03-08: read with the winter offset, it is 03:30 EDT.
    EXPECT_EQ(ICalDate::parse("20260308T023000", "America/New_York")->date, utc("2026-03-08T07:30:00Z"));
    // 01:30 on 2026-11-01 happens twice: the later one, in winter time.
    EXPECT_EQ(ICalDate::parse("20261101T013000", "America/New_York")->date, utc("2026-11-01T06:30:00Z"));
}

TEST(ICalDateParse, RefusesWhatDoesNotFitThePattern) {
    for (const char* bad :
         {"", "2026010", "202601011", "2026-1-1", "20261301", "20260230", "20260101T240000", "20260101T236000",
          "20260101T235960", "20260101t090000", "20260101T090000z", "20260101T0900Z", "20260101T090000+0100",
          "+0260101", "00000101", "２０２６0101", "20260101 T090000", "20260101T090000ZZ"}) {
        EXPECT_EQ(ICalDate::parse(bad, "America/New_York"), std::nullopt) << bad;
    }
    EXPECT_TRUE(ICalDate::parse("20240229"));
}

TEST(ICalDuration, ReadsWeeksDaysAndTimes) {
    EXPECT_EQ(iCalDuration("-PT15M"), -900);
    EXPECT_EQ(iCalDuration("P1W"), 604800);
    EXPECT_EQ(iCalDuration("P1DT1H"), 90000);
    EXPECT_EQ(iCalDuration(" +PT1H30M5S\t"), 5405);
    EXPECT_EQ(iCalDuration("P"), 0);
    EXPECT_EQ(iCalDuration("-P"), 0);
    EXPECT_EQ(iCalDuration("P2D3D"), 432000); // designators add up
}

TEST(ICalDuration, RefusesMalformedValues) {
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

    static std::vector<ICalComponent> parseFile(const char* relative) {
        return ICalParser::parse(contentsOf(corpus / relative));
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

TEST_F(RealCorpus, GoogleExport) {
    const auto calendars = parseFile("python-recurring-ical-events/large/issue42.ics");
    ASSERT_EQ(calendars.size(), 1u);
    const auto events = calendars[0].components("VEVENT");
    ASSERT_EQ(events.size(), 4778u);
    EXPECT_EQ(calendars[0].components("VTIMEZONE").size(), 5u);
    EXPECT_EQ(startOf(*events[0]), (ICalDate{utc("2020-08-20T00:00:00Z"), true, std::nullopt}));
    EXPECT_EQ(startOf(*events[1]), (ICalDate{utc("2021-02-01T17:00:00Z"), false, "UTC"}));
}

TEST_F(RealCorpus, AppleICalBirthdays) {
    const auto calendars = parseFile("ical4j/valid/mathBirthdays.ics");
    ASSERT_EQ(calendars.size(), 1u);
    const auto events = calendars[0].components("VEVENT");
    ASSERT_EQ(events.size(), 1321u);
    EXPECT_EQ(startOf(*events[0]), (ICalDate{utc("2004-09-17T00:00:00Z"), true, std::nullopt}));
    EXPECT_EQ(RecurrenceRule::fromRRule(events[0]->first("RRULE")->value)->description(), "FREQ=YEARLY");
    EXPECT_EQ(ICalParser::text(events[1]->first("SUMMARY")->value), "1826 Bernhard Riemann");
}

TEST_F(RealCorpus, MacExportWithZonesAndADateOnlyUntil) {
    const auto calendars = parseFile("ical4j/transform-txt/apple.txt.ics");
    ASSERT_EQ(calendars.size(), 1u);
    const auto events = calendars[0].components("VEVENT");
    ASSERT_EQ(events.size(), 5u);
    EXPECT_EQ(startOf(*events[2]), (ICalDate{utc("2014-02-09T11:00:00Z"), false, "Europe/Bucharest"}));
    EXPECT_EQ(RecurrenceRule::fromRRule(events[3]->first("RRULE")->value)->description(),
              "FREQ=MONTHLY;UNTIL=2014-11-19T23:59:59Z");
    EXPECT_EQ(events[0]->components("VALARM").size(), 1u);
}

TEST_F(RealCorpus, ExchangeWithWindowsZoneNames) {
    const auto calendars = parseFile("python-recurring-ical-events/issue_107_omitting_last_event.ics");
    ASSERT_EQ(calendars.size(), 1u);
    const auto events = calendars[0].components("VEVENT");
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(startOf(*events[0]), (ICalDate{utc("2023-01-05T18:00:00Z"), false, "America/Los_Angeles"}));
    const auto* rule = events[0]->first("RRULE");
    EXPECT_EQ(RecurrenceRule::fromRRule(rule->value, "Pacific Standard Time")->description(),
              "FREQ=WEEKLY;BYDAY=TH;UNTIL=2023-06-08T17:00:00Z");

    // A Windows name outside the table reads as floating.
    const auto nz = parseFile("khal/tz_windows_format.ics");
    ASSERT_EQ(nz.size(), 1u);
    EXPECT_EQ(startOf(*nz[0].components("VEVENT").at(0)), (ICalDate{utc("2019-11-20T13:00:00Z"), false, std::nullopt}));
}

TEST_F(RealCorpus, OutlookWithQuotedAndUnquotedZones) {
    const auto calendars = parseFile("node-ical/test/fixtures/ms_timezones.ics");
    ASSERT_EQ(calendars.size(), 1u);
    const auto events = calendars[0].components("VEVENT");
    ASSERT_GE(events.size(), 3u);
    EXPECT_EQ(startOf(*events[0])->timeZone, std::nullopt); // "W. Europe Standard Time"
    EXPECT_EQ(startOf(*events[2]), (ICalDate{utc("2020-09-15T15:30:00Z"), false, "America/Los_Angeles"}));
}

TEST_F(RealCorpus, ThunderbirdLatin1KeepsItsBytes) {
    const auto calendars = parseFile("thunderbird/unit/data/importLatin1.ics");
    ASSERT_EQ(calendars.size(), 1u);
    const auto events = calendars[0].components("VEVENT");
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(events[3]->first("SUMMARY")->value, "Event Tv\xe5");
    EXPECT_EQ(startOf(*events[0]), (ICalDate{utc("2019-01-01T15:00:00Z"), false, std::nullopt}));
}

TEST_F(RealCorpus, LotusNotesWithCROnlyLineEndsReadsAsNothing) {
    // Without a line feed the whole file is one line, a BEGIN that never ends.
    EXPECT_TRUE(parseFile("ccs-calendarserver/test-data/recurrance/Test-03B.ics").empty());
    EXPECT_TRUE(parseFile("ccs-calendarserver/test-data/recurrance/Test-01A.ics").empty());
}

TEST_F(RealCorpus, AppleHolidays) {
    const auto calendars = parseFile("ccs-calendarserver/test-data/Holidays.ics");
    ASSERT_EQ(calendars.size(), 1u);
    const auto events = calendars[0].components("VEVENT");
    ASSERT_EQ(events.size(), 47u);
    EXPECT_EQ(RecurrenceRule::fromRRule(events[0]->first("RRULE")->value)->description(),
              "FREQ=YEARLY;BYDAY=-1MO;BYMONTH=5");
    EXPECT_EQ(ICalParser::text(events[0]->first("SUMMARY")->value), "Memorial Day\n(fed holiday)");
}

TEST_F(RealCorpus, GroupPrefixesAndAByteOrderMark) {
    const auto grouped = parseFile("ical.js/test/parser/grouped.ics");
    ASSERT_EQ(grouped.size(), 1u);
    EXPECT_EQ(grouped[0].properties.at(0).name, "X-TEST");
    // A byte-order mark spoils the first name, so the calendar's BEGIN is passed over.
    EXPECT_TRUE(parseFile("python-icalendar/calendars/bom_calendar.ics").empty());
}

} // namespace
} // namespace morvane
