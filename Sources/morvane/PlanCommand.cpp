#include "morvane/PlanCommand.h"

#include "MorvaneCore/Backups/BackupCatalog.h"
#include "MorvaneCore/Restore/RestoreEngine.h"
#include "morvane/CommandLine.h"

#include <algorithm>
#include <ostream>

namespace morvane::cli {

std::optional<std::string> resolveInto(RestoreEngine& engine, const std::optional<std::string>& into, bool& matched,
                                       std::ostream& err) {
    engine.requestCalendarAccess();
    matched = true;
    if (!into) return std::nullopt;
    if (const auto calendar = Restorer(*engine.eventKit().store()).calendar(*into)) return calendar->calendarIdentifier;
    matched = false;
    err << "morvane: no calendar matches '" << *into
        << "' (or its title is shared). Name one by its identifier or its label:\n";
    for (const auto& [identifier, label] : engine.writableCalendars())
        err << "  " << label << "  " << identifier << '\n';
    return std::nullopt;
}

void reportIgnored(const std::vector<std::int64_t>& asked, const std::vector<std::int64_t>& planned,
                   std::ostream& err) {
    std::string ignored;
    for (const auto id : asked) {
        if (std::find(planned.begin(), planned.end(), id) != planned.end()) continue;
        ignored += (ignored.empty() ? "" : ", ") + std::to_string(id);
    }
    if (!ignored.empty())
        err << "Ignored (not an event of this backup, or an edited occurrence, not a series): " << ignored << '\n';
}

int runPlan(const PlanOptions& options, std::ostream& out, std::ostream& err) {
    RestoreEngine engine;
    bool matched = true;
    const auto into = resolveInto(engine, options.into, matched, err);
    if (!matched) return exitUsage;
    engine.load(BackupCatalog::resolve(options.backup));
    const auto plans = engine.plans(options.ids, into);
    engine.close();

    std::vector<std::int64_t> planned;
    for (const auto& plan : plans)
        planned.push_back(plan.id);
    reportIgnored(options.ids, planned, err);
    if (options.json) {
        json::Ordered list = json::Ordered::array();
        for (const auto& plan : plans)
            list.push_back(plan.json());
        out << json::dumpKeepingOrder(list, true) << '\n';
        return exitSuccess;
    }
    for (const auto& plan : plans)
        printPlan(plan, out);
    return exitSuccess;
}

void printPlan(const RestoreEngine::PlanSummary& plan, std::ostream& out) {
    out << "[" << plan.id << "] " << plan.title << '\n';
    out << "    starts: " << plan.startText << '\n';
    out << "    into: " << plan.targetName << '\n';
    if (plan.recurrence) {
        out << "    repeats: " << *plan.recurrence << '\n';
        out << "    occurrences: " << plan.deletedOccurrences << " deleted, " << plan.editedOccurrences << " edited\n";
    }
    for (const auto& warning : plan.warnings)
        out << "    warning: " << warning << '\n';
    for (const auto& problem : plan.problems)
        out << "    problem: " << problem << '\n';
}

} // namespace morvane::cli
