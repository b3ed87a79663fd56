#include "morvane/TimeMachineCommand.h"

#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/SnapshotStore/ImportRun.h"
#include "MorvaneCore/SnapshotStore/TimeMachineImports.h"
#include "MorvanePlatform/Files.h"
#include "morvane/BackupsCommand.h"
#include "morvane/CommandLine.h"
#include "morvane/TerminalOutput.h"

#include <ostream>

namespace morvane::cli {
namespace {

// A text progress bar: "[=====     ]".
std::string bar(int done, int total) {
    constexpr int width = 24;
    const int filled = total > 0 ? done * width / total : 0;
    return "[" + std::string(static_cast<size_t>(filled), '=') + std::string(static_cast<size_t>(width - filled), ' ') +
           "]";
}

// A line per backup as its copy starts, flushed so that a long copy shows which one it is; the
// bar only for a person at a terminal, as it means nothing in a log.
class PrintedProgress final : public ImportRun::Progress {
public:
    explicit PrintedProgress(std::ostream& out) : out_(out), bars_(isTerminal(out)) {}
    void copying(const ImportRun::Phase& importing) override {
        if (importing.current.empty()) return;
        if (bars_) out_ << bar(importing.done, importing.total) << ' ';
        out_ << ImportRun::copyingLabel(importing) << "  " << importing.current << std::endl;
    }
    void finished(int checked) {
        if (bars_) out_ << bar(checked, checked) << '\n';
    }

private:
    std::ostream& out_;
    const bool bars_;
};

int runImport(std::ostream& out, std::ostream& err) {
    // Here this program is the app the helper works for, so its container exists once it runs.
    files::createDirectories(TimeMachineImports::appStoreContainer());
    if (!BackupLocator::canReadLiveDatabase()) {
        err << "morvane: the calendars can't be read: " << ImportRun::fullDiskAccessAdvice << '\n';
        return exitFailure;
    }
    const auto archive = TimeMachineImports::forAppStoreEdition();
    const auto before = TimeMachineImports::pending(*archive);
    for (const auto& note : before.notes)
        out << note << '\n';
    if (before.sources.empty()) {
        out << ImportRun::statusLine({}, static_cast<int>(archive->entries().size())) << '\n';
        return exitSuccess;
    }
    out << ImportRun::pendingSummary(before.sources) << '\n';

    PrintedProgress progress(out);
    const auto result = ImportRun::copyAll(before.sources, *archive, progress);
    progress.finished(result.checked);
    out << ImportRun::headline(result) << '\n';
    if (const auto advice = ImportRun::failureAdvice(result)) out << *advice << '\n';
    // What is still to copy after the run: the backups that failed, and any that came meanwhile.
    const auto after = TimeMachineImports::pending(*archive);
    out << ImportRun::statusLine(after.sources, static_cast<int>(archive->entries().size())) << '\n';
    for (const auto& note : after.notes)
        out << note << '\n';
    return result.failed == 0 ? exitSuccess : exitFailure;
}

} // namespace

int runTimeMachine(const TimeMachineOptions& options, std::ostream& out, std::ostream& err) {
    if (options.action == TimeMachineOptions::Action::import) return runImport(out, err);
    const auto pending = TimeMachineImports::pending(*TimeMachineImports::forAppStoreEdition());
    printSources(pending.sources, pending.notes, options.json, "No Time Machine backups to copy.", out);
    if (!options.json && !pending.sources.empty()) out << ImportRun::pendingSummary(pending.sources) << '\n';
    return exitSuccess;
}

} // namespace morvane::cli
