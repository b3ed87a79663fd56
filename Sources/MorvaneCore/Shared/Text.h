#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Small text helpers shared by the readers. Texts are UTF-8 throughout.
namespace morvane::text {

// Whether the bytes are well-formed UTF-8 (no surrogates, no overlong forms).
bool isWellFormedUTF8(std::string_view bytes);

// Decodes bytes as UTF-8, replacing every ill-formed sequence with U+FFFD instead of refusing.
std::string repairedUTF8(std::string_view bytes);

// Trims Unicode white space and line ends (general categories Zs, Zl, Zp, U+0009 to U+000D and
// U+0085) from both ends.
std::string_view trimmingWhitespaceAndNewlines(std::string_view text);

// Trims any of the given ASCII `characters` from both ends.
std::string_view trimming(std::string_view text, std::string_view characters);

// Splits at line feeds, dropping empty pieces.
std::vector<std::string_view> nonEmptyLines(std::string_view text);

std::string replacingAll(std::string_view text, std::string_view target, std::string_view replacement);

// Upper case by Unicode's full case mapping in the root locale ("straße" gives "STRASSE"), so the
// result doesn't depend on the user's language. ASCII-only text takes a fast path.
std::string uppercased(std::string_view text);

// Whether two texts are equal by Unicode canonical equivalence: "e" followed by a combining acute
// accent equals the precomposed "é". Ill-formed UTF-8 is equal only to the same bytes.
bool canonicallyEqual(std::string_view a, std::string_view b);

// A plain signed 64-bit decimal: an optional "+" or "-", then one or more ASCII digits and
// nothing else. Out-of-range values give nothing.
std::optional<std::int64_t> integer(std::string_view text);

// Splits at every `separator`, dropping empty pieces.
std::vector<std::string_view> nonEmptyPieces(std::string_view text, char separator);

// Splits at the first `separator` and drops an empty side: "a=b" gives {"a", "b"}, "a=" and
// "=b" give one side, "=" none. Later separators stay in the second side.
std::vector<std::string_view> splittingOnce(std::string_view text, char separator);

} // namespace morvane::text
