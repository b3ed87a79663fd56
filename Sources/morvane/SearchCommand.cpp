#include "morvane/SearchCommand.h"

#include "MorvaneCore/Backups/BackupCatalog.h"
#include "MorvaneCore/EventModel/EventSnapshot.h"
#include "MorvaneCore/Search/BackupSearch.h"
#include "MorvaneCore/Shared/DateFormatting.h"
#include "MorvaneCore/Shared/Json.h"
#include "MorvanePlatform/TextPieces.h"
#include "morvane/CommandLine.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <iostream>
#include <ostream>

namespace morvane::cli {
namespace {

// A word as a shell reads it back: as it stands when it is plain, else in single quotes.
std::string shellWord(const std::string& word) {
    const bool plain = !word.empty() && std::all_of(word.begin(), word.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) ||
               std::string_view("_./:@%+=,-").find(c) != std::string_view::npos;
    });
    if (plain) return word;
    std::string quoted = "'";
    for (const char c : word)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

json::Value optionalText(const std::optional<std::string>& value) {
    return value ? json::Value(*value) : json::Value();
}

json::Value entryJSON(const BackupSearch::Entry& entry) {
    return {
        {"uid", entry.uid},
        {"title", entry.title},
        {"location", optionalText(entry.location)},
        {"start", dates::iso8601(entry.start)},
        {"end", dates::iso8601(entry.end)},
        {"isAllDay", entry.isAllDay},
        {"isRepeating", entry.isRepeating},
        {"calendarName", entry.calendarName},
        {"calendarID", optionalText(entry.calendarID)},
        {"colorHex", optionalText(entry.colorHex)},
        {"itemID", entry.itemID},
    };
}

void printJSON(const BackupSearch::Update& update, std::ostream& out) {
    json::Value results = json::Value::array();
    for (const auto& result : update.results) {
        results.push_back({
            {"id", result.id()},
            {"entry", entryJSON(result.entry)},
            {"source", result.source.json()},
            {"backupCount", result.backupCount},
            {"existsNow", result.existsNow},
        });
    }
    out << json::dump({{"results", std::move(results)},
                       {"searched", update.searched},
                       {"total", update.total},
                       {"unreadable", update.unreadable}},
                      true)
        << '\n';
}

void printText(const BackupSearch::Update& update, const std::string& query, std::ostream& out) {
    if (update.total == 0) {
        out << "Nothing to search: no restore points, copies or backups.\n";
        return;
    }
    if (update.results.empty()) out << "No event in " << update.searched << " backups holds \"" << query << "\".\n";
    for (const auto& result : update.results) {
        const auto& entry = result.entry;
        out << entry.title << "  " << EventSnapshot::format(entry.start, false, entry.isAllDay) << "  "
            << entry.calendarName << "  in " << result.backupCount << (result.backupCount == 1 ? " backup" : " backups")
            << "  " << (result.existsNow ? "exists now" : "gone") << "  morvane compare "
            << shellWord(result.source.id()) << '\n';
    }
    if (!update.unreadable.empty()) {
        out << "Couldn't read " << update.unreadable.size() << " of " << update.total << " backups:";
        for (const auto& title : update.unreadable)
            out << ' ' << title << (&title == &update.unreadable.back() ? "" : ",");
        out << '\n';
    }
}

} // namespace

int runSearch(const SearchOptions& options, std::ostream& out, std::ostream& err) {
    std::string query;
    for (const auto& word : options.words)
        query += (query.empty() ? "" : " ") + word;
    if (text::trimming(query, " \t").empty()) {
        err << "morvane: give a word to search for.\n";
        return exitUsage;
    }

    const auto listing = BackupCatalog::list(!options.noTimeMachine);
    const bool progress = &err == &std::cerr && isatty(STDERR_FILENO) == 1;
    BackupSearch search;
    BackupSearch::Update last;
    last.total = static_cast<std::int64_t>(listing.sources.size());
    search.search(query, listing.sources, [&](const BackupSearch::Update& update) {
        if (progress) err << "\rSearched " << update.searched << " of " << update.total << " backups" << std::flush;
        last = update;
        return true;
    });
    if (progress && last.total > 0) err << "\r\033[K" << std::flush;

    if (options.json) {
        printJSON(last, out);
    } else {
        printText(last, std::string(text::trimming(query, " \t")), out);
    }
    return exitSuccess;
}

} // namespace morvane::cli
