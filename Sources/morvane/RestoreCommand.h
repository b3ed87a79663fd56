#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace morvane::cli {

struct RestoreOptions {
    std::string backup;
    std::vector<std::int64_t> ids;
    // An item id of `timeline`: that one occurrence comes back as a plain event, instead of `ids`.
    std::optional<std::string> occurrence;
    std::optional<std::string> into;
    bool yes = false;
    bool json = false;
};

// `morvane restore BACKUP ID... [--into CALENDAR] [--yes] [--json]`: shows the plans, asks
// "Restore N events? [y/N]" when standard input is a terminal (unless `yes`), then restores every
// plan without problems and prints one outcome per event and the plans skipped for their
// problems. Without a terminal and without `yes` it writes nothing and exits 2, as it does when
// CALENDAR matches no calendar. Exit 0 when every restore it attempted succeeded, 1 otherwise;
// throws, for the command table to report, what loading the backup or planning throws.
// With `occurrence` instead of ids, the same for the one occurrence that item id names.
int runRestore(const RestoreOptions& options, std::ostream& out, std::ostream& err);

} // namespace morvane::cli
