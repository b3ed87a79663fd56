#include "MorvaneCore/Text.h"

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

TEST(Text, ReplacesEveryOccurrence) {
    EXPECT_EQ(text::replacingAll("2024-03-01-101500.backup.backup", ".backup", ""), "2024-03-01-101500");
    EXPECT_EQ(text::replacingAll("aaa", "aa", "b"), "ba");
    EXPECT_EQ(text::replacingAll("abc", "", "x"), "abc");
}

} // namespace
} // namespace morvane
