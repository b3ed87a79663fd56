#include "morvane/TimeMachineCommand.h"

#include "MorvaneCore/SnapshotStore/TimeMachineImports.h"
#include "MorvaneHelper/HelperModel.h"
#include "MorvaneHelper/HelperTexts.h"
#include "MorvanePlatform/Files.h"
#include "MorvanePlatform/QueuedMainThread.h"
#include "morvane/BackupsCommand.h"
#include "morvane/CommandLine.h"

#include <ostream>

namespace morvane::cli {
namespace {

using Phase = HelperModel::Phase;

// A text progress bar: "[=====     ]".
std::string bar(int done, int total) {
    constexpr int width = 24;
    const int filled = total > 0 ? done * width / total : 0;
    return "[" + std::string(static_cast<size_t>(filled), '=') + std::string(static_cast<size_t>(width - filled), ' ') +
           "]";
}

int runImport(std::ostream& out, std::ostream& err) {
    // Here this program is the app the helper works for, so its container exists once it runs.
    files::createDirectories(TimeMachineImports::appStoreContainer());

    QueuedMainThread mainThread;
    ScopedReplacement<MainThread> installed(mainThread);
    const auto model = HelperModel::make(TimeMachineImports::forAppStoreEdition());
    Phase shown;
    model->setObserver([&] {
        const auto& phase = model->phase();
        if (phase == shown) return;
        shown = phase;
        if (phase.which == Phase::Case::importing && !phase.current.empty())
            out << bar(phase.done, phase.total) << ' ' << helperTexts::copyingLabel(phase) << "  " << phase.current
                << std::endl;
    });

    model->refresh();
    mainThread.pumpUntil([&] { return !model->phase().isBusy(); });
    if (!model->hasFullDiskAccess()) {
        err << "morvane: the calendars can't be read: "
            << "macOS only lets apps read Time Machine backups with Full "
            << "Disk Access. Turn on Morvane Time Machine Helper in Privacy & Security → Full Disk Access, then come "
            << "back.\n";
        return exitFailure;
    }
    for (const auto& note : model->notes())
        out << note << '\n';
    if (model->pending().empty()) {
        out << helperTexts::statusLine(model->pending(), model->imported()) << '\n';
        return exitSuccess;
    }
    out << helperTexts::pendingSummary(model->pending()) << '\n';

    model->importAll();
    // The run ends in `finished`; the rescan after it ends when nothing is busy any more.
    mainThread.pumpUntil([&] { return model->phase().which == Phase::Case::finished && !model->phase().isBusy(); });
    const auto result = model->phase();
    out << bar(result.checked, result.checked) << '\n';
    out << helperTexts::runHeadline(result) << '\n';
    if (const auto advice = helperTexts::runFailureAdvice(result)) out << *advice << '\n';
    out << helperTexts::statusLine(model->pending(), model->imported()) << '\n';
    for (const auto& note : model->notes())
        out << note << '\n';
    return result.failed == 0 ? exitSuccess : exitFailure;
}

} // namespace

int runTimeMachine(const TimeMachineOptions& options, std::ostream& out, std::ostream& err) {
    if (options.action == TimeMachineOptions::Action::import) return runImport(out, err);
    const auto pending = TimeMachineImports::pending(*TimeMachineImports::forAppStoreEdition());
    printSources(pending.sources, pending.notes, options.json, "No Time Machine backups to copy.", out);
    if (!options.json && !pending.sources.empty()) out << helperTexts::pendingSummary(pending.sources) << '\n';
    return exitSuccess;
}

} // namespace morvane::cli
