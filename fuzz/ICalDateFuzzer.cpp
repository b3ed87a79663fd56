// ICalDate.parse over arbitrary bytes: the value up to the first line feed, the zone after it.
#include "MorvaneCore/IcsArchives/ICalendar.h"

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const auto newline = input.find('\n');
    const auto value = input.substr(0, newline);
    std::optional<std::string_view> tzid;
    if (newline != std::string_view::npos) tzid = input.substr(newline + 1);

    const auto date = morvane::ICalDate::parse(value, tzid);
    if (!date) return 0;
    // Only the three fixed forms read, and only a date-only value lacks its time.
    if (date->isDateOnly && date->timeZone) std::abort();
    if (!(date->date.seconds == date->date.seconds)) std::abort();
    return 0;
}
