#pragma once

#include "MorvaneCore/Backups/BackupSource.h"
#include "MorvaneCore/SnapshotStore/CalendarArchive.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace morvane {

// The helper's bundle identifier, which names its settings.
inline constexpr const char* helperBundleID = "com.quillfen.morvane.TimeMachineHelper";

// The desktop's page where the user grants Full Disk Access.
inline constexpr const char* privacySettingsURL =
    "x-apple.systempreferences:com.apple.preference.security?Privacy_AllFiles";

// The one state object of the Time Machine helper: which of the window's steps are done, which
// backups are still to be copied, and the import run that copies them. It holds no knowledge of
// backups itself; it turns what the core reports into states for the window.
//
// Lives on the main thread: its properties are read and written there only, and its operations
// are called there. Work that blocks runs on detached background threads, one scan or one
// import run at a time, which hand each change of state to the main thread (MainThread) and
// wait for it. Create it with `make`: background work keeps the model alive.
class HelperModel : public std::enable_shared_from_this<HelperModel> {
public:
    struct Phase {
        enum class Case { idle, scanning, importing, finished, failed };
        Case which = Case::idle;
        // importing: backup number `done` (from 0) of `total`, `current` its date for display.
        int done = 0;
        int total = 0;
        std::string current;
        // finished: `added` restore points from `checked` backups tried, `failed` of them failed.
        int added = 0;
        int checked = 0;
        int failed = 0;
        // failed: a message to show.
        std::string message;

        static Phase idle() { return {}; }
        static Phase scanning() { return {.which = Case::scanning}; }
        static Phase importing(int done, int total, std::string current) {
            return {.which = Case::importing, .done = done, .total = total, .current = std::move(current)};
        }
        static Phase finished(int added, int checked, int failed) {
            return {.which = Case::finished, .added = added, .checked = checked, .failed = failed};
        }
        static Phase failure(std::string message) { return {.which = Case::failed, .message = std::move(message)}; }

        bool isBusy() const { return which == Case::scanning || which == Case::importing; }
        friend bool operator==(const Phase&, const Phase&) = default;
    };

    // A model importing into `archive` (the App Store edition's imports store in the product).
    static std::shared_ptr<HelperModel> make(std::shared_ptr<CalendarArchive> archive);

    bool hasFullDiskAccess() const { return hasFullDiskAccess_; }
    bool appStoreEditionOpened() const { return appStoreEditionOpened_; }
    const std::vector<BackupSource>& pending() const { return pending_; }
    const std::vector<std::string>& notes() const { return notes_; }
    int imported() const { return imported_; }
    const Phase& phase() const { return phase_; }
    const std::shared_ptr<CalendarArchive>& archive() const { return archive_; }

    // Called on the main thread after any property took a new value.
    void setObserver(std::function<void()> observer) { observer_ = std::move(observer); }

    // Recomputes the steps and, with both permissions, scans for pending backups in the
    // background. Ignored while scanning or importing.
    void refresh();

    // Copies every pending backup, oldest first, in the background, then rescans. One failed
    // backup never stops the others. Ignored with nothing pending, or while busy.
    void importAll();

    // Starts the App Store edition, when the desktop knows it.
    void openMorvane();

    // The removal dialogue (HelperShell's alerts): on confirmation takes away mounts and staged
    // copies, deletes the imported restore points if asked, moves the helper to the trash (or
    // shows it, for the user to finish), clears its settings and ends the process. Cancelling
    // changes nothing.
    void confirmRemove();

private:
    explicit HelperModel(std::shared_ptr<CalendarArchive> archive);

    template <typename T> void set(T& property, T value);

    bool hasFullDiskAccess_ = false;
    bool appStoreEditionOpened_ = false;
    std::vector<BackupSource> pending_;
    std::vector<std::string> notes_;
    int imported_ = 0;
    Phase phase_;
    const std::shared_ptr<CalendarArchive> archive_;
    std::function<void()> observer_;
};

} // namespace morvane
