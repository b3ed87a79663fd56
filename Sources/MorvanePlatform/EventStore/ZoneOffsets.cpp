#include "MorvanePlatform/EventStore/ZoneOffsets.h"

#include "MorvanePlatform/CalendarDates.h"

#include <limits>
#include <unicode/basictz.h>
#include <unicode/tztrans.h>

namespace morvane {
namespace {

std::unique_ptr<icu::BasicTimeZone> basic(icu::TimeZone* zone) {
    if (auto* cast = dynamic_cast<icu::BasicTimeZone*>(zone)) return std::unique_ptr<icu::BasicTimeZone>(cast);
    delete zone;
    return nullptr;
}

std::unique_ptr<icu::BasicTimeZone> zoneNamed(std::string_view zoneID) {
    const auto id = icu::UnicodeString::fromUTF8(icu::StringPiece(zoneID.data(), static_cast<int32_t>(zoneID.size())));
    auto zone = basic(icu::TimeZone::createTimeZone(id));
    if (zone && *zone == icu::TimeZone::getUnknown()) return nullptr;
    return zone;
}

} // namespace

ZoneOffsets::ZoneOffsets(std::string_view zoneID) : zone_(zoneNamed(zoneID)) {}
ZoneOffsets::ZoneOffsets(std::unique_ptr<icu::BasicTimeZone> zone) : zone_(std::move(zone)) {}
ZoneOffsets::~ZoneOffsets() = default;
ZoneOffsets::ZoneOffsets(ZoneOffsets&&) noexcept = default;
ZoneOffsets& ZoneOffsets::operator=(ZoneOffsets&&) noexcept = default;

ZoneOffsets ZoneOffsets::current() { return ZoneOffsets(basic(icu::TimeZone::createDefault())); }

std::string ZoneOffsets::currentIdentifier() {
    const std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::createDefault());
    icu::UnicodeString id;
    zone->getID(id);
    std::string text;
    id.toUTF8String(text);
    return text;
}

bool ZoneOffsets::isKnown(std::string_view zoneID) { return zoneNamed(zoneID) != nullptr; }

int ZoneOffsets::secondsFromGMT(double moment) {
    if (!zone_) return 0;
    if (moment >= validFrom_ && moment < validTo_) return offset_;

    const UDate millis = (moment + secondsFrom1970To2001) * 1000.0;
    int32_t raw = 0;
    int32_t daylight = 0;
    UErrorCode status = U_ZERO_ERROR;
    zone_->getOffset(millis, false, raw, daylight, status);
    if (U_FAILURE(status)) return 0;
    offset_ = (raw + daylight) / 1000;

    icu::TimeZoneTransition transition;
    validFrom_ = zone_->getPreviousTransition(millis, true, transition)
                     ? transition.getTime() / 1000.0 - secondsFrom1970To2001
                     : -std::numeric_limits<double>::infinity();
    validTo_ = zone_->getNextTransition(millis, false, transition)
                   ? transition.getTime() / 1000.0 - secondsFrom1970To2001
                   : std::numeric_limits<double>::infinity();
    return offset_;
}

} // namespace morvane
