// iCalDuration over arbitrary bytes.
#include "MorvaneCore/IcsArchives/ICalendar.h"

#include <cstdint>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    (void)morvane::iCalDuration(std::string_view(reinterpret_cast<const char*>(data), size));
    return 0;
}
