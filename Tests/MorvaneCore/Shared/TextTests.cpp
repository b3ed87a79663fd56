#include "MorvaneCore/Shared/Text.h"
#include "Support/Pinned.h"

#include <cstdint>
#include <gtest/gtest.h>

namespace morvane {
namespace {

TEST(Text, RepairsIllFormedUTF8InsteadOfRefusingIt) {
    EXPECT_EQ(text::repairedUTF8("Jane\xe2\x80\x99s"), "Jane\u2019s");
    EXPECT_EQ(text::repairedUTF8("a\xff"
                                 "b"),
              "a\uFFFD"
              "b");
    // A truncated three-byte sequence is one maximal subpart: one replacement character.
    EXPECT_EQ(text::repairedUTF8("x\xe2\x80"), "x\uFFFD");
    EXPECT_EQ(text::repairedUTF8("\xc0\xaf"), "\uFFFD\uFFFD");
    EXPECT_EQ(text::repairedUTF8(std::string("nul\0inside", 10)), std::string("nul\0inside", 10));
}

TEST(Text, TrimsUnicodeWhitespaceAndLineEnds) {
    EXPECT_EQ(text::trimmingWhitespaceAndNewlines(" \t\r\n mount_apfs: failed \n"), "mount_apfs: failed");
    EXPECT_EQ(text::trimmingWhitespaceAndNewlines("\u00A0\u2028\u3000x y\u0085\u202F"), "x y");
    EXPECT_EQ(text::trimmingWhitespaceAndNewlines("\u200Bx"), "\u200Bx"); // zero width space is no space
    EXPECT_EQ(text::trimmingWhitespaceAndNewlines(" \n "), "");
    EXPECT_EQ(text::trimmingWhitespaceAndNewlines("\xff "), "\xff");
}

TEST(Text, SplitsAtLineFeedsDroppingEmptyLines) {
    EXPECT_EQ(text::nonEmptyLines("a\n\nb\r\n\n"), (std::vector<std::string_view>{"a", "b\r"}));
    EXPECT_TRUE(text::nonEmptyLines("").empty());
    EXPECT_TRUE(text::nonEmptyLines("\n\n").empty());
}

TEST(Text, ReadsPlainDecimalsAndNothingAroundThem) {
    EXPECT_EQ(text::integer("42"), 42);
    EXPECT_EQ(text::integer("+7"), 7);
    EXPECT_EQ(text::integer("-0"), 0);
    EXPECT_EQ(text::integer("-9223372036854775808"), INT64_MIN);
    EXPECT_EQ(text::integer("9223372036854775807"), INT64_MAX);
    for (const char* bad :
         {"", "+", "-", "9223372036854775808", "-9223372036854775809", " 1", "1 ", "1.0", "0x1", "--1", "\u0661"}) {
        EXPECT_EQ(text::integer(bad), std::nullopt) << bad;
    }
    EXPECT_EQ(text::realNumber("7.5e+08"), 7.5e8);
    EXPECT_EQ(text::realNumber("-0.25"), -0.25);
    const std::string tiny = "0." + std::string(400, '0') + "1";
    for (const std::string bad : {"", "1e400", tiny.c_str(), "nan", "inf", "+1", " 1", "1 ", "1,5", "0x10", "."}) {
        EXPECT_EQ(text::realNumber(bad), std::nullopt) << bad;
    }
}

TEST(Text, UppercasesByFullCaseMappingWhateverTheLocale) {
    EXPECT_EQ(text::uppercased("begin:vEvent"), "BEGIN:VEVENT");
    EXPECT_EQ(text::uppercased("stra\u00DFe"), "STRASSE");
    testing::ScopedLocale turkish("tr_TR");
    EXPECT_EQ(text::uppercased("x-wr-timezone \u00E9"), "X-WR-TIMEZONE \u00C9");
}

TEST(Text, ComparesByCanonicalEquivalence) {
    EXPECT_TRUE(text::canonicallyEqual("Caf\u00E9", "Cafe\u0301"));
    EXPECT_TRUE(text::canonicallyEqual("\u212B", "\u00C5")); // Angstrom sign and A with ring
    EXPECT_FALSE(text::canonicallyEqual("\uFB01", "fi"));    // compatibility only
    EXPECT_FALSE(text::canonicallyEqual("a", "A"));
    EXPECT_TRUE(text::canonicallyEqual("", ""));
    // Two different ill-formed sequences would both repair to U+FFFD.
    EXPECT_FALSE(text::canonicallyEqual("\xff\u00E9", "\xfe\u00E9"));
    EXPECT_TRUE(text::canonicallyEqual("\xff\u00E9", "\xff\u00E9"));
}

} // namespace
} // namespace morvane
