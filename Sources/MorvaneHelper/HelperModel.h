#pragma once

#include "MorvaneCore/Backups/BackupSource.h"
#include "MorvaneCore/SnapshotStore/CalendarArchive.h"
#include "MorvaneCore/SnapshotStore/ImportRun.h"
#include "MorvaneHelper/SerialWorker.h"

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
// are called there. Work that blocks runs on the model's own background thread, one scan or one
// import run at a time, which hands each change of state to the main thread (MainThread) and
// waits for it. `quit`, or destroying the model, stops that work and waits for its end.
class HelperModel {
public:
    using Phase = ImportRun::Phase;

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
    // shows it, for the user to finish), clears its settings and asks the shell to end the
    // application. Cancelling changes nothing.
    void confirmRemove();

    // Stops the background work and waits for its end: a scan finishes, an import run stops
    // before its next backup (what it held for the backup in hand goes with it), and no change
    // of state reaches the main thread any more. The properties keep their last values. Call
    // on the main thread, when the application ends.
    void quit();

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
    // Last, so that its tasks end before the fields they use go.
    SerialWorker worker_;
};

} // namespace morvane
