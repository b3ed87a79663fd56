// The two readers of a Recurrence row over the same bytes: the core's RecurrenceRule and the
// event store's rule. The first byte picks the frequency code and whether there is an end date,
// the second the interval and the count from values at the edges, the rest is the specifier.
// Both must give the same rule, down to what the store's rule can't hold, and a rule the store
// writes must read back as itself.
#include "MorvaneCore/EventModel/RecurrenceRule.h"
#include "MorvanePlatform/CalendarColumns.h"

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace morvane;
    if (size < 2) return 0;
    static constexpr std::int64_t edges[] = {INT64_MIN, -1, 0, 1, 2, 7, 1'000'000, 1'000'001, 3'000'000'000, INT64_MAX};
    const std::int64_t frequency = data[0] % 6;
    const std::optional<double> endDate = (data[0] & 0x80) != 0 ? std::optional(7.5e8) : std::nullopt;
    const std::int64_t interval = edges[(data[1] & 0x0F) % 10];
    const std::int64_t count = edges[(data[1] >> 4) % 10];
    const std::string_view specifier(reinterpret_cast<const char*>(data + 2), size - 2);

    const auto core = RecurrenceRule::fromDatabase(frequency, interval, count, endDate, specifier);
    const auto store = calendarColumns::readRecurrence(frequency, interval, count, endDate, specifier);
    if (core.has_value() != store.has_value()) std::abort();
    if (!core) return 0;
    // The core keeps the pieces nobody reads; the store's rule has no place for them.
    auto readByBoth = *core;
    readByBoth.unparsed.reset();
    if (RecurrenceRule::fromEK(store->rule) != readByBoth) std::abort();
    if (core->unparsed.has_value() == store->unreadPieces.empty()) std::abort();

    const auto written = calendarColumns::specifierText(store->rule);
    const auto again = calendarColumns::readRecurrence(frequency, interval, count, endDate, written);
    if (!again || again->rule != store->rule || !again->unreadPieces.empty()) std::abort();
    return 0;
}
