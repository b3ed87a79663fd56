#include "MorvaneCore/Shared/Text.h"

#include <unicode/locid.h>
#include <unicode/normalizer2.h>
#include <unicode/unistr.h>
#include <unicode/utf8.h>

#include <algorithm>

namespace morvane::text {
namespace {

bool isASCII(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

bool isWellFormed(std::string_view text) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
    const auto length = static_cast<int32_t>(text.size());
    for (int32_t i = 0; i < length;) {
        UChar32 c = 0;
        U8_NEXT(bytes, i, length, c);
        if (c < 0) return false;
    }
    return true;
}

icu::UnicodeString unicode(std::string_view text) {
    return icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
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

std::string uppercased(std::string_view text) {
    std::string result(text);
    for (auto& c : result) {
        if (static_cast<unsigned char>(c) >= 0x80) {
            result.clear();
            unicode(text).toUpper(icu::Locale::getRoot()).toUTF8String(result);
            return result;
        }
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    return result;
}

bool canonicallyEqual(std::string_view a, std::string_view b) {
    if (a == b) return true;
    // Pure ASCII is its own canonical form: different bytes are different texts.
    if (isASCII(a) && isASCII(b)) return false;
    // Ill-formed text would compare as its repaired form, in which different bytes can look alike:
    // such text is only equal to the very same bytes.
    if (!isWellFormed(a) || !isWellFormed(b)) return false;
    UErrorCode status = U_ZERO_ERROR;
    const auto* nfd = icu::Normalizer2::getNFDInstance(status);
    if (U_FAILURE(status)) return false;
    const auto left = nfd->normalize(unicode(a), status);
    const auto right = nfd->normalize(unicode(b), status);
    return U_SUCCESS(status) && left == right;
}

} // namespace morvane::text
