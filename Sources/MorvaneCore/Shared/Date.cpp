#include "MorvaneCore/Shared/Date.h"

#include "MorvanePlatform/Clock.h"

#include <cmath>
#include <limits>

namespace morvane {

Date Date::now() { return {Clock::current().now()}; }

std::int64_t Date::occurrenceKey() const {
    if (std::isnan(seconds)) return 0;
    const double rounded = std::round(seconds); // halves away from zero
    // 2^63 is exactly representable; anything at or beyond it doesn't fit.
    constexpr double limit = 9223372036854775808.0;
    if (rounded >= limit) return std::numeric_limits<std::int64_t>::max();
    if (rounded < -limit) return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(rounded);
}

} // namespace morvane
