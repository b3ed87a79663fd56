#include "MorvaneHelper/HelperShell.h"

namespace morvane {
namespace {

class Windowless final : public HelperShell {
public:
    AlertAnswer runAlert(const Alert& alert) override {
        return {.button = alert.buttons.empty() ? 0 : static_cast<int>(alert.buttons.size()) - 1};
    }
    void closeAllWindows() override {}
    // Without a window there is no event loop to leave; the program ends by returning from main.
    void exit(int) override {}
};

} // namespace

HelperShell& HelperShell::system() {
    static Windowless shell;
    return shell;
}

} // namespace morvane
