#include "MorvaneHelper/HelperModel.h"

#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/Backups/SnapshotMount.h"
#include "MorvaneCore/Shared/DateFormatting.h"
#include "MorvaneCore/SnapshotStore/TimeMachineImports.h"
#include "MorvaneCore/Uninstall/Uninstaller.h"
#include "MorvaneHelper/HelperShell.h"
#include "MorvanePlatform/Bundle.h"
#include "MorvanePlatform/MainThread.h"
#include "MorvanePlatform/SystemLog.h"
#include "MorvanePlatform/Trash.h"
#include "MorvanePlatform/Workspace.h"

#include <filesystem>
#include <thread>

namespace morvane {

std::shared_ptr<HelperModel> HelperModel::make(std::shared_ptr<CalendarArchive> archive) {
    return std::shared_ptr<HelperModel>(new HelperModel(std::move(archive)));
}

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
    std::thread([self = shared_from_this(), previous] {
        auto found = TimeMachineImports::pending(*self->archive_);
        MainThread::current().run([&] {
            self->set(self->pending_, std::move(found.sources));
            self->set(self->notes_, std::move(found.notes));
            // The result of a run stays on screen through the rescan that follows it.
            if (self->phase_.which == Phase::Case::scanning)
                self->set(self->phase_, previous.which == Phase::Case::finished ? previous : Phase::idle());
        });
    }).detach();
}

void HelperModel::importAll() {
    if (pending_.empty() || phase_.isBusy()) return;
    const int total = static_cast<int>(pending_.size());
    set(phase_, Phase::importing(0, total, ""));

    std::thread([self = shared_from_this(), backups = pending_, total] {
        int added = 0;
        int failed = 0;
        for (int index = 0; index < total; ++index) {
            const auto& source = backups[static_cast<size_t>(index)];
            const auto shown = source.date ? dates::abbreviatedDateTime(*source.date) : std::string();
            MainThread::current().run([&] { self->set(self->phase_, Phase::importing(index, total, shown)); });
            try {
                const auto result = TimeMachineImports::importBackup(source, *self->archive_);
                if (result.which == CalendarArchive::SnapshotResult::Case::saved) ++added;
            } catch (const std::exception& error) {
                ++failed;
                SystemLog::current().write("Time Machine Helper: " + shown + ": " + error.what());
            }
        }
        MainThread::current().run([&] {
            self->set(self->phase_, Phase::finished(added, total, failed));
            self->set(self->imported_, static_cast<int>(self->archive_->entries().size()));
            self->set(self->pending_, std::vector<BackupSource>{});
            self->refresh();
        });
    }).detach();
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
