// RecurrenceRule from database columns over arbitrary bytes: the first byte picks the frequency
// code and the count, the rest is the specifier. A rule that reads must describe itself and
// survive its JSON form.
#include "MorvaneCore/EventModel/RecurrenceRule.h"
#include "MorvaneCore/Shared/Text.h"

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::int64_t frequency = data[0] % 6;
    const std::int64_t count = (data[0] >> 3) % 3 - 1;
    const std::string_view specifier(reinterpret_cast<const char*>(data + 1), size - 1);

    const auto rule = morvane::RecurrenceRule::fromDatabase(frequency, data[0] >> 5, count, 7.5e8, specifier);
    if (!rule) {
        if (frequency >= 1 && frequency <= 4) std::abort(); // a bad specifier never refuses a rule
        return 0;
    }
    (void)rule->description();
    const auto encoding = morvane::json::DateEncoding::iso8601;
    const auto text = morvane::json::dumpKeepingOrder(rule->json(encoding), false);
    const auto decoded = morvane::RecurrenceRule::fromJson(morvane::json::parse(text), encoding);
    // JSON holds UTF-8 only: ill-formed bytes in `unparsed` come back repaired.
    if (decoded != *rule && morvane::text::repairedUTF8(specifier) == specifier) std::abort();
    return 0;
}
