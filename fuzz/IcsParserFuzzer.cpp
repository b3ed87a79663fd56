// ICalParser over arbitrary bytes: parse, and what the readers above it do with each property.
#include "MorvaneCore/IcsArchives/ICalendar.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace {

void visit(const morvane::ICalComponent& component, size_t depth) {
    // The depth cap is what keeps tearing the tree down off the end of the stack.
    if (depth > morvane::ICalParser::maximumDepth) std::abort();
    for (const auto& property : component.properties) {
        (void)morvane::ICalParser::text(property.value);
        (void)property.param("TZID");
    }
    for (const auto& child : component.children)
        visit(child, depth + 1);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    for (const auto& component : morvane::ICalParser::parse(text))
        visit(component, 1);
    return 0;
}
