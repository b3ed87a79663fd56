#include "morvane/TimelineCommand.h"

#include "MorvaneCore/Backups/BackupCatalog.h"
#include "MorvaneCore/Restore/RestoreEngine.h"
#include "MorvaneCore/Restore/TimelinePage.h"
#include "MorvaneCore/Shared/DateFormatting.h"
#include "MorvanePlatform/Files.h"
#include "morvane/CommandLine.h"
#include "morvane/DateRangeOptions.h"

#include <array>
#include <filesystem>
#include <ostream>
#include <string_view>

namespace morvane::cli {
namespace {

// Longer ranges read a year per fetch and match every occurrence in memory; ten years is more
// than anyone browses, and keeps a mistyped year from reading a century.
constexpr int longestRangeInYears = 10;

char marker(const TimelineItem& item) {
    if (item.moved()) return '>';
    switch (item.state) {
    case TimelineItem::State::unchanged: return '=';
    case TimelineItem::State::deleted: return '-';
    case TimelineItem::State::changed: return '~';
    case TimelineItem::State::added: return '+';
    }
    return '=';
}

// Private from its first byte (calendars are personal), and whole or not at all: a browser showing
// the previous page never reads half of the new one.
void writePage(const std::filesystem::path& path, std::string_view page) {
    auto temporary = path;
    temporary += ".tmp-" + files::randomUUID();
    const files::TemporaryItem unfinished(temporary);
    files::writePrivately(temporary, page);
    files::moveItem(temporary, path);
}

} // namespace

int runTimeline(const TimelineOptions& options, std::ostream& out, std::ostream& err) {
    const auto range = readDateRange(options.from, options.to, err);
    if (!range) return exitUsage;
    const auto [from, to] = *range;
    if (dates::addingYears(from, longestRangeInYears) < to) {
        err << "morvane: a timeline covers at most " << longestRangeInYears << " years; narrow --from and --to.\n";
        return exitUsage;
    }

    RestoreEngine engine;
    engine.loadWithoutComparing(BackupCatalog::resolve(options.backup));
    const auto items = engine.timeline({from, to});
    engine.close();
    if (options.html) {
        writePage(*options.html, timelinePage(items, {from, to}, {}, options.backup));
    }

    if (options.json) {
        auto list = json::Ordered::array();
        for (const auto& item : items)
            list.push_back(item.json());
        out << json::dumpKeepingOrder(list, true) << '\n';
        return exitSuccess;
    }
    std::array<std::size_t, 4> counts{};
    std::size_t moved = 0;
    RangeTexts rangeText;
    for (const auto& item : items) {
        ++counts.at(static_cast<std::size_t>(item.state));
        if (item.moved()) ++moved;
        out << marker(item) << ' ' << rangeText(item.start, item.end, item.isAllDay);
        if (item.moved()) out << " (was " << rangeText(*item.previousStart, *item.previousEnd, item.isAllDay) << ")";
        out << "  " << item.title << "  [" << item.calendarName << "]  [" << item.id << "]\n";
    }
    out << "= unchanged  - deleted  ~ changed  > moved  + added\n"
        << counts[0] << " unchanged, " << counts[1] << " deleted, " << counts[2] << " changed (" << moved << " moved), "
        << counts[3] << " added\n";
    if (options.html) out << "The page is in " << *options.html << ".\n";
    return exitSuccess;
}

} // namespace morvane::cli
