#include "MorvaneHelper/HelperViewModel.h"

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

State permitted() { return {.hasFullDiskAccess = true, .appStoreEditionOpened = true}; }

std::vector<std::string> titles(const std::vector<HelperViewModel::Button>& buttons) {
    std::vector<std::string> result;
    for (const auto& button : buttons)
        result.push_back(button.title);
    return result;
}

const HelperViewModel::Content& importSection(const HelperViewModel& view) { return view.steps.at(2).content; }

TEST(HelperViewModelTest, WithoutPermissionsTheFirstTwoStepsExplainAndTheThirdIsBare) {
    const auto view = HelperViewModel::of(State{});
    ASSERT_EQ(view.steps.size(), 3u);
    EXPECT_EQ(view.heading, (Text{"Time Machine Helper", Style::title}));
    EXPECT_EQ(view.subheading.style, Style::secondary);

    EXPECT_EQ(view.steps[0].title, "Open Morvane once");
    EXPECT_FALSE(view.steps[0].done);
    EXPECT_EQ(view.steps[0].content.texts,
              (std::vector<Text>{
                  {"Install Morvane from the Mac App Store and open it, then come back here.", Style::secondary}}));

    EXPECT_EQ(view.steps[1].title, "Allow Full Disk Access");
    EXPECT_EQ(view.steps[1].content.texts.at(0).text,
              "macOS only lets apps read Time Machine backups with Full Disk Access. Turn on Morvane Time Machine "
              "Helper in Privacy & Security → Full Disk Access, then come back.");
    ASSERT_EQ(view.steps[1].content.buttons.size(), 1u);
    EXPECT_EQ(view.steps[1].content.buttons[0].title, "Open Privacy & Security…");
    EXPECT_EQ(view.steps[1].content.buttons[0].action, Action::openPrivacySettings);

    EXPECT_EQ(view.steps[2].title, "Bring in your backups");
    EXPECT_FALSE(view.steps[2].done);
    EXPECT_TRUE(view.steps[2].content.empty());

    EXPECT_EQ(view.footer.style, Style::footnote);
    EXPECT_EQ(view.removeButton.title, "Remove Helper…");
    EXPECT_TRUE(view.removeButton.enabled);
}

TEST(HelperViewModelTest, StepsAreIndependentAndTheImportSectionNeedsBoth) {
    auto onlyAccess = State{.hasFullDiskAccess = true};
    onlyAccess.pending = {backup(march(1), "a")};
    const auto view = HelperViewModel::of(onlyAccess);
    EXPECT_FALSE(view.steps[0].done);
    EXPECT_TRUE(view.steps[1].done);
    EXPECT_TRUE(view.steps[1].content.empty());
    EXPECT_TRUE(importSection(view).empty());

    const auto opened = HelperViewModel::of(State{.appStoreEditionOpened = true});
    EXPECT_TRUE(opened.steps[0].done);
    EXPECT_TRUE(opened.steps[0].content.empty());
    EXPECT_FALSE(opened.steps[1].done);
}

TEST(HelperViewModelTest, NothingFoundAndNothingImportedOffersNoButton) {
    const auto view = HelperViewModel::of(permitted());
    EXPECT_EQ(importSection(view).texts, (std::vector<Text>{{"No Time Machine backups found.", Style::secondary}}));
    EXPECT_TRUE(importSection(view).buttons.empty());
    EXPECT_FALSE(view.steps[2].done);
}

TEST(HelperViewModelTest, PendingBackupsWithRestorePointsOfferBothButtonsAndLeaveTheStepOpen) {
    auto state = permitted();
    state.pending = {backup(march(1), "a"), backup(std::nullopt, "undated"), backup(march(3), "c")};
    state.notes = {"The backup disk isn't connected."};
    state.imported = 2;
    const auto view = HelperViewModel::of(state);
    EXPECT_FALSE(view.steps[2].done);
    EXPECT_EQ(importSection(view).texts,
              (std::vector<Text>{{"Found 2 backups to copy (one per day), March 1, 2024 to March 3, 2024. This can "
                                  "take a few minutes.",
                                  Style::secondary},
                                 {"The backup disk isn't connected.", Style::warning}}));
    EXPECT_EQ(titles(importSection(view).buttons), (std::vector<std::string>{"Import Backups", "Open Morvane"}));
    EXPECT_TRUE(importSection(view).buttons[0].isDefault);
    EXPECT_FALSE(importSection(view).buttons[1].isDefault);
}

TEST(HelperViewModelTest, OnePendingDateNamesNoRange) {
    auto state = permitted();
    state.pending = {backup(march(2), "b")};
    EXPECT_EQ(importSection(HelperViewModel::of(state)).texts.at(0).text,
              "Found 1 backup to copy (one per day), March 2, 2024. This can take a few minutes.");

    // Two moments of one day still print both ends.
    state.pending = {backup(march(2, 9), "b"), backup(march(2, 11), "c")};
    EXPECT_EQ(importSection(HelperViewModel::of(state)).texts.at(0).text,
              "Found 2 backups to copy (one per day), March 2, 2024 to March 2, 2024. This can take a few minutes.");
}

TEST(HelperViewModelTest, RestorePointsLineCountsThem) {
    auto state = permitted();
    state.imported = 1;
    auto view = HelperViewModel::of(state);
    EXPECT_TRUE(view.steps[2].done);
    EXPECT_EQ(importSection(view).texts.at(0).text,
              "1 restore point from Time Machine is in Morvane, on its timeline. Run the helper again any time to "
              "bring in newer backups.");
    EXPECT_EQ(titles(importSection(view).buttons), (std::vector<std::string>{"Open Morvane"}));

    state.imported = 12;
    view = HelperViewModel::of(state);
    EXPECT_EQ(importSection(view).texts.at(0).text,
              "12 restore points from Time Machine are in Morvane, on its timeline. Run the helper again any time to "
              "bring in newer backups.");
}

TEST(HelperViewModelTest, BusyPhasesShowProgressHideButtonsAndDisableRemoval) {
    auto state = permitted();
    state.pending = {backup(march(1), "a")};
    state.imported = 3;

    state.phase = Phase::scanning();
    auto view = HelperViewModel::of(state);
    EXPECT_EQ(importSection(view).spinner, "Looking for Time Machine backups…");
    EXPECT_TRUE(importSection(view).texts.empty());
    EXPECT_TRUE(importSection(view).buttons.empty());
    EXPECT_FALSE(view.removeButton.enabled);
    EXPECT_FALSE(view.steps[2].done);

    state.phase = Phase::importing(1, 5, "Mar 2, 2024, 10:15\u202FAM");
    view = HelperViewModel::of(state);
    EXPECT_EQ(importSection(view).progress,
              (HelperViewModel::Progress{.value = 1,
                                         .total = 5,
                                         .label = "Copying backup 2 of 5",
                                         .currentValueLabel = "Mar 2, 2024, 10:15\u202FAM"}));
    EXPECT_TRUE(importSection(view).buttons.empty());
    EXPECT_FALSE(view.removeButton.enabled);
}

TEST(HelperViewModelTest, RunResultsInTheirWords) {
    auto state = permitted();
    state.imported = 4;

    state.phase = Phase::finished(0, 3, 0);
    auto view = HelperViewModel::of(state);
    EXPECT_TRUE(view.steps[2].done);
    ASSERT_EQ(importSection(view).texts.size(), 2u);
    EXPECT_EQ(importSection(view).texts[0], (Text{"Done. No new calendar changes in those backups.", Style::bold}));
    EXPECT_EQ(importSection(view).texts[1].style, Style::secondary);
    EXPECT_TRUE(view.removeButton.enabled);

    state.phase = Phase::finished(1, 3, 2);
    view = HelperViewModel::of(state);
    EXPECT_EQ(importSection(view).texts[0], (Text{"Done. Added 1 restore point.", Style::bold}));
    EXPECT_EQ(importSection(view).texts[1],
              (Text{"2 backups couldn't be read. Is the backup disk still connected? Click Import Backups to try them "
                    "again.",
                    Style::warning}));

    // Every backup failed: the headline says so, the advice names the one, and the failed backup
    // is pending again after the rescan.
    state.phase = Phase::finished(0, 1, 1);
    state.pending = {backup(march(4), "d")};
    view = HelperViewModel::of(state);
    EXPECT_TRUE(view.steps[2].done);
    EXPECT_EQ(importSection(view).texts[0], (Text{"The backups couldn't be read.", Style::bold}));
    EXPECT_EQ(importSection(view).texts[1].text, "1 backup couldn't be read. Is the backup disk still connected? "
                                                 "Click Import Backups to try it again.");
    EXPECT_EQ(titles(importSection(view).buttons), (std::vector<std::string>{"Import Backups", "Open Morvane"}));

    state.phase = Phase::failure("Something went wrong.");
    view = HelperViewModel::of(state);
    EXPECT_EQ(importSection(view).texts, (std::vector<Text>{{"Something went wrong.", Style::error}}));
    EXPECT_TRUE(importSection(view).buttons.empty());
}

} // namespace
} // namespace morvane
