// One .ics file of arbitrary bytes in an archive of one calendar: reading it never fails but for
// the folder, whatever the events say, and every event it gives can be described. The calendar
// has default alarms, so that the default-alarm rules run too.
#include "MorvaneCore/IcsArchives/IcsArchive.h"

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

namespace {

const std::filesystem::path& calendarFolder() {
    static const std::filesystem::path folder = [] {
        std::string pattern = (std::filesystem::temp_directory_path() / "morvane-fuzz-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) std::abort();
        std::filesystem::create_directories(std::filesystem::path(pattern) / "home");
        return std::filesystem::path(pattern) / "home";
    }();
    return folder;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    {
        std::ofstream file(calendarFolder() / "event.ics", std::ios::binary | std::ios::trunc);
        file.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    const morvane::CalendarResolver resolver = [](const std::string&, const std::optional<std::string>&) {
        return std::optional(morvane::ArchiveCalendarInfo{std::nullopt, "Home", "iCloud", -900, -86400});
    };
    morvane::IcsArchive archive(calendarFolder().parent_path(), resolver);
    for (const auto& event : archive.loadEvents()) {
        if (event.masterRowID && *event.masterRowID >= event.rowID) std::abort();
        (void)archive.exceptionDates(event.rowID);
        (void)event.snapshot.startText();
        if (event.snapshot.recurrence) (void)event.snapshot.recurrence->description();
        for (const auto& alarm : event.snapshot.alarms)
            (void)alarm.description();
    }
    return 0;
}
