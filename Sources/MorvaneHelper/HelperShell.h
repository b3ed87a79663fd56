#pragma once

#include "MorvanePlatform/Replaceable.h"

#include <optional>
#include <string>
#include <vector>

namespace morvane {

// A modal question to the user.
struct Alert {
    std::string message;
    std::string informativeText;
    std::vector<std::string> buttons; // in order, the first being the default
    bool firstButtonDestructive = false;
    std::optional<std::string> checkbox; // the title of a checkbox, off at first, under the text

    friend bool operator==(const Alert&, const Alert&) = default;
};

struct AlertAnswer {
    int button = 0; // index into Alert::buttons
    bool checkboxOn = false;
};

// What the helper asks of its application: modal alerts, its windows, and its end. The window
// program installs its own for its lifetime; everything here runs on the main thread.
class HelperShell : public Replaceable<HelperShell> {
public:
    virtual ~HelperShell() = default;

    virtual AlertAnswer runAlert(const Alert& alert) = 0;
    virtual void closeAllWindows() = 0;
    // Leaves the event loop with `status` once the caller returns to it; the application then
    // ends as at any quit.
    virtual void exit(int status) = 0;

    // Without a window nobody can answer, so every alert gets its last button (the
    // cancelling one) and nothing is removed unasked.
    static HelperShell& system();
};

} // namespace morvane
