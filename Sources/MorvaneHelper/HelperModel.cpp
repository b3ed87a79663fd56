#include "MorvaneHelper/HelperModel.h"

#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/Backups/SnapshotMount.h"
#include "MorvaneCore/SnapshotStore/TimeMachineImports.h"
#include "MorvaneCore/Uninstall/Uninstaller.h"
#include "MorvaneHelper/HelperShell.h"
#include "MorvanePlatform/Bundle.h"
#include "MorvanePlatform/MainThread.h"
#include "MorvanePlatform/Trash.h"
#include "MorvanePlatform/Workspace.h"

#include <filesystem>

namespace morvane {

std::shared_ptr<HelperModel> HelperModel::make(std::shared_ptr<CalendarArchive> archive) {
    return std::shared_ptr<HelperModel>(new HelperModel(std::move(archive)));
}

void HelperModel::quit() { worker_.stop(); }

HelperModel::HelperModel(std::shared_ptr<CalendarArchive> archive) : archive_(std::move(archive)) {}

template <typename T> void HelperModel::set(T& property, T value) {
    if (property == value) return;
    property = std::move(value);
    if (observer_) observer_();
}

void HelperModel::refresh() {
    if (phase_.isBusy()) return;
    set(hasFullDiskAccess_, BackupLocator::canReadLiveDatabase());
    std::error_code error;
    set(appStoreEditionOpened_, std::filesystem::exists(TimeMachineImports::appStoreContainer(), error));
    set(imported_, static_cast<int>(archive_->entries().size()));
    if (!hasFullDiskAccess_ || !appStoreEditionOpened_) {
        set(pending_, std::vector<BackupSource>{});
        set(notes_, std::vector<std::string>{});
        return;
    }

    const Phase previous = phase_;
    set(phase_, Phase::scanning());
    worker_.post([this, previous](std::stop_token stop) {
        auto found = TimeMachineImports::pending(*archive_);
        MainThread::current().run(
            [&] {
                set(pending_, std::move(found.sources));
                set(notes_, std::move(found.notes));
                // The result of a run stays on screen through the rescan that follows it.
                if (phase_.which == Phase::Case::scanning)
                    set(phase_, previous.which == Phase::Case::finished ? previous : Phase::idle());
            },
            stop);
    });
}

void HelperModel::importAll() {
    if (pending_.empty() || phase_.isBusy()) return;
    set(phase_, Phase::importing(0, static_cast<int>(pending_.size()), ""));

    worker_.post([this, backups = pending_](std::stop_token stop) {
        // Each backup shows before its copy starts, so the bar shows those finished so far.
        class Shown final : public ImportRun::Progress {
        public:
            Shown(HelperModel& model, std::stop_token stop) : model_(model), stop_(std::move(stop)) {}
            void copying(const Phase& importing) override {
                MainThread::current().run([&] { model_.set(model_.phase_, importing); }, stop_);
            }

        private:
            HelperModel& model_;
            const std::stop_token stop_;
        } shown(*this, stop);

        const auto result = ImportRun::copyAll(backups, *archive_, shown, stop);
        MainThread::current().run(
            [&] {
                set(phase_, result);
                set(imported_, static_cast<int>(archive_->entries().size()));
                set(pending_, std::vector<BackupSource>{});
                refresh();
            },
            stop);
    });
}

void HelperModel::openMorvane() { Workspace::current().openApplication(std::string(TimeMachineImports::appBundleID)); }

void HelperModel::confirmRemove() {
    const auto count = archive_->entries().size();
    auto& shell = HelperShell::current();
    Alert question{.message = "Remove the Time Machine Helper?",
                   .informativeText = "It moves to the Trash. Morvane keeps working with its own snapshots.",
                   .buttons = {"Remove Helper", "Cancel"},
                   .firstButtonDestructive = true};
    if (count != 0)
        question.checkbox = "Also delete the " + std::to_string(count) + " Time Machine restore point" +
                            (count == 1 ? "" : "s") + " it brought into Morvane";
    const auto answer = shell.runAlert(question);
    if (answer.button != 0) return;

    SnapshotMount::unmountAll();
    BackupLocator::removeAllStagedCopies();

    std::optional<std::string> deletionError;
    std::error_code error;
    if (answer.checkboxOn && question.checkbox && std::filesystem::exists(archive_->directory(), error)) {
        std::filesystem::remove_all(archive_->directory(), error);
        if (error) deletionError = error.message();
    }

    const auto bundle = Bundle::current().location();
    bool trashed = false;
    try {
        Trash::current().trashItem(bundle);
        trashed = true;
    } catch (const std::exception&) {
        // The user finishes by hand, from the file manager shown below.
    }

    std::string informative = "macOS keeps its entry under Full Disk Access until you remove it: in Privacy & "
                              "Security → Full Disk Access, select Morvane Time Machine Helper and click −.";
    if (deletionError) informative += "\n\nCouldn't delete the restore points: " + *deletionError;
    const auto choice = shell.runAlert({.message = trashed ? "The Time Machine Helper was moved to the Trash"
                                                           : "Drag the Time Machine Helper to the Trash to finish",
                                        .informativeText = informative,
                                        .buttons = {"Open Privacy & Security", "Done"}});
    if (choice.button == 0) Workspace::current().openURL(privacySettingsURL);
    if (!trashed) Workspace::current().revealInFileManager(bundle);

    shell.closeAllWindows();
    Uninstaller::removeSettings();
    shell.exit(0);
}

} // namespace morvane
