#include "morvane/UninstallCommand.h"

#include "MorvaneCore/Uninstall/Uninstaller.h"
#include "MorvanePlatform/Accounts.h"
#include "morvane/CommandLine.h"
#include "morvane/StorageCommand.h"

#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <ostream>
#include <string>

namespace morvane::cli {
namespace {

// Asks on the terminal; only an answer starting with "y" counts as yes.
bool confirmed(std::ostream& out) {
    out << "Remove these? [y/N] " << std::flush;
    std::string answer;
    if (!std::getline(std::cin, answer)) return false;
    return !answer.empty() && (answer[0] == 'y' || answer[0] == 'Y');
}

} // namespace

int runUninstall(const UninstallOptions& options, std::ostream& out, std::ostream& err) {
    const bool terminal = &out == &std::cout && isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1;
    if (!options.yes && !terminal) {
        err << "morvane: nothing removed: add --yes to remove without being asked.\n";
        return exitUsage;
    }

    out << "To be removed:\n";
    printSizes(Uninstaller::sizes(), options.restorePoints, options.copies, "  ", out);
    out << "  Working copies and snapshot mounts left by this program\n";
    std::error_code ignored;
    if (std::filesystem::exists(accounts::file(), ignored))
        out << "  The CalDAV accounts and their passwords (" << accounts::file().string() << ")\n";
    if (!options.restorePoints) out << "Restore points stay (--restore-points removes them).\n";
    out << "Copying to the shared folder will be off. Your calendars stay as they are.\n";
    if (!options.yes && !confirmed(out)) {
        out << "Nothing removed.\n";
        return exitSuccess;
    }

    const auto failures = Uninstaller::removeData(options.restorePoints, options.copies);
    for (const auto& failure : failures)
        err << "morvane: " << failure << '\n';
    if (!failures.empty()) return exitFailure;
    out << "Removed.\n";
    return exitSuccess;
}

} // namespace morvane::cli
