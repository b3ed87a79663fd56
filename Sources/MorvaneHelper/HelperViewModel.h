#pragma once

#include "MorvaneHelper/HelperModel.h"

#include <optional>
#include <string>
#include <vector>

namespace morvane {

// What the helper's window shows, decided without any window toolkit: which texts, in which
// order and with which emphasis, which buttons and whether they can be pressed. The window
// draws exactly this, and tests read it. Built afresh from the model at each change.
struct HelperViewModel {
    enum class Style {
        title,     // the heading: bold, larger
        bold,      // the result of a run
        secondary, // explanations: dimmed
        footnote,  // the footer: small and dimmed
        warning,   // orange
        error,     // red
        plain,
    };

    struct Text {
        std::string text;
        Style style = Style::plain;
        friend bool operator==(const Text&, const Text&) = default;
    };

    enum class Action { openPrivacySettings, importAll, openMorvane, confirmRemove };

    struct Button {
        std::string title;
        Action action;
        bool enabled = true;
        bool isDefault = false; // pressed by Return
        bool small = false;
        friend bool operator==(const Button&, const Button&) = default;
    };

    // A determinate bar: `value` of `total`, a label above and the current item's name below.
    struct Progress {
        int value = 0;
        int total = 0;
        std::string label;
        std::string currentValueLabel;
        friend bool operator==(const Progress&, const Progress&) = default;
    };

    // What a step shows under its title, top to bottom: a bar or a spinner with its text, then
    // the texts, then the buttons in one row.
    struct Content {
        std::optional<Progress> progress;
        std::optional<std::string> spinner;
        std::vector<Text> texts;
        std::vector<Button> buttons;
        bool empty() const { return !progress && !spinner && texts.empty() && buttons.empty(); }
        friend bool operator==(const Content&, const Content&) = default;
    };

    struct Step {
        int number = 0;
        bool done = false;
        std::string title;
        Content content;
        friend bool operator==(const Step&, const Step&) = default;
    };

    // The model's fields the window depends on.
    struct State {
        bool hasFullDiskAccess = false;
        bool appStoreEditionOpened = false;
        std::vector<BackupSource> pending;
        std::vector<std::string> notes;
        int imported = 0;
        HelperModel::Phase phase;
    };

    static constexpr const char* windowTitle = "Morvane Time Machine Helper";
    static constexpr int width = 520;

    Text heading;
    Text subheading;
    std::vector<Step> steps;
    Text footer;
    Button removeButton;

    static HelperViewModel of(const State& state);
    static HelperViewModel of(const HelperModel& model);
};

} // namespace morvane
