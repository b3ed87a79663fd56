#pragma once

#include "MorvaneCore/Shared/Date.h"
#include "MorvaneCore/Shared/Json.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace morvane {

// One thing a user can restore from. A plain value: text and a date, tied to nothing open or
// mounted. Its identity is `id()`: two sources are equal exactly when their ids are, whatever
// their dates.
struct BackupSource {
    // Which kind of source, with its payload. `text` is the snapshot name of a local snapshot and
    // the path of every other case; `mac` is the Mac's name of an iCloud copy and empty otherwise.
    struct Kind {
        enum class Case : std::uint8_t {
            localSnapshot,
            timeMachine,
            file,
            icsArchive,
            appSnapshot,
            iCloudSnapshot,
            timeMachineImport,
        };

        Case which = Case::file;
        std::string text;
        std::string mac;

        static Kind localSnapshot(std::string name) { return {Case::localSnapshot, std::move(name), {}}; }
        static Kind timeMachine(std::string path) { return {Case::timeMachine, std::move(path), {}}; }
        static Kind file(std::string path) { return {Case::file, std::move(path), {}}; }
        static Kind icsArchive(std::string path) { return {Case::icsArchive, std::move(path), {}}; }
        static Kind appSnapshot(std::string path) { return {Case::appSnapshot, std::move(path), {}}; }
        static Kind iCloudSnapshot(std::string path, std::string mac) {
            return {Case::iCloudSnapshot, std::move(path), std::move(mac)};
        }
        static Kind timeMachineImport(std::string path) { return {Case::timeMachineImport, std::move(path), {}}; }

        const std::string& name() const { return text; }
        const std::string& path() const { return text; }

        // The case's name as written in code and JSON, e.g. "localSnapshot".
        std::string_view caseName() const;

        // Equal when the case and every payload text are.
        friend bool operator==(const Kind&, const Kind&) = default;
    };

    Kind kind;
    std::optional<Date> date;
    bool isPicked = false;

    BackupSource(Kind kindOfSource, std::optional<Date> dateOfSource, bool picked = false)
        : kind(std::move(kindOfSource)), date(dateOfSource), isPicked(picked) {}

    // A prefix for the case ("snap:", "tm:", "file:", "ics:", "app:", "icloud:", "tmi:") and the
    // payload's first text, as it stands.
    std::string id() const;
    // The date in the user's locale and zone; without one, a file's or archive's name, else `id`.
    std::string title() const;
    // The second line shown for the source, e.g. "Time Machine · /Volumes/Backup".
    std::string subtitle() const;
    // The form lists print: {"id", "kind", "title", "subtitle", "date" (ISO 8601 in UTC or null)}.
    json::Value json() const;

    friend bool operator==(const BackupSource& a, const BackupSource& b) { return a.id() == b.id(); }
};

} // namespace morvane

template <> struct std::hash<morvane::BackupSource::Kind> {
    size_t operator()(const morvane::BackupSource::Kind& kind) const noexcept;
};

template <> struct std::hash<morvane::BackupSource> {
    size_t operator()(const morvane::BackupSource& source) const noexcept {
        return std::hash<std::string>()(source.id());
    }
};
