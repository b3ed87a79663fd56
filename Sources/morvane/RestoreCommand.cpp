#include "morvane/RestoreCommand.h"

#include "MorvaneCore/Backups/BackupCatalog.h"
#include "MorvaneCore/Restore/RestoreEngine.h"
#include "morvane/CommandLine.h"
#include "morvane/PlanCommand.h"

#include <algorithm>
#include <functional>
#include <iostream>
#include <optional>
#include <ostream>
#include <unistd.h>

namespace morvane::cli {
namespace {

// Whether the person at the terminal says yes; no terminal means nobody can.
bool confirmed(std::size_t count, std::ostream& prompt) {
    prompt << "Restore " << count << (count == 1 ? " event" : " events") << "? [y/N] " << std::flush;
    std::string answer;
    if (!std::getline(std::cin, answer)) return false;
    return answer == "y" || answer == "Y" || answer == "yes" || answer == "Yes";
}

// Asks before `count` events are written; gives the exit status when nothing may be written
// (no terminal to ask, or the answer was no), nothing when the restore may go on. With JSON the
// question goes to standard error, after what `showForJSON` prints there, so that the document
// on standard output stays whole.
std::optional<int> askBeforeWriting(RestoreEngine& engine, std::size_t count, bool json, std::ostream& out,
                                    std::ostream& err, const std::function<void(std::ostream&)>& showForJSON) {
    if (isatty(STDIN_FILENO) == 0) {
        engine.close();
        err << "morvane: restore asks before writing, and there is no terminal to ask; pass --yes to "
               "restore without asking. Nothing was restored.\n";
        return exitUsage;
    }
    auto& shown = json ? err : out;
    if (json) showForJSON(shown);
    if (!confirmed(count, shown)) {
        engine.close();
        shown << "Nothing was restored.\n";
        return exitSuccess;
    }
    return std::nullopt;
}

void printOutcome(const RestoreEngine::RestoreOutcome& outcome, std::ostream& out) {
    out << "[" << outcome.id << "] " << outcome.title << ": "
        << (outcome.succeeded ? "Restored" : "Failed: " + outcome.message.value_or("")) << '\n';
    for (const auto& line : outcome.differences)
        out << "    " << line << '\n';
}

int restoreOccurrence(RestoreEngine& engine, const RestoreOptions& options, const std::optional<std::string>& into,
                      std::ostream& out, std::ostream& err) {
    if (!options.yes) {
        if (const auto declined = askBeforeWriting(engine, 1, options.json, out, err, [](std::ostream&) {}))
            return *declined;
    }
    const auto outcome = engine.restoreAsSingleEvent(*options.occurrence, into);
    engine.close();
    if (options.json) {
        json::Ordered document = {{"outcomes", json::Ordered::array({outcome.json()})},
                                  {"skipped", json::Ordered::array()}};
        out << json::dumpKeepingOrder(document, true) << '\n';
    } else {
        printOutcome(outcome, out);
    }
    return outcome.succeeded ? exitSuccess : exitFailure;
}

} // namespace

int runRestore(const RestoreOptions& options, std::ostream& out, std::ostream& err) {
    RestoreEngine engine;
    bool matched = true;
    const auto into = resolveInto(engine, options.into, matched, err);
    if (!matched) return exitUsage;
    if (options.occurrence.has_value() == !options.ids.empty()) {
        err << "morvane: restore takes event ids or --occurrence ITEM_ID, one of the two.\n";
        return exitUsage;
    }
    engine.load(BackupCatalog::resolve(options.backup));
    if (options.occurrence) return restoreOccurrence(engine, options, into, out, err);

    const auto plans = engine.plans(options.ids, into);
    std::vector<std::int64_t> planned;
    std::vector<RestoreEngine::PlanSummary> skipped;
    std::size_t restorable = 0;
    for (const auto& plan : plans) {
        planned.push_back(plan.id);
        if (plan.problems.empty()) {
            ++restorable;
        } else {
            skipped.push_back(plan);
        }
    }
    reportIgnored(options.ids, planned, err);

    if (!options.json) {
        for (const auto& plan : plans)
            printPlan(plan, out);
    }
    if (restorable > 0 && !options.yes) {
        const auto showPlans = [&](std::ostream& shown) {
            for (const auto& plan : plans)
                printPlan(plan, shown);
        };
        if (const auto declined = askBeforeWriting(engine, restorable, options.json, out, err, showPlans))
            return *declined;
    }

    const auto outcomes =
        restorable > 0 ? engine.restore(options.ids, into) : std::vector<RestoreEngine::RestoreOutcome>{};
    engine.close();
    const bool allSucceeded = std::all_of(outcomes.begin(), outcomes.end(), [](const auto& o) { return o.succeeded; });

    if (options.json) {
        json::Ordered document = {{"outcomes", json::Ordered::array()}, {"skipped", json::Ordered::array()}};
        for (const auto& outcome : outcomes)
            document["outcomes"].push_back(outcome.json());
        for (const auto& plan : skipped)
            document["skipped"].push_back(plan.json());
        out << json::dumpKeepingOrder(document, true) << '\n';
        return allSucceeded ? exitSuccess : exitFailure;
    }
    for (const auto& outcome : outcomes)
        printOutcome(outcome, out);
    for (const auto& plan : skipped) {
        out << "[" << plan.id << "] " << plan.title << ": Skipped\n";
        for (const auto& problem : plan.problems)
            out << "    " << problem << '\n';
    }
    return allSucceeded ? exitSuccess : exitFailure;
}

} // namespace morvane::cli
