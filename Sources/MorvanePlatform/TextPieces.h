#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

// Splitting, trimming and reading numbers out of stored text: what every reader of the calendar
// database's text needs, from the platform's event store up to the core's parsers. Texts are
// UTF-8; nothing here throws on any input. Any thread, concurrently.
namespace morvane::text {

// A plain signed 64-bit decimal: an optional "+" or "-", then one or more ASCII digits and
// nothing else. Out-of-range values give nothing.
std::optional<std::int64_t> integer(std::string_view text);

// A decimal number as `%.17g` writes it ("-1.5", "7.5e+08"), with nothing around it; nothing
// for anything else, for infinities and NaN included.
std::optional<double> realNumber(std::string_view text);

// Splits at every `separator`, dropping empty pieces.
std::vector<std::string_view> nonEmptyPieces(std::string_view text, char separator);

// Splits at the first `separator` and drops an empty side: "a=b" gives {"a", "b"}, "a=" and
// "=b" give one side, "=" none. Later separators stay in the second side.
std::vector<std::string_view> splittingOnce(std::string_view text, char separator);

// Trims Unicode white space and line ends (general categories Zs, Zl, Zp, U+0009 to U+000D and
// U+0085) from both ends.
std::string_view trimmingWhitespaceAndNewlines(std::string_view text);

// Trims any of the given ASCII `characters` from both ends.
std::string_view trimming(std::string_view text, std::string_view characters);

} // namespace morvane::text
