#include "MorvanePlatform/TextPieces.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <unicode/uchar.h>
#include <unicode/utf8.h>

namespace morvane::text {
namespace {

bool isWhitespaceOrNewline(UChar32 c) {
    if ((c >= 0x09 && c <= 0x0D) || c == 0x85) return true;
    const auto category = u_charType(c);
    return category == U_SPACE_SEPARATOR || category == U_LINE_SEPARATOR || category == U_PARAGRAPH_SEPARATOR;
}

} // namespace

std::optional<std::int64_t> integer(std::string_view text) {
    bool negative = false;
    if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    if (text.empty()) return std::nullopt;
    // Accumulated as a negative number, whose range holds the minimum.
    constexpr auto minimum = std::numeric_limits<std::int64_t>::min();
    std::int64_t value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        const int digit = c - '0';
        if (value < (minimum + digit) / 10) return std::nullopt;
        value = value * 10 - digit;
    }
    if (negative) return value;
    if (value == minimum) return std::nullopt;
    return -value;
}

std::optional<double> realNumber(std::string_view text) {
    // from_chars reads no leading "+" and no blanks, and never throws: a damaged value is just
    // not a number.
    double value = 0;
    const auto* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value, std::chars_format::general);
    if (error != std::errc() || stop != end || !std::isfinite(value)) return std::nullopt;
    return value;
}

std::vector<std::string_view> nonEmptyPieces(std::string_view text, char separator) {
    std::vector<std::string_view> pieces;
    size_t start = 0;
    while (start <= text.size()) {
        const auto end = std::min(text.find(separator, start), text.size());
        if (end > start) pieces.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return pieces;
}

std::vector<std::string_view> splittingOnce(std::string_view text, char separator) {
    const auto at = text.find(separator);
    if (at == std::string_view::npos) {
        if (text.empty()) return {};
        return {text};
    }
    std::vector<std::string_view> sides;
    if (at > 0) sides.push_back(text.substr(0, at));
    if (at + 1 < text.size()) sides.push_back(text.substr(at + 1));
    return sides;
}

std::string_view trimmingWhitespaceAndNewlines(std::string_view text) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
    const auto length = static_cast<int32_t>(text.size());

    int32_t start = 0;
    while (start < length) {
        int32_t next = start;
        UChar32 c = 0;
        U8_NEXT(bytes, next, length, c);
        if (c < 0 || !isWhitespaceOrNewline(c)) break;
        start = next;
    }
    int32_t end = length;
    while (end > start) {
        int32_t previous = end;
        UChar32 c = 0;
        U8_PREV(bytes, start, previous, c);
        if (c < 0 || !isWhitespaceOrNewline(c)) break;
        end = previous;
    }
    return text.substr(static_cast<size_t>(start), static_cast<size_t>(end - start));
}

std::string_view trimming(std::string_view text, std::string_view characters) {
    const auto first = text.find_first_not_of(characters);
    if (first == std::string_view::npos) return {};
    const auto last = text.find_last_not_of(characters);
    return text.substr(first, last - first + 1);
}

} // namespace morvane::text
