#include "MorvaneCore/Shared/TimeZones.h"

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

struct Zone::Data {
    std::unique_ptr<icu::TimeZone> zone;
};

Zone::Zone(std::unique_ptr<Data> data) : data_(std::move(data)) {}
Zone::Zone(Zone&&) noexcept = default;
Zone& Zone::operator=(Zone&&) noexcept = default;
Zone::~Zone() = default;

std::optional<Zone> Zone::named(std::string_view zoneID) {
    auto zone = knownZone(zoneID);
    if (!zone) return std::nullopt;
    return Zone(std::make_unique<Data>(Data{std::move(zone)}));
}

Zone Zone::current() {
    return Zone(std::make_unique<Data>(Data{std::unique_ptr<icu::TimeZone>(icu::TimeZone::createDefault())}));
}

int Zone::secondsFromGMT(Date date) const { return data_->zone ? offsetSeconds(*data_->zone, date) : 0; }

bool isKnown(std::string_view zoneID) { return knownZone(zoneID) != nullptr; }

std::optional<int> secondsFromGMT(std::string_view zoneID, Date date) {
    const auto zone = Zone::named(zoneID);
    if (!zone) return std::nullopt;
    return zone->secondsFromGMT(date);
}

int currentSecondsFromGMT(Date date) { return Zone::current().secondsFromGMT(date); }

Date instantOfWallClock(Date wallClock) {
    const auto zone = Zone::current();
    const Date guess{wallClock.seconds - zone.secondsFromGMT(wallClock)};
    return {wallClock.seconds - zone.secondsFromGMT(guess)};
}

Date wallClockOfInstant(Date instant) { return {instant.seconds + currentSecondsFromGMT(instant)}; }

} // namespace morvane::zones
