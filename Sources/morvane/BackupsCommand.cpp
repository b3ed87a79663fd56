#include "morvane/BackupsCommand.h"

#include "MorvaneCore/Backups/BackupCatalog.h"
#include "MorvaneCore/Shared/Json.h"
#include "morvane/CommandLine.h"

#include <algorithm>
#include <ostream>

namespace morvane::cli {
namespace {

// Width on a terminal, counting each code point as one column.
size_t columns(const std::string& text) {
    return static_cast<size_t>(std::count_if(
        text.begin(), text.end(), [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0) != 0x80; }));
}

void printJSON(const std::vector<BackupSource>& sources, const std::vector<std::string>& notes, std::ostream& out) {
    json::Value list = json::Value::array();
    for (const auto& source : sources) {
        list.push_back({
            {"id", source.id()},
            {"kind", source.kind.caseName()},
            {"title", source.title()},
            {"subtitle", source.subtitle()},
            {"date", json::isoDate(source.date)},
        });
    }
    out << json::dump({{"sources", std::move(list)}, {"notes", notes}}, true) << '\n';
}

void printText(const std::vector<BackupSource>& sources, const std::vector<std::string>& notes,
               const std::string& whenEmpty, bool withKind, std::ostream& out) {
    if (sources.empty()) out << whenEmpty << '\n';

    std::vector<std::string> titles;
    size_t width = 0;
    size_t kindWidth = 0;
    for (const auto& source : sources) {
        titles.push_back(source.title());
        width = std::max(width, columns(titles.back()));
        kindWidth = std::max(kindWidth, source.kind.caseName().size());
    }
    for (size_t i = 0; i < sources.size(); ++i) {
        out << titles[i] << std::string(width - columns(titles[i]) + 2, ' ');
        if (withKind) {
            const auto kind = sources[i].kind.caseName();
            out << kind << std::string(kindWidth - kind.size() + 2, ' ');
        }
        out << sources[i].subtitle() << '\n';
    }
    for (const auto& note : notes)
        out << note << '\n';
}

} // namespace

void printSources(const std::vector<BackupSource>& sources, const std::vector<std::string>& notes, bool json,
                  const std::string& whenEmpty, std::ostream& out, bool withKind) {
    if (json) {
        printJSON(sources, notes, out);
    } else {
        printText(sources, notes, whenEmpty, withKind, out);
    }
}

int runBackups(const BackupsOptions& options, std::ostream& out) {
    const auto listing = BackupCatalog::list(!options.noTimeMachine);
    const auto* whenEmpty = options.noTimeMachine
                                ? "No restore points or copies yet: morvane snapshot takes one."
                                : "Nothing to restore from: no restore points, copies or Time Machine backups.";
    printSources(listing.sources, listing.notes, options.json, whenEmpty, out, /*withKind=*/true);
    return exitSuccess;
}

} // namespace morvane::cli
