#include "MorvaneHelper/HelperViewModel.h"
#include "Support/Mapped.h"

#include <gtest/gtest.h>

namespace morvane {
namespace {

using Phase = HelperModel::Phase;
using Style = HelperViewModel::Style;
using Text = HelperViewModel::Text;
using Action = HelperViewModel::Action;
using State = HelperViewModel::State;

// 2024-03-01 10:15 in the pinned zone (America/Los_Angeles), and later days.
Date march(int day, int hour = 10) {
    return Date::fromSecondsSince1970(1709316900.0 + (day - 1) * 86400.0 + (hour - 10) * 3600.0);
}

BackupSource backup(std::optional<Date> date, const std::string& name) {
    return {BackupSource::Kind::timeMachine("/Volumes/Backup/Backups.backupdb/Mac/" + name), date};
}

std::vector<std::string> titles(const std::vector<HelperViewModel::Button>& buttons) {
    return testing::mapped(buttons, &HelperViewModel::Button::title);
}

TEST(HelperViewModelTest, EachStepExplainsItselfUntilDoneAndTheImportSectionNeedsBoth) {
    // The words of the first two steps are what the window tests read off the screen.
    const auto view = HelperViewModel::of(State{});
    ASSERT_EQ(view.steps.size(), 3u);
    EXPECT_EQ(view.steps[1].content.buttons.at(0).action, Action::openPrivacySettings);
    EXPECT_TRUE(view.steps[2].content.empty());

    auto onlyAccess = State{.hasFullDiskAccess = true};
    onlyAccess.pending = {backup(march(1), "a")};
    const auto accessView = HelperViewModel::of(onlyAccess);
    EXPECT_FALSE(accessView.steps[0].done);
    EXPECT_TRUE(accessView.steps[1].done);
    EXPECT_TRUE(accessView.steps[1].content.empty());
    EXPECT_TRUE(accessView.steps[2].content.empty());
    const auto opened = HelperViewModel::of(State{.appStoreEditionOpened = true});
    EXPECT_TRUE(opened.steps[0].done && opened.steps[0].content.empty());
    EXPECT_FALSE(opened.steps[1].done);
}

// The words of a run that brings backups in, and of one where every backup failed, are those of
// `morvane timemachine import`, whose tests read them.
TEST(HelperViewModelTest, TheImportSectionInEveryPhase) {
    const std::string again = "Run the helper again any time to bring in newer backups.";
    struct Case {
        const char* name;
        Phase phase;
        std::vector<BackupSource> pending;
        int imported;
        std::vector<Text> texts;
        std::vector<std::string> buttons;
        bool done;
    };
    const Case cases[] = {
        {"nothing found", Phase{}, {}, 0, {{"No Time Machine backups found.", Style::secondary}}, {}, false},
        {"pending, undated left out",
         Phase{},
         {backup(march(1), "a"), backup(std::nullopt, "undated"), backup(march(3), "c")},
         2,
         {{"Found 2 backups to copy (one per day), March 1, 2024 to March 3, 2024. This can take a few minutes.",
           Style::secondary}},
         {"Import Backups", "Open Morvane"},
         false},
        {"one pending",
         Phase{},
         {backup(march(2), "b")},
         0,
         {{"Found 1 backup to copy (one per day), March 2, 2024. This can take a few minutes.", Style::secondary}},
         {"Import Backups"},
         false},
        {"two moments of one day",
         Phase{},
         {backup(march(2, 9), "b"), backup(march(2, 11), "c")},
         0,
         {{"Found 2 backups to copy (one per day), March 2, 2024 to March 2, 2024. This can take a few minutes.",
           Style::secondary}},
         {"Import Backups"},
         false},
        {"one restore point",
         Phase{},
         {},
         1,
         {{"1 restore point from Time Machine is in Morvane, on its timeline. " + again, Style::secondary}},
         {"Open Morvane"},
         true},
        {"nothing new",
         Phase::finished(0, 3, 0),
         {},
         4,
         {{"Done. No new calendar changes in those backups.", Style::bold},
          {"4 restore points from Time Machine are in Morvane, on its timeline. " + again, Style::secondary}},
         {"Open Morvane"},
         true},
        {"some failed",
         Phase::finished(1, 3, 2),
         {},
         4,
         {{"Done. Added 1 restore point.", Style::bold},
          {"2 backups couldn't be read. Is the backup disk still connected? Click Import Backups to try them again.",
           Style::warning},
          {"4 restore points from Time Machine are in Morvane, on its timeline. " + again, Style::secondary}},
         {"Open Morvane"},
         true},
        {"failure",
         Phase::failure("Something went wrong."),
         {},
         4,
         {{"Something went wrong.", Style::error}},
         {},
         true},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.name);
        State state{.hasFullDiskAccess = true, .appStoreEditionOpened = true};
        state.phase = each.phase;
        state.pending = each.pending;
        state.imported = each.imported;
        const auto view = HelperViewModel::of(state);
        EXPECT_EQ(view.steps[2].content.texts, each.texts);
        EXPECT_EQ(titles(view.steps[2].content.buttons), each.buttons);
        EXPECT_EQ(view.steps[2].done, each.done);
        EXPECT_TRUE(view.removeButton.enabled);
    }

    // Notes follow the status line as warnings; importing is the default button.
    State noted{.hasFullDiskAccess = true, .appStoreEditionOpened = true};
    noted.pending = {backup(march(1), "a")};
    noted.notes = {"The backup disk isn't connected."};
    const auto view = HelperViewModel::of(noted);
    EXPECT_EQ(view.steps[2].content.texts.back(), (Text{"The backup disk isn't connected.", Style::warning}));
    EXPECT_TRUE(view.steps[2].content.buttons.at(0).isDefault);
}

} // namespace
} // namespace morvane
