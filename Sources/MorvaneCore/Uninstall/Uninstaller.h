#pragma once

// Removing what the product leaves on the machine.
namespace morvane::Uninstaller {

// Forgets the running application's settings and deletes its preferences file
// (Library/Preferences/{bundle identifier}.plist). Does nothing for a program without a bundle
// identifier. Never fails.
void removeSettings();

} // namespace morvane::Uninstaller
