#include "MorvaneCore/Shared/Errors.h"

namespace morvane {

BackupLocatorError BackupLocatorError::notFound(const std::string& path) {
    return {Case::notFound, path, "No Calendar.sqlitedb found under " + path};
}

BackupLocatorError BackupLocatorError::copyFailed(const std::string& cause) {
    return {Case::copyFailed, cause, "Copy failed: " + cause};
}

} // namespace morvane
