// RecurrenceRule from RRULE text over arbitrary bytes: the rule up to the first line feed, the
// zone of UNTIL after it. A rule that reads must describe itself and survive its JSON form.
#include "MorvaneCore/EventModel/RecurrenceRule.h"
#include "MorvaneCore/Shared/Text.h"

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const auto newline = input.find('\n');
    std::optional<std::string_view> tzid;
    if (newline != std::string_view::npos) tzid = input.substr(newline + 1);

    const auto rule = morvane::RecurrenceRule::fromRRule(input.substr(0, newline), tzid);
    if (!rule) return 0;
    (void)rule->description();
    const auto encoding = morvane::json::DateEncoding::secondsSince1970;
    const auto text = morvane::json::dumpKeepingOrder(rule->json(encoding), false);
    const auto decoded = morvane::RecurrenceRule::fromJson(morvane::json::parse(text), encoding);
    // JSON holds UTF-8 only: ill-formed bytes in `unparsed` come back repaired.
    if (decoded != *rule && morvane::text::repairedUTF8(input) == input) std::abort();
    return 0;
}
