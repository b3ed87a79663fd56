#include "MorvaneCore/Uninstall/Uninstaller.h"

#include "MorvanePlatform/Bundle.h"
#include "MorvanePlatform/UserDefaults.h"
#include "MorvanePlatform/UserFolders.h"

#include <filesystem>

namespace morvane::Uninstaller {

void removeSettings() {
    const auto identifier = Bundle::current().identifier();
    if (!identifier) return;
    auto& defaults = UserDefaults::current();
    defaults.removePersistentDomain(*identifier);
    defaults.synchronize();
    // The defaults may keep their file elsewhere; this is the one the user would find.
    std::error_code ignored;
    std::filesystem::remove(UserFolders::current().home() / "Library/Preferences" / (*identifier + ".plist"), ignored);
}

} // namespace morvane::Uninstaller
