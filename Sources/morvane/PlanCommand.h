#pragma once

#include "MorvaneCore/Restore/RestoreEngine.h"

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace morvane::cli {

struct PlanOptions {
    std::string backup;
    std::vector<std::int64_t> ids;
    std::optional<std::string> into;
    bool json = false;
};

// `morvane plan BACKUP ID... [--into CALENDAR] [--json]`: what restoring the events with these
// ids (as `compare` shows them) would do, one block per plan, nothing written. Ids that give no
// plan are named on `err`. Exit 2 when CALENDAR matches no calendar; throws, for the command
// table to report, what loading the backup or planning throws.
int runPlan(const PlanOptions& options, std::ostream& out, std::ostream& err);

// What `plan` and `restore` share.

// Asks for calendar access, then resolves `into` (an identifier, a label "{title} ({source})" or
// a title only one calendar has) to an identifier. Nothing when `into` is absent; on no match,
// writes the writable calendars to `err` and gives nothing with `matched` false.
std::optional<std::string> resolveInto(RestoreEngine& engine, const std::optional<std::string>& into, bool& matched,
                                       std::ostream& err);
// One plan as a block of lines: "[id] title", then the start, the target, the rule and its
// occurrence counts, each warning and each problem, indented.
void printPlan(const RestoreEngine::PlanSummary& plan, std::ostream& out);
// Names on `err` the ids that gave no plan.
void reportIgnored(const std::vector<std::int64_t>& asked, const std::vector<std::int64_t>& planned, std::ostream& err);

} // namespace morvane::cli
