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

using Summaries = std::vector<std::optional<BackupSummaries::Summary>>;

std::string summaryText(const std::optional<BackupSummaries::Summary>& summary) {
    if (!summary) return {};
    return std::to_string(summary->deleted) + " deleted, " + std::to_string(summary->changed) + " changed since";
}

void printJSON(const std::vector<BackupSource>& sources, const std::vector<std::string>& notes,
               const Summaries* summaries, std::ostream& out) {
    json::Value list = json::Value::array();
    for (size_t i = 0; i < sources.size(); ++i) {
        const auto& source = sources[i];
        json::Value item = {
            {"id", source.id()},
            {"kind", source.kind.caseName()},
            {"title", source.title()},
            {"subtitle", source.subtitle()},
            {"date", json::isoDate(source.date)},
        };
        if (summaries) {
            const auto& summary = (*summaries)[i];
            item["summary"] =
                summary ? json::Value{{"deleted", summary->deleted}, {"changed", summary->changed}} : json::Value();
        }
        list.push_back(std::move(item));
    }
    out << json::dump({{"sources", std::move(list)}, {"notes", notes}}, true) << '\n';
}

void printText(const std::vector<BackupSource>& sources, const std::vector<std::string>& notes,
               const std::string& whenEmpty, bool withKind, const Summaries* summaries, std::ostream& out) {
    if (sources.empty()) out << whenEmpty << '\n';

    std::vector<std::string> titles;
    std::vector<std::string> subtitles;
    size_t width = 0;
    size_t kindWidth = 0;
    size_t subtitleWidth = 0;
    for (const auto& source : sources) {
        titles.push_back(source.title());
        subtitles.push_back(source.subtitle());
        width = std::max(width, columns(titles.back()));
        kindWidth = std::max(kindWidth, source.kind.caseName().size());
        subtitleWidth = std::max(subtitleWidth, columns(subtitles.back()));
    }
    for (size_t i = 0; i < sources.size(); ++i) {
        out << titles[i] << std::string(width - columns(titles[i]) + 2, ' ');
        if (withKind) {
            const auto kind = sources[i].kind.caseName();
            out << kind << std::string(kindWidth - kind.size() + 2, ' ');
        }
        out << subtitles[i];
        if (const auto summary = summaries ? summaryText((*summaries)[i]) : std::string(); !summary.empty())
            out << std::string(subtitleWidth - columns(subtitles[i]) + 2, ' ') << summary;
        out << '\n';
    }
    for (const auto& note : notes)
        out << note << '\n';
}

} // namespace

void printSources(const std::vector<BackupSource>& sources, const std::vector<std::string>& notes, bool json,
                  const std::string& whenEmpty, std::ostream& out, bool withKind, const Summaries* summaries) {
    if (json) {
        printJSON(sources, notes, summaries, out);
    } else {
        printText(sources, notes, whenEmpty, withKind, summaries, out);
    }
}

int runBackups(const BackupsOptions& options, std::ostream& out) {
    const auto listing = BackupCatalog::list(!options.noTimeMachine);
    if (options.ids) {
        for (const auto& source : listing.sources)
            out << source.id() << '\n';
        return exitSuccess;
    }
    const auto* whenEmpty = options.noTimeMachine
                                ? "No restore points or copies yet: morvane snapshot takes one."
                                : "Nothing to restore from: no restore points, copies or Time Machine backups.";
    Summaries summaries;
    if (options.summaries) {
        BackupSummaries summing;
        for (const auto& source : listing.sources)
            summaries.push_back(summing.summary(source));
    }
    printSources(listing.sources, listing.notes, options.json, whenEmpty, out, /*withKind=*/true,
                 options.summaries ? &summaries : nullptr);
    return exitSuccess;
}

} // namespace morvane::cli
