#include "morvane/CopiesCommand.h"

#include "MorvaneCore/Shared/DateFormatting.h"
#include "MorvaneCore/Shared/Errors.h"
#include "MorvaneCore/Shared/Json.h"
#include "MorvaneCore/Shared/Paths.h"
#include "MorvaneCore/SnapshotStore/CalendarArchive.h"
#include "MorvaneCore/SnapshotStore/ICloudBackup.h"
#include "morvane/CommandLine.h"
#include "morvane/SnapshotCommand.h"

#include <filesystem>
#include <ostream>

namespace morvane::cli {
namespace {

namespace fs = std::filesystem;

constexpr const char* thisComputer = " (this computer)";

int printOutcome(const std::optional<ICloudBackup::SyncOutcome>& outcome, const ICloudBackup& copies, std::ostream& out,
                 std::ostream& err) {
    if (!outcome) {
        err << "morvane: copies are off; turn them on with: morvane copies enable --folder PATH\n";
        return exitFailure;
    }
    if (!outcome->succeeded()) {
        err << "morvane: copying failed: " << outcome->error << '\n';
        return exitFailure;
    }
    out << syncLine(*outcome->result, copies.root()) << '\n';
    return exitSuccess;
}

int enable(const CopiesOptions& options, ICloudBackup& copies, std::ostream& out, std::ostream& err) {
    std::error_code error;
    const auto folder = fs::absolute(paths::expandingTilde(options.folder), error).lexically_normal();
    if (error || !fs::is_directory(folder, error))
        throw RestoreError("There is no folder at " + options.folder +
                           "; name an existing folder that a sync tool "
                           "keeps in step.");
    ICloudBackup::setNamedFolder(folder);
    copies.setEnabled(true);
    out << "Copies are on: restore points go to " << folder.string() << ".\n";
    return printOutcome(copies.syncIfEnabled(*CalendarArchive::shared(), Date::now()), copies, out, err);
}

int status(const CopiesOptions& options, const ICloudBackup& copies, std::ostream& out) {
    const auto named = ICloudBackup::namedFolder();
    const auto usage = copies.ownUsage();
    const auto machines = copies.macFolders();
    const auto id = ICloudBackup::machineID();
    if (options.json) {
        json::Value found = json::Value::array();
        for (const auto& mac : machines)
            found.push_back({{"id", mac.info.id},
                             {"name", mac.info.name},
                             {"folder", mac.folder.string()},
                             {"isThisMachine", mac.info.id == id}});
        out << json::dump({{"enabled", copies.isEnabled()},
                           {"folder", named ? json::Value(named->string()) : json::Value(nullptr)},
                           {"available", copies.isAvailable()},
                           {"lastSynced", json::isoDate(copies.lastSynced())},
                           {"lastError", copies.lastError() ? json::Value(*copies.lastError()) : json::Value(nullptr)},
                           {"thisMachine", {{"id", id}, {"count", usage.count}, {"bytes", usage.bytes}}},
                           {"machines", std::move(found)}},
                          true)
            << '\n';
        return exitSuccess;
    }
    out << "Copies:        " << (copies.isEnabled() ? "on" : "off") << '\n';
    out << "Folder:        "
        << (named ? named->string() + (copies.isAvailable() ? "" : " (not available)") : std::string("none named"))
        << '\n';
    const auto synced = copies.lastSynced();
    out << "Last synced:   " << (synced ? dates::abbreviatedDateTime(*synced) : std::string("never")) << '\n';
    if (const auto failure = copies.lastError()) out << "Last error:    " << *failure << '\n';
    out << "This computer: " << usage.count << (usage.count == 1 ? " copy, " : " copies, ") << byteCount(usage.bytes)
        << '\n';
    out << "Computers:    ";
    if (machines.empty()) out << " none yet";
    for (size_t i = 0; i < machines.size(); ++i)
        out << (i == 0 ? " " : ", ") << machines[i].info.name << (machines[i].info.id == id ? thisComputer : "");
    out << '\n';
    return exitSuccess;
}

int list(const CopiesOptions& options, const ICloudBackup& copies, std::ostream& out) {
    const auto snapshots = copies.snapshots();
    if (options.json) {
        json::Value array = json::Value::array();
        for (const auto& snapshot : snapshots) {
            auto object = entryJSON(snapshot.entry);
            object["file"] = snapshot.file.string();
            object["machine"] = snapshot.macName;
            object["isThisMachine"] = snapshot.isThisMac;
            array.push_back(std::move(object));
        }
        out << json::dump(array, true) << '\n';
        return exitSuccess;
    }
    if (snapshots.empty()) out << "No copies in the shared folder.\n";
    for (const auto& snapshot : snapshots) {
        out << dates::abbreviatedDateTime(snapshot.entry.date) << "  " << snapshot.macName
            << (snapshot.isThisMac ? thisComputer : "") << "  " << snapshot.entry.eventCount << " events, "
            << byteCount(snapshot.entry.bytes) << "  " << snapshot.file.string() << '\n';
    }
    return exitSuccess;
}

int remove(ICloudBackup& copies, std::ostream& out) {
    const auto folder = copies.thisMacsFolder();
    if (!folder) {
        out << "This computer has no copies in the shared folder.\n";
        return exitSuccess;
    }
    const auto usage = copies.ownUsage();
    copies.removeThisMacsCopies();
    out << "Removed this computer's copies (" << usage.count << ") from " << folder->string() << ".\n";
    if (copies.isEnabled())
        out << "Copies are still on, so the next snapshot copies again; morvane copies disable turns them off.\n";
    return exitSuccess;
}

} // namespace

int runCopies(const CopiesOptions& options, std::ostream& out, std::ostream& err) {
    using Action = CopiesOptions::Action;
    auto copies = ICloudBackup::shared();
    switch (options.action) {
    case Action::enable: return enable(options, *copies, out, err);
    case Action::disable: {
        copies->setEnabled(false);
        out << "Copies are off. The copies made so far stay; morvane copies remove deletes this computer's.\n";
        return exitSuccess;
    }
    case Action::sync:
        return printOutcome(copies->syncIfEnabled(*CalendarArchive::shared(), Date::now()), *copies, out, err);
    case Action::status: return status(options, *copies, out);
    case Action::list: return list(options, *copies, out);
    case Action::remove: return remove(*copies, out);
    }
    return exitUsage;
}

} // namespace morvane::cli
