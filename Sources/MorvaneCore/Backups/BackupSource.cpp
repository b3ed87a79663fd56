#include "MorvaneCore/Backups/BackupSource.h"

#include "MorvaneCore/Shared/DateFormatting.h"
#include "MorvaneCore/Shared/Paths.h"

namespace morvane {

using Case = BackupSource::Kind::Case;

std::string_view BackupSource::Kind::caseName() const {
    switch (which) {
    case Case::localSnapshot: return "localSnapshot";
    case Case::timeMachine: return "timeMachine";
    case Case::file: return "file";
    case Case::icsArchive: return "icsArchive";
    case Case::appSnapshot: return "appSnapshot";
    case Case::iCloudSnapshot: return "iCloudSnapshot";
    case Case::timeMachineImport: return "timeMachineImport";
    }
    return {};
}

std::string BackupSource::id() const {
    const char* prefix = "";
    switch (kind.which) {
    case Case::localSnapshot: prefix = "snap:"; break;
    case Case::timeMachine: prefix = "tm:"; break;
    case Case::file: prefix = "file:"; break;
    case Case::icsArchive: prefix = "ics:"; break;
    case Case::appSnapshot: prefix = "app:"; break;
    case Case::iCloudSnapshot: prefix = "icloud:"; break;
    case Case::timeMachineImport: prefix = "tmi:"; break;
    }
    return prefix + kind.text;
}

std::string BackupSource::title() const {
    if (date) return dates::abbreviatedDateTime(*date);
    if (kind.which == Case::file || kind.which == Case::icsArchive) return paths::lastComponent(kind.text);
    return id();
}

std::string BackupSource::subtitle() const {
    switch (kind.which) {
    case Case::localSnapshot: return "Local snapshot";
    case Case::timeMachine: return "Time Machine · " + paths::deletingLastComponent(kind.text);
    case Case::file: return paths::abbreviatingWithTilde(kind.text);
    case Case::icsArchive:
        return ".ics archive · " + paths::abbreviatingWithTilde(paths::deletingLastComponent(kind.text));
    case Case::appSnapshot: return "Morvane snapshot";
    case Case::iCloudSnapshot: return "iCloud · " + kind.mac;
    case Case::timeMachineImport: return "Time Machine (via the helper)";
    }
    return {};
}

json::Value BackupSource::json() const {
    return {{"id", id()},
            {"kind", kind.caseName()},
            {"title", title()},
            {"subtitle", subtitle()},
            {"date", json::isoDate(date)}};
}

} // namespace morvane

size_t std::hash<morvane::BackupSource::Kind>::operator()(const morvane::BackupSource::Kind& kind) const noexcept {
    // Feed the case index, then the payload texts, as a hasher combining in order would.
    size_t seed = static_cast<size_t>(kind.which);
    const auto combine = [&seed](const std::string& text) {
        seed ^= std::hash<std::string>()(text) + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2);
    };
    combine(kind.text);
    if (kind.which == morvane::BackupSource::Kind::Case::iCloudSnapshot) combine(kind.mac);
    return seed;
}
