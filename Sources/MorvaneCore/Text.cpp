#include "MorvaneCore/Text.h"

#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utf8.h>

namespace morvane::text {
namespace {

bool isWhitespaceOrNewline(UChar32 c) {
    if ((c >= 0x09 && c <= 0x0D) || c == 0x85) return true;
    const auto category = u_charType(c);
    return category == U_SPACE_SEPARATOR || category == U_LINE_SEPARATOR || category == U_PARAGRAPH_SEPARATOR;
}

} // namespace

bool isWellFormedUTF8(std::string_view bytes) {
    const auto* data = reinterpret_cast<const uint8_t*>(bytes.data());
    const auto length = static_cast<int32_t>(bytes.size());
    int32_t offset = 0;
    while (offset < length) {
        if (data[offset] < 0x80) {
            ++offset;
            continue;
        }
        UChar32 c = 0;
        U8_NEXT(data, offset, length, c);
        if (c < 0) return false;
    }
    return true;
}

std::string repairedUTF8(std::string_view bytes) {
    // Nearly all text is well-formed already: only broken text takes the round trip through ICU.
    if (isWellFormedUTF8(bytes)) return std::string(bytes);
    std::string result;
    icu::UnicodeString::fromUTF8(icu::StringPiece(bytes.data(), static_cast<int32_t>(bytes.size())))
        .toUTF8String(result);
    return result;
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

std::vector<std::string_view> nonEmptyLines(std::string_view text) {
    std::vector<std::string_view> lines;
    size_t start = 0;
    while (start <= text.size()) {
        const auto end = std::min(text.find('\n', start), text.size());
        if (end > start) lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

std::string replacingAll(std::string_view text, std::string_view target, std::string_view replacement) {
    if (target.empty()) return std::string(text);
    std::string result;
    size_t start = 0;
    for (size_t found = text.find(target); found != std::string_view::npos; found = text.find(target, start)) {
        result.append(text.substr(start, found - start)).append(replacement);
        start = found + target.size();
    }
    result.append(text.substr(start));
    return result;
}

} // namespace morvane::text
