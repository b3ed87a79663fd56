#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unicode/basictz.h>

namespace morvane {

// Offsets of one zone from GMT, remembered for the span between two of its transitions, so that
// converting the thousands of occurrences of a series costs a comparison each. Moments are
// seconds since 2001. One thread at a time. Internal to the platform layer, which links ICU.
class ZoneOffsets {
public:
    // An identifier ICU doesn't know gives offset 0.
    explicit ZoneOffsets(std::string_view zoneID);
    ~ZoneOffsets();
    ZoneOffsets(ZoneOffsets&&) noexcept;
    ZoneOffsets& operator=(ZoneOffsets&&) noexcept;

    // The machine's current zone: ICU's default.
    static ZoneOffsets current();
    static std::string currentIdentifier();
    static bool isKnown(std::string_view zoneID);

    int secondsFromGMT(double moment);

    // The wall clock at a moment, read as UTC.
    double wallClock(double moment) { return moment + secondsFromGMT(moment); }
    // The moment of a wall-clock time read as UTC, in two steps so that a time on the far side
    // of a clock change lands right; a repeated time gives its first moment.
    double moment(double wallClock) {
        const double guess = wallClock - secondsFromGMT(wallClock);
        return wallClock - secondsFromGMT(guess);
    }

private:
    explicit ZoneOffsets(std::unique_ptr<icu::BasicTimeZone> zone);

    std::unique_ptr<icu::BasicTimeZone> zone_;
    // The span [validFrom_, validTo_) in which the offset is `offset_`.
    double validFrom_ = 1;
    double validTo_ = 0;
    int offset_ = 0;
};

// Zones by name, with the machine's own, for one operation or one store's life: ICU's zones are
// costly to make, and each remembers the offsets it last looked up.
struct ZoneCache {
    ZoneOffsets current = ZoneOffsets::current();
    std::map<std::string, ZoneOffsets, std::less<>> named;

    // The machine's zone for a floating or all-day date.
    ZoneOffsets& of(const std::optional<std::string>& zone) {
        if (!zone) return current;
        auto found = named.find(*zone);
        if (found == named.end()) found = named.emplace(*zone, ZoneOffsets(*zone)).first;
        return found->second;
    }
    // The moment of a stored date: a zoned date's own, a floating one's wall clock here.
    double moment(const std::optional<std::string>& zone, double stored) {
        return zone ? stored : current.moment(stored);
    }
    double stored(const std::optional<std::string>& zone, double moment) {
        return zone ? moment : current.wallClock(moment);
    }
};

} // namespace morvane
