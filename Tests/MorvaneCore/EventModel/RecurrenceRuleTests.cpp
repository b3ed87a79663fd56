#include "MorvaneCore/EventModel/RecurrenceRule.h"
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

RecurrenceRule fromSpecifier(std::string_view specifier) {
    return *RecurrenceRule::fromDatabase(2, 1, 0, std::nullopt, specifier);
}

RecurrenceRule fromRRule(std::string_view rrule, std::optional<std::string_view> tzid = std::nullopt) {
    auto rule = RecurrenceRule::fromRRule(rrule, tzid);
    EXPECT_TRUE(rule) << rrule;
    return rule.value_or(RecurrenceRule(Frequency::daily, 1));
}

// --- Database columns and RRULE text ------------------------------------------------------------

TEST(RecurrenceRuleFromDatabase, NeedsAKnownFrequencyAndCountWinsOverTheEndDate) {
    EXPECT_EQ(RecurrenceRule::fromDatabase(0, 1, 0, std::nullopt, std::nullopt), std::nullopt);
    EXPECT_EQ(RecurrenceRule::fromDatabase(5, 1, 0, std::nullopt, std::nullopt), std::nullopt);
    EXPECT_EQ(RecurrenceRule::fromDatabase(1, 0, 0, std::nullopt, std::nullopt)->description(), "FREQ=DAILY");
    EXPECT_EQ(RecurrenceRule::fromDatabase(4, 1, 0, std::nullopt, std::nullopt)->frequency, Frequency::yearly);
    EXPECT_EQ(RecurrenceRule::fromDatabase(1, 1, 3, 800000000.0, std::nullopt)->end, End::count(3));
    EXPECT_EQ(RecurrenceRule::fromDatabase(1, 1, 0, 800000000.5, std::nullopt)->end, End::until(Date{800000000.5}));
    EXPECT_EQ(RecurrenceRule::fromDatabase(1, 1, -2, 800000000.0, std::nullopt)->end, End::until(Date{800000000.0}));
    EXPECT_EQ(RecurrenceRule::fromDatabase(1, 1, 0, std::nullopt, std::nullopt)->end, std::nullopt);
    // Larger values are damage, and the event store holds the same bounds.
    const auto huge = RecurrenceRule::fromDatabase(1, INT64_MAX, INT64_MAX, std::nullopt, std::nullopt);
    EXPECT_EQ(huge->interval, 1'000'000);
    EXPECT_EQ(huge->end, End::count(1'000'000'000));
}

// Read back through the description, which names every part (its own test pins its form).
TEST(RecurrenceRuleFromDatabase, ReadsTheSpecifierAndKeepsEveryMalformedPieceInUnparsed) {
    const std::pair<const char*, const char*> cases[] = {
        {"D=0MO,0WE;M=15", "FREQ=WEEKLY;BYDAY=MO,WE;BYMONTHDAY=15"},
        // Several D pieces add up, then sorted; empty pieces vanish.
        {";;O=12,3;W=-1,20;Y=100,-1;S=-1,1;D=+2WE;D=-1FR,1MO;",
         "FREQ=WEEKLY;BYDAY=-1FR,1MO,2WE;BYMONTH=3,12;BYWEEKNO=-1,20;BYYEARDAY=-1,100;BYSETPOS=-1,1"},
        {"D=MO", "FREQ=WEEKLY;X-UNPARSED=D=MO"},
        // Bad days go one by one, in order; good ones beside them stay.
        {"D=1mo,1MO,xTU,1XX,-FR", "FREQ=WEEKLY;BYDAY=1MO;X-UNPARSED=D=1mo;D=xTU;D=1XX;D=-FR"},
        // Unknown or lower-case keys and pieces without two sides are kept whole, as they stand; a
        // piece is split at its first "=" only.
        {"d=1MO;Q=1;M=;=3;X", "FREQ=WEEKLY;X-UNPARSED=d=1MO;Q=1;M=;=3;X"},
        {"DD=1MO", "FREQ=WEEKLY;X-UNPARSED=DD=1MO"},
        {"D=1MO=2", "FREQ=WEEKLY;X-UNPARSED=D=1MO=2"},
        // The platform's rule holds 32-bit weeks: a larger one doesn't read.
        {"D=2147483648MO,-2147483648TU", "FREQ=WEEKLY;BYDAY=-2147483648TU;X-UNPARSED=D=2147483648MO"},
        // Unreadable integers go silently; the last piece of a key wins.
        {"M=1,x,3", "FREQ=WEEKLY;BYMONTHDAY=1,3"},
        {"M=1,2;M=9", "FREQ=WEEKLY;BYMONTHDAY=9"},
        {"M=5,,+6,1.5, 7,99999999999,99999999999999999999", "FREQ=WEEKLY;BYMONTHDAY=5,6"},
    };
    for (const auto& [specifier, description] : cases)
        EXPECT_EQ(fromSpecifier(specifier).description(), description) << specifier;
}

TEST(RecurrenceRuleFromRRule, ReadsPartsKeepsTheRestSortedAndReadsUntilInTheRulesZone) {
    for (const char* bad : {"", "INTERVAL=2", "FREQ=HOURLY", "FREQ=", "FREQ=DAILY;FREQ=SECONDLY", "FREQ = DAILY"}) {
        EXPECT_EQ(RecurrenceRule::fromRRule(bad), std::nullopt) << bad;
    }
    const struct {
        const char* rrule;
        const char* zone;
        const char* description;
    } cases[] = {
        {"freq=weekly;byday=mo", nullptr, "FREQ=WEEKLY;BYDAY=MO"},
        {"FREQ=SECONDLY;FREQ=Monthly", nullptr, "FREQ=MONTHLY"}, // the last value counts
        {"FREQ=MONTHLY;INTERVAL=3;BYDAY=1mo,-1FR,+2we,TU;BYMONTHDAY=15,1;BYMONTH=12,x,6;BYWEEKNO=5;BYYEARDAY=-1;"
         "BYSETPOS=-1,,2",
         nullptr,
         "FREQ=MONTHLY;INTERVAL=3;BYDAY=-1FR,TU,1MO,2WE;BYMONTHDAY=1,15;BYMONTH=6,12;BYWEEKNO=5;BYYEARDAY=-1;"
         "BYSETPOS=-1,2"},
        {"FREQ=DAILY;INTERVAL=0", nullptr, "FREQ=DAILY"},
        {"FREQ=DAILY;INTERVAL=-2", nullptr, "FREQ=DAILY"},
        {"FREQ=DAILY;INTERVAL=two", nullptr, "FREQ=DAILY"},
        {"FREQ=DAILY;INTERVAL=1.5", nullptr, "FREQ=DAILY"},
        // Bad days first, then unknown keys sorted; valueless pieces vanish; a repeated key keeps
        // its last value.
        {"FREQ=WEEKLY;FOO=1;BAR=2;WKST=MO", nullptr, "FREQ=WEEKLY;X-UNPARSED=BAR=2;FOO=1"},
        {"FREQ=WEEKLY;x-name=a=b;BYDAY=M,1XX,x1MO,MO;BYHOUR=9", nullptr,
         "FREQ=WEEKLY;BYDAY=MO;X-UNPARSED=BYDAY=M;BYDAY=1XX;BYDAY=x1MO;BYHOUR=9;X-NAME=a=b"},
        {"FREQ=DAILY;BYHOUR=;;=5;JUNK", nullptr, "FREQ=DAILY"},
        {"FREQ=DAILY;X-A=1;x-a=2", nullptr, "FREQ=DAILY;X-UNPARSED=X-A=2"},
        // The count wins; an unreadable one leaves the until date to decide, and a date-only until
        // ends with its day.
        {"FREQ=DAILY;COUNT=0", nullptr, "FREQ=DAILY;COUNT=0"},
        {"FREQ=DAILY;COUNT=-4;UNTIL=20260101", nullptr, "FREQ=DAILY;COUNT=-4"},
        {"FREQ=DAILY;COUNT=abc;UNTIL=20260101", nullptr, "FREQ=DAILY;UNTIL=2026-01-01T23:59:59Z"},
        {"FREQ=DAILY;UNTIL=20260101T120000Z", "Europe/Berlin", "FREQ=DAILY;UNTIL=2026-01-01T12:00:00Z"},
        {"FREQ=DAILY;UNTIL=20260101T120000", "Europe/Berlin", "FREQ=DAILY;UNTIL=2026-01-01T11:00:00Z"},
        {"FREQ=DAILY;UNTIL=20260101T120000", nullptr, "FREQ=DAILY;UNTIL=2026-01-01T12:00:00Z"},
        {"FREQ=DAILY;UNTIL=2026-01-01", nullptr, "FREQ=DAILY"},
    };
    for (const auto& [rrule, zone, description] : cases) {
        const auto tzid = zone ? std::optional<std::string_view>(zone) : std::nullopt;
        EXPECT_EQ(fromRRule(rrule, tzid).description(), description) << rrule;
    }
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

} // namespace
} // namespace morvane
