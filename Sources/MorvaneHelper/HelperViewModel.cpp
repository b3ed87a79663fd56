#include "MorvaneHelper/HelperViewModel.h"

#include "MorvaneCore/SnapshotStore/ImportRun.h"

namespace morvane {
namespace {

using Style = HelperViewModel::Style;
using Action = HelperViewModel::Action;
using Case = HelperModel::Phase::Case;

// Whether the third step, bringing the backups in, counts as done.
bool importStepDone(const HelperViewModel::State& state) {
    if (state.phase.which == Case::finished) return true;
    return state.imported >= 1 && state.pending.empty() && !state.phase.isBusy();
}

HelperViewModel::Content importSection(const HelperViewModel::State& state) {
    HelperViewModel::Content content;
    const auto& phase = state.phase;
    switch (phase.which) {
    case Case::importing:
        content.progress = HelperViewModel::Progress{.value = phase.done,
                                                     .total = phase.total,
                                                     .label = ImportRun::copyingLabel(phase),
                                                     .currentValueLabel = phase.current};
        return content;
    case Case::failed: content.texts.push_back({phase.message, Style::error}); return content;
    case Case::scanning: content.spinner = "Looking for Time Machine backups…"; return content;
    case Case::idle:
    case Case::finished: break;
    }

    if (phase.which == Case::finished) {
        content.texts.push_back({ImportRun::headline(phase), Style::bold});
        if (auto advice = ImportRun::failureAdvice(phase)) content.texts.push_back({*advice, Style::warning});
    }
    content.texts.push_back({ImportRun::statusLine(state.pending, state.imported), Style::secondary});
    for (const auto& note : state.notes)
        content.texts.push_back({note, Style::warning});
    if (!state.pending.empty())
        content.buttons.push_back({.title = "Import Backups", .action = Action::importAll, .isDefault = true});
    if (state.imported >= 1) content.buttons.push_back({.title = "Open Morvane", .action = Action::openMorvane});
    return content;
}

} // namespace

HelperViewModel HelperViewModel::of(const State& state) {
    HelperViewModel view;
    view.heading = {"Time Machine Helper", Style::title};
    view.subheading = {"Brings your Time Machine backups into Morvane from the Mac App Store, so you can restore "
                       "events from before you installed it.",
                       Style::secondary};

    Step open{.number = 1, .done = state.appStoreEditionOpened, .title = "Open Morvane once"};
    if (!open.done)
        open.content.texts.push_back(
            {"Install Morvane from the Mac App Store and open it, then come back here.", Style::secondary});

    Step access{.number = 2, .done = state.hasFullDiskAccess, .title = "Allow Full Disk Access"};
    if (!access.done) {
        access.content.texts.push_back({ImportRun::fullDiskAccessAdvice, Style::secondary});
        access.content.buttons.push_back({.title = "Open Privacy & Security…", .action = Action::openPrivacySettings});
    }

    Step import{.number = 3, .done = importStepDone(state), .title = "Bring in your backups"};
    if (state.appStoreEditionOpened && state.hasFullDiskAccess) import.content = importSection(state);

    view.steps = {std::move(open), std::move(access), std::move(import)};
    view.footer = {"The helper only copies calendar data out of your backups. Your backups and your calendars "
                   "aren't changed, and nothing leaves your Mac.",
                   Style::footnote};
    view.removeButton = {
        .title = "Remove Helper…", .action = Action::confirmRemove, .enabled = !state.phase.isBusy(), .small = true};
    return view;
}

HelperViewModel HelperViewModel::of(const HelperModel& model) {
    return of(State{.hasFullDiskAccess = model.hasFullDiskAccess(),
                    .appStoreEditionOpened = model.appStoreEditionOpened(),
                    .pending = model.pending(),
                    .notes = model.notes(),
                    .imported = model.imported(),
                    .phase = model.phase()});
}

} // namespace morvane
