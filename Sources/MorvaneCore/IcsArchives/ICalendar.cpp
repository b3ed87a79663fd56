// The reader works line by line without building the unfolded text: a logical line is a view into
// the input unless it was folded, and only then is it copied. Dates are read by a strict reader of
// the fixed digit forms; ICU's Gregorian calendar turns the fields into a moment, so that dates
// agree with every date that the system formats, and ICU's zone database gives the offsets.
#include "MorvaneCore/IcsArchives/ICalendar.h"

#include "MorvaneCore/Shared/Text.h"

#include <memory>
#include <unicode/basictz.h>
#include <unicode/gregocal.h>
#include <unicode/timezone.h>
#include <unordered_map>

namespace morvane {
namespace {

// Calls `emit` with each logical line of `text`, in order.
template <typename Emit> void forEachLine(std::string_view text, Emit&& emit) {
    std::string_view current;
    std::string folded;
    bool hasLine = false;
    bool isFolded = false;
    auto flush = [&] {
        if (hasLine) emit(isFolded ? std::string_view(folded) : current);
    };

    size_t start = 0;
    while (start <= text.size()) {
        const auto newline = text.find('\n', start);
        const auto end = newline == std::string_view::npos ? text.size() : newline;
        auto piece = text.substr(start, end - start);
        // Replacing every CR LF by LF takes exactly one CR from the end of a piece that a LF ends.
        if (newline != std::string_view::npos && !piece.empty() && piece.back() == '\r') piece.remove_suffix(1);
        start = end + 1;

        if (piece.empty()) continue;
        if (hasLine && (piece.front() == ' ' || piece.front() == '\t')) {
            if (!isFolded) {
                folded.assign(current);
                isFolded = true;
            }
            folded.append(piece.substr(1));
            continue;
        }
        flush();
        current = piece;
        hasLine = true;
        isFolded = false;
    }
    flush();
}

std::string_view trimmingBlanks(std::string_view text) { return text::trimming(text, " \t"); }

// Calls `each` with the pieces of a property's head split at ";" outside double quotes, the quotes
// themselves left out, so quoted parameter values keep any ";" or ":" they hold. Heads without
// quotes, nearly all of them, are split without copying.
template <typename Each> void forEachHeadPiece(std::string_view head, bool hasQuotes, Each&& each) {
    if (!hasQuotes) {
        for (size_t start = 0;;) {
            const auto end = head.find(';', start);
            if (end == std::string_view::npos) {
                each(head.substr(start));
                return;
            }
            each(head.substr(start, end - start));
            start = end + 1;
        }
    }
    std::string piece;
    bool inQuotes = false;
    for (const char c : head) {
        if (c == '"') {
            inQuotes = !inQuotes;
        } else if (c == ';' && !inQuotes) {
            each(std::string_view(piece));
            piece.clear();
        } else {
            piece.push_back(c);
        }
    }
    each(std::string_view(piece));
}

} // namespace

std::optional<std::string> ICalProperty::param(std::string_view parameterName) const {
    const auto found = params.find(text::uppercased(parameterName));
    if (found == params.end()) return std::nullopt;
    return found->second;
}

const ICalProperty* ICalComponent::first(std::string_view name) const {
    for (const auto& property : properties) {
        if (property.name == name) return &property;
    }
    return nullptr;
}

std::vector<const ICalProperty*> ICalComponent::all(std::string_view name) const {
    std::vector<const ICalProperty*> found;
    for (const auto& property : properties) {
        if (property.name == name) found.push_back(&property);
    }
    return found;
}

std::vector<const ICalComponent*> ICalComponent::components(std::string_view name) const {
    std::vector<const ICalComponent*> found;
    for (const auto& child : children) {
        if (child.name() == name) found.push_back(&child);
    }
    return found;
}

namespace ICalParser {

std::vector<ICalComponent> parse(std::string_view text) {
    std::vector<ICalComponent> results;
    std::vector<ICalComponent> open;
    // Components opened beyond the depth cap, still open: their lines are passed over.
    size_t skippedDepth = 0;

    forEachLine(text, [&](std::string_view line) {
        auto property = parseLine(line);
        if (!property) return;
        if (property->name == "BEGIN") {
            if (skippedDepth > 0 || open.size() >= maximumDepth) {
                ++skippedDepth;
                return;
            }
            open.emplace_back(text::uppercased(property->value));
        } else if (property->name == "END") {
            // Any END closes the innermost component, whatever it names.
            if (skippedDepth > 0) {
                --skippedDepth;
                return;
            }
            if (open.empty()) return;
            auto closed = std::move(open.back());
            open.pop_back();
            if (open.empty()) {
                results.push_back(std::move(closed));
            } else {
                open.back().children.push_back(std::move(closed));
            }
        } else if (skippedDepth == 0 && !open.empty()) {
            open.back().properties.push_back(std::move(*property));
        }
    });
    return results;
}

std::vector<std::string> unfold(std::string_view text) {
    std::vector<std::string> lines;
    forEachLine(text, [&](std::string_view line) { lines.emplace_back(line); });
    return lines;
}

std::optional<ICalProperty> parseLine(std::string_view line) {
    if (line.empty()) return std::nullopt;

    // The head ends at the first colon outside double quotes.
    bool inQuotes = false;
    bool hasQuotes = false;
    size_t colon = std::string_view::npos;
    for (size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '"') {
            inQuotes = !inQuotes;
            hasQuotes = true;
        } else if (line[i] == ':' && !inQuotes) {
            colon = i;
            break;
        }
    }
    if (colon == std::string_view::npos) return std::nullopt;

    ICalProperty property;
    property.value = std::string(line.substr(colon + 1));
    bool isName = true;
    forEachHeadPiece(line.substr(0, colon), hasQuotes, [&](std::string_view piece) {
        if (isName) {
            property.name = text::uppercased(piece);
            isName = false;
            return;
        }
        // Only NAME=value with both sides counts; later "=" belong to the value.
        const auto equals = piece.find('=');
        if (equals == std::string_view::npos || equals == 0 || equals + 1 == piece.size()) return;
        property.params.insert_or_assign(text::uppercased(piece.substr(0, equals)),
                                         std::string(piece.substr(equals + 1)));
    });
    if (const auto dot = property.name.rfind('.'); dot != std::string::npos) property.name.erase(0, dot + 1);
    return property;
}

std::string text(std::string_view value) {
    std::string result;
    result.reserve(value.size());
    for (size_t i = 0; i < value.size(); ++i) {
        if (value[i] != '\\') {
            result.push_back(value[i]);
            continue;
        }
        if (++i == value.size()) break;
        const char escaped = value[i];
        result.push_back(escaped == 'n' || escaped == 'N' ? '\n' : escaped);
    }
    return result;
}

} // namespace ICalParser

namespace {

constexpr std::string_view unknownZoneID = "Etc/Unknown";

struct Fields {
    int32_t year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
};

bool readDigits(std::string_view text, size_t at, size_t count, int32_t& into) {
    int32_t value = 0;
    for (size_t i = at; i < at + count; ++i) {
        const char c = text[i];
        if (c < '0' || c > '9') return false;
        value = value * 10 + (c - '0');
    }
    into = value;
    return true;
}

// yyyyMMdd, then 'T'HHmmss when `withTime`; the caller has checked the length.
std::optional<Fields> readFields(std::string_view text, bool withTime) {
    Fields fields;
    if (!readDigits(text, 0, 4, fields.year) || !readDigits(text, 4, 2, fields.month) ||
        !readDigits(text, 6, 2, fields.day)) {
        return std::nullopt;
    }
    if (withTime && (text[8] != 'T' || !readDigits(text, 9, 2, fields.hour) ||
                     !readDigits(text, 11, 2, fields.minute) || !readDigits(text, 13, 2, fields.second))) {
        return std::nullopt;
    }
    return fields;
}

icu::UnicodeString unicode(std::string_view text) {
    return icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
}

// The wall-clock reading of `fields` counted as UTC, in ICU's milliseconds since 1970, through the
// same Gregorian calendar that formats dates (Julian before October 1582). Field values out of
// range, such as a 13th month, 30 February or a 60th second, give nothing.
std::optional<UDate> wallClockAsUTC(const Fields& fields) {
    thread_local std::unique_ptr<icu::GregorianCalendar> calendar = [] {
        UErrorCode status = U_ZERO_ERROR;
        auto made = std::make_unique<icu::GregorianCalendar>(icu::TimeZone::getGMT()->clone(),
                                                             icu::Locale("en_US_POSIX"), status);
        if (U_FAILURE(status)) return std::unique_ptr<icu::GregorianCalendar>();
        made->setLenient(false);
        return made;
    }();
    if (!calendar) return std::nullopt;
    calendar->clear();
    calendar->set(fields.year, fields.month - 1, fields.day, fields.hour, fields.minute, fields.second);
    UErrorCode status = U_ZERO_ERROR;
    const UDate result = calendar->getTime(status);
    if (U_FAILURE(status)) return std::nullopt;
    return result;
}

// The zone of an identifier of the zone database, looked up once per thread. Unknown identifiers
// are remembered too, as null; the cache is emptied when hostile input fills it.
const icu::TimeZone* zoneNamed(std::string_view identifier) {
    thread_local std::unordered_map<std::string, std::unique_ptr<icu::TimeZone>> cache;
    constexpr size_t cacheLimit = 256;
    std::string key(identifier);
    if (const auto found = cache.find(key); found != cache.end()) return found->second.get();
    if (cache.size() >= cacheLimit) cache.clear();

    std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::createTimeZone(unicode(identifier)));
    icu::UnicodeString id;
    if (zone) zone->getID(id);
    if (!zone || id == unicode(unknownZoneID)) zone.reset();
    return cache.emplace(std::move(key), std::move(zone)).first->second.get();
}

std::string identifierOf(const icu::TimeZone& zone) {
    icu::UnicodeString id;
    zone.getID(id);
    std::string result;
    id.toUTF8String(result);
    return result;
}

// The offset from UTC, in milliseconds, of a wall-clock time in `zone`.
int32_t offsetOfLocalTime(const icu::TimeZone& zone, UDate local) {
    UErrorCode status = U_ZERO_ERROR;
    int32_t raw = 0;
    int32_t dst = 0;
    if (const auto* basic = dynamic_cast<const icu::BasicTimeZone*>(&zone)) {
        // A skipped time is read with the offset from before the change (02:30 on the day clocks
        // go forward is 03:30 in summer time); a repeated time as the later one.
        basic->getOffsetFromLocal(local, UCAL_TZ_LOCAL_FORMER, UCAL_TZ_LOCAL_LATTER, raw, dst, status);
    } else {
        zone.getOffset(local, true, raw, dst, status);
    }
    if (U_FAILURE(status)) return 0;
    return raw + dst;
}

Date dateFromUDate(UDate milliseconds) { return Date::fromSecondsSince1970(milliseconds / 1000.0); }

} // namespace

std::optional<ICalDate> ICalDate::parse(std::string_view value, std::optional<std::string_view> tzid) {
    value = trimmingBlanks(value);

    if (value.size() == 8) {
        const auto fields = readFields(value, false);
        if (!fields) return std::nullopt;
        const auto local = wallClockAsUTC(*fields);
        if (!local) return std::nullopt;
        return ICalDate{dateFromUDate(*local), true, std::nullopt};
    }

    if (!value.empty() && value.back() == 'Z') {
        if (value.size() != 16) return std::nullopt;
        const auto fields = readFields(value, true);
        if (!fields) return std::nullopt;
        const auto instant = wallClockAsUTC(*fields);
        if (!instant) return std::nullopt;
        return ICalDate{dateFromUDate(*instant), false, std::string("UTC")};
    }

    if (value.size() != 15) return std::nullopt;
    const auto fields = readFields(value, true);
    if (!fields) return std::nullopt;
    const auto local = wallClockAsUTC(*fields);
    if (!local) return std::nullopt;

    const icu::TimeZone* zone = nullptr;
    if (tzid) {
        zone = zoneNamed(*tzid);
        if (!zone) {
            if (const auto mapped = windowsZone(*tzid)) zone = zoneNamed(*mapped);
        }
    }
    if (!zone) return ICalDate{dateFromUDate(*local), false, std::nullopt};
    return ICalDate{dateFromUDate(*local - offsetOfLocalTime(*zone, *local)), false, identifierOf(*zone)};
}

std::optional<std::string> ICalDate::windowsZone(std::string_view name) {
    static constexpr std::pair<std::string_view, std::string_view> table[] = {
        {"Pacific Standard Time", "America/Los_Angeles"}, {"Mountain Standard Time", "America/Denver"},
        {"Central Standard Time", "America/Chicago"},     {"Eastern Standard Time", "America/New_York"},
        {"GMT Standard Time", "Europe/London"},           {"UTC", "UTC"},
    };
    for (const auto& [windows, zone] : table) {
        if (name == windows) return std::string(zone);
    }
    return std::nullopt;
}

std::optional<std::int64_t> iCalDuration(std::string_view text) {
    text = trimmingBlanks(text);
    std::int64_t sign = 1;
    if (!text.empty() && (text.front() == '-' || text.front() == '+')) {
        if (text.front() == '-') sign = -1;
        text.remove_prefix(1);
    }
    if (text.empty() || text.front() != 'P') return std::nullopt;
    text.remove_prefix(1);

    std::int64_t total = 0;
    std::string digits;
    bool inTimePart = false;
    for (const char c : text) {
        if (c == 'T') {
            inTimePart = true;
            continue;
        }
        if (c >= '0' && c <= '9') {
            digits.push_back(c);
            continue;
        }
        const auto number = text::integer(digits);
        digits.clear();
        if (!number) return std::nullopt;
        std::int64_t unit = 0;
        if (!inTimePart && c == 'W')
            unit = 604800;
        else if (!inTimePart && c == 'D')
            unit = 86400;
        else if (inTimePart && c == 'H')
            unit = 3600;
        else if (inTimePart && c == 'M')
            unit = 60;
        else if (inTimePart && c == 'S')
            unit = 1;
        else
            return std::nullopt;
        std::int64_t seconds = 0;
        if (__builtin_mul_overflow(*number, unit, &seconds) || __builtin_add_overflow(total, seconds, &total)) {
            return std::nullopt;
        }
    }
    if (!digits.empty()) return std::nullopt;
    return sign * total;
}

} // namespace morvane
