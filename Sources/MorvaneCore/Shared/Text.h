#pragma once

#include "MorvanePlatform/TextPieces.h"

#include <string>
#include <string_view>
#include <vector>

// Small text helpers shared by the readers, beside the platform's splitting, trimming and number
// reading (TextPieces.h). Texts are UTF-8 throughout.
namespace morvane::text {

// Whether the bytes are well-formed UTF-8 (no surrogates, no overlong forms).
bool isWellFormedUTF8(std::string_view bytes);

// Decodes bytes as UTF-8, replacing every ill-formed sequence with U+FFFD instead of refusing.
std::string repairedUTF8(std::string_view bytes);

// Splits at line feeds, dropping empty pieces.
std::vector<std::string_view> nonEmptyLines(std::string_view text);

std::string replacingAll(std::string_view text, std::string_view target, std::string_view replacement);

// Upper case by Unicode's full case mapping in the root locale ("straße" gives "STRASSE"), so the
// result doesn't depend on the user's language. ASCII-only text takes a fast path.
std::string uppercased(std::string_view text);

// Whether two texts are equal by Unicode canonical equivalence: "e" followed by a combining acute
// accent equals the precomposed "é". Ill-formed UTF-8 is equal only to the same bytes.
bool canonicallyEqual(std::string_view a, std::string_view b);

} // namespace morvane::text
