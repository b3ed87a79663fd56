// A CalDAV server's answers over arbitrary bytes: the bytes as a multistatus fed in two pieces
// (split where the first byte says), each calendar-data found read as a resource, and the bytes
// themselves read as a resource and rewritten. Bad input may throw EventStoreError, nothing else.
#include "MorvanePlatform/EventKit.h"
#include "MorvanePlatform/EventStore/CalDAV/ICalendarResource.h"
#include "MorvanePlatform/EventStore/CalDAV/Multistatus.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace {

void readAsResource(const std::string& text) {
    try {
        const auto series = morvane::caldav::readResource(text);
        morvane::caldav::ResourceEditor editor(text);
        if (series.master) editor.removeOccurrence(series.master->start);
        (void)editor.text();
    } catch (const morvane::EventStoreError&) {
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const size_t split = size == 0 ? 0 : data[0] % size;
    try {
        morvane::caldav::MultistatusReader reader("REPORT /fuzz/", [](morvane::caldav::DavResponse& response) {
            if (const auto* calendarData = response.property(morvane::caldav::calDAVNamespace, "calendar-data")) {
                readAsResource(calendarData->text);
            }
        });
        reader.feed(input.substr(0, split));
        reader.feed(input.substr(split));
        reader.finish();
    } catch (const morvane::EventStoreError&) {
    }
    readAsResource(std::string(input));
    return 0;
}
