#include "morvane/SnapshotCommand.h"

#include "MorvaneCore/Shared/Date.h"
#include "MorvanePlatform/Accounts.h"
#include "MorvanePlatform/EventKit.h"
#include "morvane/CommandLine.h"

#include <cstdio>
#include <filesystem>
#include <ostream>

namespace morvane::cli {

json::Value entryJSON(const CalendarArchive::Entry& entry) {
    json::Value object = {{"stamp", entry.stamp},
                          {"date", json::isoDate(entry.date)},
                          {"fingerprint", entry.fingerprint},
                          {"eventCount", entry.eventCount},
                          {"bytes", entry.bytes}};
    if (entry.format) object["format"] = *entry.format;
    return object;
}

std::string byteCount(std::int64_t bytes) {
    if (bytes < 1000) return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
    static constexpr const char* units[] = {"kB", "MB", "GB", "TB"};
    double value = static_cast<double>(bytes) / 1000.0;
    size_t unit = 0;
    while (value >= 999.95 && unit + 1 < std::size(units)) {
        value /= 1000.0;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.1f %s", value, units[unit]);
    return text;
}

std::string syncLine(const ICloudBackup::SyncResult& result, const std::optional<std::filesystem::path>& folder) {
    return "Copies: " + std::to_string(result.copied) + " copied, " + std::to_string(result.removed) + " removed, " +
           std::to_string(result.total) + " in " + (folder ? folder->string() : std::string("the shared folder")) + ".";
}

int runSnapshot(const SnapshotOptions& options, std::ostream& out, std::ostream& err) {
    // The local event store makes its database on first use. A fresh home gets it here, so that
    // its restore points come from the database from the first one on, and a second snapshot of
    // unchanged calendars finds them unchanged. A live account has no such file to make.
    std::error_code ignored;
    if (accounts::localStoreIsLive() && !std::filesystem::exists(EKEventStore::defaultDatabasePath(), ignored)) {
        try {
            EKEventStore made;
        } catch (const Error&) {
            // Taking the restore point says what is wrong, in its own words.
        }
    }

    const auto archive = CalendarArchive::shared();
    const auto now = Date::now();
    const auto result = archive->takeSnapshot(now, [] { return std::make_shared<EKEventStore>(); });
    const bool saved = result.which == CalendarArchive::SnapshotResult::Case::saved;

    auto copies = ICloudBackup::shared();
    const auto outcome = copies->syncIfEnabled(*archive, now);
    const bool copiesFailed = outcome && !outcome->succeeded();

    if (options.json) {
        json::Value synced = nullptr;
        if (outcome && outcome->result) {
            synced = {{"copied", outcome->result->copied},
                      {"removed", outcome->result->removed},
                      {"total", outcome->result->total}};
        } else if (outcome) {
            synced = {{"error", outcome->error}};
        }
        out << json::dump({{"result", saved ? "saved" : "unchanged"},
                           {"entry", entryJSON(result.entry)},
                           {"copies", std::move(synced)}},
                          true)
            << '\n';
    } else {
        if (saved) {
            out << "Saved restore point " << result.entry.stamp << " (" << result.entry.eventCount << " events).\n";
        } else if (!options.quiet) {
            out << "Unchanged since " << result.entry.stamp << ".\n";
        }
        if (outcome && outcome->result) {
            const bool changed = outcome->result->copied > 0 || outcome->result->removed > 0;
            if (changed || !options.quiet) out << syncLine(*outcome->result, copies->root()) << '\n';
        }
    }
    if (copiesFailed) {
        err << "morvane: the restore point is kept, but copying it failed: " << outcome->error << '\n';
        return exitFailure;
    }
    return exitSuccess;
}

} // namespace morvane::cli
