#include "MorvaneCore/EventModel/RecurrenceRule.h"
#include "MorvaneCore/Shared/DateFormatting.h"
#include "MorvaneCore/Shared/Errors.h"
#include "Support/ErrorText.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <unordered_set>

namespace morvane {
namespace {

using Frequency = RecurrenceRule::Frequency;
using Day = RecurrenceRule::Day;
using End = RecurrenceRule::End;
using Days = std::vector<Day>;
using Integers = std::vector<std::int64_t>;

Date utc(const char* iso) { return *dates::parseISO8601(iso); }

RecurrenceRule fromSpecifier(std::string_view specifier) {
    return *RecurrenceRule::fromDatabase(2, 1, 0, std::nullopt, specifier);
}

RecurrenceRule fromRRule(std::string_view rrule, std::optional<std::string_view> tzid = std::nullopt) {
    auto rule = RecurrenceRule::fromRRule(rrule, tzid);
    EXPECT_TRUE(rule) << rrule;
    return rule.value_or(RecurrenceRule(Frequency::daily, 1));
}

// --- Database columns ------------------------------------------------------------------------

TEST(RecurrenceRuleFromDatabase, NeedsAKnownFrequency) {
    EXPECT_EQ(RecurrenceRule::fromDatabase(0, 1, 0, std::nullopt, std::nullopt), std::nullopt);
    EXPECT_EQ(RecurrenceRule::fromDatabase(5, 1, 0, std::nullopt, std::nullopt), std::nullopt);
    const auto rule = RecurrenceRule::fromDatabase(1, 0, 0, std::nullopt, "garbage");
    ASSERT_TRUE(rule);
    EXPECT_EQ(rule->frequency, Frequency::daily);
    EXPECT_EQ(rule->interval, 1);
    EXPECT_EQ(RecurrenceRule::fromDatabase(4, 1, 0, std::nullopt, std::nullopt)->frequency, Frequency::yearly);
}

TEST(RecurrenceRuleFromDatabase, CountWinsOverTheEndDateAndZeroMeansNone) {
    EXPECT_EQ(RecurrenceRule::fromDatabase(1, 1, 3, 800000000.0, std::nullopt)->end, End::count(3));
    EXPECT_EQ(RecurrenceRule::fromDatabase(1, 1, 0, 800000000.5, std::nullopt)->end, End::until(Date{800000000.5}));
    EXPECT_EQ(RecurrenceRule::fromDatabase(1, 1, -2, 800000000.0, std::nullopt)->end, End::until(Date{800000000.0}));
    EXPECT_EQ(RecurrenceRule::fromDatabase(1, 1, 0, std::nullopt, std::nullopt)->end, std::nullopt);
    // Larger values are damage, and the event store holds the same bounds.
    const auto huge = RecurrenceRule::fromDatabase(1, INT64_MAX, INT64_MAX, std::nullopt, std::nullopt);
    EXPECT_EQ(huge->interval, 1'000'000);
    EXPECT_EQ(huge->end, End::count(1'000'000'000));
}

TEST(RecurrenceRuleFromDatabase, ReadsTheSpecifier) {
    const auto rule = fromSpecifier("D=0MO,0WE;M=15");
    EXPECT_EQ(rule.daysOfWeek, (Days{{2, 0}, {4, 0}}));
    EXPECT_EQ(rule.daysOfMonth, Integers{15});
    EXPECT_EQ(rule.unparsed, std::nullopt);

    const auto all = fromSpecifier(";;O=12,3;W=-1,20;Y=100,-1;S=-1,1;D=+2WE;D=-1FR,1MO;");
    EXPECT_EQ(all.daysOfWeek, (Days{{6, -1}, {2, 1}, {4, 2}})); // several D pieces add up, then sorted
    EXPECT_EQ(all.monthsOfYear, (Integers{3, 12}));
    EXPECT_EQ(all.weeksOfYear, (Integers{-1, 20}));
    EXPECT_EQ(all.daysOfYear, (Integers{-1, 100}));
    EXPECT_EQ(all.setPositions, (Integers{-1, 1}));
    EXPECT_EQ(all.unparsed, std::nullopt);
}

TEST(RecurrenceRuleFromDatabase, KeepsEveryMalformedPieceInUnparsed) {
    const auto bareDay = fromSpecifier("D=MO");
    EXPECT_TRUE(bareDay.daysOfWeek.empty());
    EXPECT_EQ(bareDay.unparsed, "D=MO");

    // Bad days go one by one, in order; good ones beside them stay.
    EXPECT_EQ(fromSpecifier("D=1mo,1MO,xTU,1XX,-FR").unparsed, "D=1mo;D=xTU;D=1XX;D=-FR");
    EXPECT_EQ(fromSpecifier("D=1mo,1MO").daysOfWeek, (Days{{2, 1}}));
    // Unknown or lower-case keys and pieces without two sides are kept whole, as they stand.
    EXPECT_EQ(fromSpecifier("d=1MO;Q=1;M=;=3;X").unparsed, "d=1MO;Q=1;M=;=3;X");
    EXPECT_EQ(fromSpecifier("DD=1MO").unparsed, "DD=1MO");
    // A piece is split at its first "=" only.
    EXPECT_EQ(fromSpecifier("D=1MO=2").unparsed, "D=1MO=2");
    // The platform's rule holds 32-bit weeks: a larger one doesn't read.
    EXPECT_EQ(fromSpecifier("D=2147483648MO,-2147483648TU").unparsed, "D=2147483648MO");
}

TEST(RecurrenceRuleFromDatabase, DropsUnreadableIntegersSilentlyAndTheLastPieceWins) {
    const auto rule = fromSpecifier("M=1,x,3");
    EXPECT_EQ(rule.daysOfMonth, (Integers{1, 3}));
    EXPECT_EQ(rule.unparsed, std::nullopt);
    EXPECT_EQ(fromSpecifier("M=1,2;M=9").daysOfMonth, Integers{9});
    EXPECT_EQ(fromSpecifier("M=5,,+6,1.5, 7,99999999999,99999999999999999999").daysOfMonth, (Integers{5, 6}));
}

// --- RRULE text ------------------------------------------------------------------------------

TEST(RecurrenceRuleFromRRule, NeedsAUsableFrequency) {
    for (const char* bad : {"", "INTERVAL=2", "FREQ=HOURLY", "FREQ=", "FREQ=DAILY;FREQ=SECONDLY", "FREQ = DAILY"}) {
        EXPECT_EQ(RecurrenceRule::fromRRule(bad), std::nullopt) << bad;
    }
    const auto rule = fromRRule("freq=weekly;byday=mo");
    EXPECT_EQ(rule.frequency, Frequency::weekly);
    EXPECT_EQ(rule.daysOfWeek, (Days{{2, 0}}));
    EXPECT_EQ(fromRRule("FREQ=SECONDLY;FREQ=Monthly").frequency, Frequency::monthly); // the last value counts
}

TEST(RecurrenceRuleFromRRule, ReadsIntervalDaysAndLists) {
    const auto rule = fromRRule("FREQ=MONTHLY;INTERVAL=3;BYDAY=1mo,-1FR,+2we,TU;BYMONTHDAY=15,1;BYMONTH=12,x,6;"
                                "BYWEEKNO=5;BYYEARDAY=-1;BYSETPOS=-1,,2");
    EXPECT_EQ(rule.interval, 3);
    EXPECT_EQ(rule.daysOfWeek, (Days{{6, -1}, {3, 0}, {2, 1}, {4, 2}}));
    EXPECT_EQ(rule.daysOfMonth, (Integers{1, 15}));
    EXPECT_EQ(rule.monthsOfYear, (Integers{6, 12}));
    EXPECT_EQ(rule.weeksOfYear, Integers{5});
    EXPECT_EQ(rule.daysOfYear, Integers{-1});
    EXPECT_EQ(rule.setPositions, (Integers{-1, 2}));
    EXPECT_EQ(rule.unparsed, std::nullopt);

    for (const char* interval : {"INTERVAL=0", "INTERVAL=-2", "INTERVAL=two", "INTERVAL=1.5"}) {
        EXPECT_EQ(fromRRule(std::string("FREQ=DAILY;") + interval).interval, 1) << interval;
    }
}

TEST(RecurrenceRuleFromRRule, KeepsBadDaysThenUnknownKeysSorted) {
    EXPECT_EQ(fromRRule("FREQ=WEEKLY;FOO=1;BAR=2;WKST=MO").unparsed, "BAR=2;FOO=1");
    EXPECT_EQ(fromRRule("FREQ=WEEKLY;x-name=a=b;BYDAY=M,1XX,x1MO,MO;BYHOUR=9").unparsed,
              "BYDAY=M;BYDAY=1XX;BYDAY=x1MO;BYHOUR=9;X-NAME=a=b");
    // Valueless pieces vanish without a trace.
    EXPECT_EQ(fromRRule("FREQ=DAILY;BYHOUR=;;=5;JUNK").unparsed, std::nullopt);
    // A key that comes twice keeps its last value.
    EXPECT_EQ(fromRRule("FREQ=DAILY;X-A=1;x-a=2").unparsed, "X-A=2");
}

TEST(RecurrenceRuleFromRRule, CountWinsAndUntilIsReadInTheRulesZone) {
    EXPECT_EQ(fromRRule("FREQ=DAILY;COUNT=0").end, End::count(0));
    EXPECT_EQ(fromRRule("FREQ=DAILY;COUNT=-4;UNTIL=20260101").end, End::count(-4));
    // An unreadable count leaves the until date to decide; a date-only one ends with its day.
    EXPECT_EQ(fromRRule("FREQ=DAILY;COUNT=abc;UNTIL=20260101").end, End::until(utc("2026-01-01T23:59:59Z")));
    EXPECT_EQ(fromRRule("FREQ=DAILY;UNTIL=20260101T120000Z", "Europe/Berlin").end,
              End::until(utc("2026-01-01T12:00:00Z")));
    EXPECT_EQ(fromRRule("FREQ=DAILY;UNTIL=20260101T120000", "Europe/Berlin").end,
              End::until(utc("2026-01-01T11:00:00Z")));
    EXPECT_EQ(fromRRule("FREQ=DAILY;UNTIL=20260101T120000").end, End::until(utc("2026-01-01T12:00:00Z")));
    EXPECT_EQ(fromRRule("FREQ=DAILY;UNTIL=2026-01-01").end, std::nullopt);
}

// --- Equality and text ---------------------------------------------------------------------

TEST(RecurrenceRuleEquality, CoversEveryField) {
    const auto base = fromRRule("FREQ=WEEKLY;BYDAY=MO;COUNT=3");
    std::unordered_set<RecurrenceRule> seen{base};
    EXPECT_TRUE(seen.contains(fromRRule("FREQ=WEEKLY;COUNT=3;BYDAY=MO")));

    const RecurrenceRule different[] = {
        fromRRule("FREQ=DAILY;BYDAY=MO;COUNT=3"),
        fromRRule("FREQ=WEEKLY;INTERVAL=2;BYDAY=MO;COUNT=3"),
        fromRRule("FREQ=WEEKLY;BYDAY=1MO;COUNT=3"),
        fromRRule("FREQ=WEEKLY;BYDAY=MO;BYMONTHDAY=1;COUNT=3"),
        fromRRule("FREQ=WEEKLY;BYDAY=MO;COUNT=4"),
        fromRRule("FREQ=WEEKLY;BYDAY=MO;UNTIL=20260101"),
        fromRRule("FREQ=WEEKLY;BYDAY=MO"),
        fromRRule("FREQ=WEEKLY;BYDAY=MO;COUNT=3;X-Y=1"),
        fromRRule("FREQ=WEEKLY;BYDAY=MO;BYSETPOS=1;COUNT=3"),
    };
    for (const auto& rule : different) {
        EXPECT_NE(rule, base) << rule.description();
        EXPECT_FALSE(seen.contains(rule)) << rule.description();
    }
}

TEST(RecurrenceRuleDescription, WritesThePartsInTheirOrder) {
    EXPECT_EQ(RecurrenceRule(Frequency::daily, 1).description(), "FREQ=DAILY");
    EXPECT_EQ(fromSpecifier("D=-1FR,1MO").description(), "FREQ=WEEKLY;BYDAY=-1FR,1MO");
    EXPECT_EQ(fromRRule("FREQ=YEARLY;INTERVAL=2;BYSETPOS=-1;BYYEARDAY=7;BYWEEKNO=3;BYMONTH=2,1;BYMONTHDAY=5;"
                        "BYDAY=+1SU,SA;COUNT=10;X-B=2;X-A=1")
                  .description(),
              "FREQ=YEARLY;INTERVAL=2;BYDAY=SA,1SU;BYMONTHDAY=5;BYMONTH=1,2;BYWEEKNO=3;BYYEARDAY=7;BYSETPOS=-1;"
              "COUNT=10;X-UNPARSED=X-A=1;X-B=2");
    EXPECT_EQ(fromRRule("FREQ=MONTHLY;UNTIL=20260301T120000Z").description(),
              "FREQ=MONTHLY;UNTIL=2026-03-01T12:00:00Z");

    auto odd = RecurrenceRule(Frequency::monthly, 1);
    odd.daysOfWeek = {{0, 0}, {8, -2}};
    EXPECT_EQ(odd.description(), "FREQ=MONTHLY;BYDAY=?,-2?");
}

// --- JSON ------------------------------------------------------------------------------------

// The eight keys of every rule are in the event's form, which its own tests pin; the event's tests
// also read rules back from both forms.
TEST(RecurrenceRuleJson, WritesDaysUnparsedPiecesAndTheEndAsACase) {
    const auto counted = fromRRule("FREQ=WEEKLY;BYDAY=-1FR;COUNT=5;X-A=1");
    EXPECT_EQ(json::dumpKeepingOrder(counted.json(json::DateEncoding::secondsSince1970), false),
              R"({"frequency":2,"interval":1,"daysOfWeek":[{"weekday":6,"week":-1}],"daysOfMonth":[],)"
              R"("monthsOfYear":[],"weeksOfYear":[],"daysOfYear":[],"setPositions":[],"end":{"count":{"_0":5}},)"
              R"("unparsed":"X-A=1"})");

    const auto until = fromRRule("FREQ=DAILY;UNTIL=20260101T120000Z");
    EXPECT_EQ(until.json(json::DateEncoding::secondsSince1970)["end"].dump(), R"({"until":{"_0":1767268800.0}})");
    EXPECT_EQ(until.json(json::DateEncoding::iso8601)["end"].dump(), R"({"until":{"_0":"2026-01-01T12:00:00Z"}})");
}

// --- The platform's rule -------------------------------------------------------------------

TEST(RecurrenceRuleEK, RebuildsEveryFieldWithEmptyListsAbsentAndRefusesWhatItCantBuild) {
    const RecurrenceRule rules[] = {
        fromRRule("FREQ=YEARLY;INTERVAL=2;BYDAY=1SU,-1SA;BYMONTH=1,7;BYSETPOS=-1;BYWEEKNO=3;BYYEARDAY=100;COUNT=5"),
        fromRRule("FREQ=MONTHLY;BYMONTHDAY=1,-1;UNTIL=20260101T120000Z"),
        RecurrenceRule(Frequency::weekly, 3),
    };
    for (const auto& rule : rules)
        EXPECT_EQ(RecurrenceRule::fromEK(rule.ekRule()), rule) << rule.description();
    const auto plain = RecurrenceRule(Frequency::daily, 1).ekRule();
    EXPECT_EQ(plain.frequency, EKRecurrenceFrequency::daily);
    EXPECT_FALSE(plain.daysOfTheWeek || plain.daysOfTheMonth || plain.monthsOfTheYear || plain.weeksOfTheYear ||
                 plain.daysOfTheYear || plain.setPositions || plain.recurrenceEnd);

    auto unparsed = RecurrenceRule(Frequency::weekly, 1);
    unparsed.unparsed = "X-A=1";
    EXPECT_EQ(testing::errorText<RestoreError>([&] { unparsed.ekRule(); }), "unsupported recurrence part X-A=1");
    auto badDay = RecurrenceRule(Frequency::weekly, 1);
    badDay.daysOfWeek = {Day{2, 0}, Day{8, 0}};
    EXPECT_EQ(testing::errorText<RestoreError>([&] { badDay.ekRule(); }), "bad weekday 8");
}

TEST(RecurrenceRuleJson, RefusesMissingKeysAndBadEnds) {
    using Case = json::DecodingError::Case;
    auto failure = [](const std::string& text) {
        return testing::caught<json::DecodingError>(
            [&] { RecurrenceRule::fromJson(json::parse(text), json::DateEncoding::secondsSince1970); });
    };
    const std::string lists = R"("daysOfWeek":[],"daysOfMonth":[],"monthsOfYear":[],"weeksOfYear":[],"daysOfYear":[])";

    const auto missing = failure(R"({"frequency":1,"interval":1,)" + lists + "}");
    ASSERT_TRUE(missing);
    EXPECT_EQ(missing->which(), Case::keyNotFound);
    EXPECT_NE(missing->description().find("setPositions"), std::string::npos);

    const auto badFrequency = failure(R"({"frequency":5,"interval":1,)" + lists + R"(,"setPositions":[]})");
    ASSERT_TRUE(badFrequency);
    EXPECT_EQ(badFrequency->which(), Case::dataCorrupted);

    const auto twoEnds = failure(R"({"frequency":1,"interval":1,)" + lists +
                                 R"(,"setPositions":[],"end":{"count":{"_0":1},"until":{"_0":0}}})");
    ASSERT_TRUE(twoEnds);
    EXPECT_EQ(twoEnds->which(), Case::typeMismatch);
    EXPECT_EQ(twoEnds->description(), "Invalid number of keys found, expected one.");
    EXPECT_EQ(twoEnds->codingPath(), "end");

    const auto badDay =
        failure((R"({"frequency":1,"interval":1,"daysOfWeek":[{"weekday":2}],"daysOfMonth":[],"monthsOfYear":[],)"
                 R"("weeksOfYear":[],"daysOfYear":[],"setPositions":[]})"));
    ASSERT_TRUE(badDay);
    EXPECT_EQ(badDay->which(), Case::keyNotFound);
    EXPECT_EQ(badDay->codingPath(), "daysOfWeek[0]");

    // Absent and null optional keys read alike.
    EXPECT_EQ(RecurrenceRule::fromJson(json::parse(R"({"frequency":3,"interval":1,)" + lists +
                                                   R"(,"setPositions":[],"end":null,"unparsed":null})"),
                                       json::DateEncoding::iso8601),
              RecurrenceRule(Frequency::monthly, 1));
}

} // namespace
} // namespace morvane
