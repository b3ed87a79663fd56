#include "MorvaneCore/Shared/Errors.h"

namespace morvane {

BackupLocatorError BackupLocatorError::notFound(const std::string& path, const std::string& reason) {
    return {Case::notFound, path, "No Calendar.sqlitedb found under " + path + (reason.empty() ? "" : ": " + reason)};
}

BackupLocatorError BackupLocatorError::copyFailed(const std::string& cause) {
    return {Case::copyFailed, cause, "Copy failed: " + cause};
}

} // namespace morvane
