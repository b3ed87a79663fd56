#pragma once

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

} // namespace morvane::text
