#include "MorvaneCore/TimeZones.h"

#include <memory>
#include <unicode/timezone.h>

namespace morvane::zones {
namespace {

std::unique_ptr<icu::TimeZone> knownZone(std::string_view zoneID) {
    const auto id = icu::UnicodeString::fromUTF8(icu::StringPiece(zoneID.data(), static_cast<int32_t>(zoneID.size())));
    std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::createTimeZone(id));
    if (!zone || *zone == icu::TimeZone::getUnknown()) return nullptr;
    return zone;
}

int offsetSeconds(const icu::TimeZone& zone, Date date) {
    int32_t raw = 0;
    int32_t daylight = 0;
    UErrorCode status = U_ZERO_ERROR;
    zone.getOffset(date.secondsSince1970() * 1000.0, false, raw, daylight, status);
    if (U_FAILURE(status)) return 0;
    return (raw + daylight) / 1000;
}

} // namespace

bool isKnown(std::string_view zoneID) { return knownZone(zoneID) != nullptr; }

std::optional<int> secondsFromGMT(std::string_view zoneID, Date date) {
    const auto zone = knownZone(zoneID);
    if (!zone) return std::nullopt;
    return offsetSeconds(*zone, date);
}

int currentSecondsFromGMT(Date date) {
    const std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::createDefault());
    return zone ? offsetSeconds(*zone, date) : 0;
}

Date instantOfWallClock(Date wallClock) {
    const Date guess{wallClock.seconds - currentSecondsFromGMT(wallClock)};
    return {wallClock.seconds - currentSecondsFromGMT(guess)};
}

Date wallClockOfInstant(Date instant) { return {instant.seconds + currentSecondsFromGMT(instant)}; }

} // namespace morvane::zones
