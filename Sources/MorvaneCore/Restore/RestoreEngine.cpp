#include "MorvaneCore/Restore/RestoreEngine.h"

#include "MorvaneCore/Backups/BackupCatalog.h"
#include "MorvaneCore/Backups/BackupLocator.h"
#include "MorvaneCore/Shared/Errors.h"
#include "MorvaneCore/SnapshotStore/EventKitSnapshot.h"

#include <algorithm>
#include <exception>
#include <unicode/coll.h>
#include <unicode/locid.h>
#include <unicode/unistr.h>

namespace morvane {
namespace {

constexpr const char* otherGroup = "Other";

json::Ordered optionalText(const std::optional<std::string>& text) {
    return text ? json::Ordered(*text) : json::Ordered(nullptr);
}

// The localised standard comparison of names shown in lists: by the user's locale, digits as
// numbers ("Team 2" before "Team 10"). Falls back to plain bytes when ICU has no collator.
class NaturalOrder {
public:
    NaturalOrder() {
        UErrorCode status = U_ZERO_ERROR;
        collator_.reset(icu::Collator::createInstance(icu::Locale::getDefault(), status));
        if (U_FAILURE(status)) {
            collator_.reset();
            return;
        }
        collator_->setAttribute(UCOL_NUMERIC_COLLATION, UCOL_ON, status);
    }

    int compare(const std::string& a, const std::string& b) const {
        if (!collator_) return a.compare(b);
        UErrorCode status = U_ZERO_ERROR;
        const auto result =
            collator_->compare(icu::UnicodeString::fromUTF8(a), icu::UnicodeString::fromUTF8(b), status);
        if (U_FAILURE(status)) return a.compare(b);
        return result == UCOL_LESS ? -1 : result == UCOL_GREATER ? 1 : 0;
    }

private:
    std::unique_ptr<icu::Collator> collator_;
};

} // namespace

json::Ordered RestoreEngine::CalendarInfo::json() const {
    return {
        {"id", id}, {"title", title}, {"colorHex", optionalText(colorHex)}, {"group", group}, {"writable", writable}};
}

json::Ordered RestoreEngine::PlanSummary::json() const {
    return {{"id", id},
            {"title", title},
            {"startText", startText},
            {"targetName", targetName},
            {"recurrence", optionalText(recurrence)},
            {"deletedOccurrences", deletedOccurrences},
            {"editedOccurrences", editedOccurrences},
            {"warnings", warnings},
            {"problems", problems}};
}

json::Ordered RestoreEngine::RestoreOutcome::json() const {
    return {{"id", id},
            {"title", title},
            {"succeeded", succeeded},
            {"message", optionalText(message)},
            {"differences", differences}};
}

RestoreEngine::RestoreEngine() : RestoreEngine(std::make_shared<EKEventStore>()) {}

RestoreEngine::RestoreEngine(std::shared_ptr<EKEventStore> store) : ek_(std::move(store)) {}

void RestoreEngine::requestCalendarAccess() { ek_.requestAccess(); }

std::vector<std::pair<std::string, std::string>> RestoreEngine::writableCalendars() {
    std::vector<std::pair<std::string, std::string>> list;
    for (const auto& calendar : ek_.store()->calendarsForEntityType(EKEntityType::event)) {
        if (!calendar->allowsContentModifications) continue;
        list.emplace_back(calendar->calendarIdentifier,
                          calendar->title + " (" + (calendar->source ? calendar->source->title : "?") + ")");
    }
    return list;
}

std::optional<std::string> RestoreEngine::defaultCalendarID() {
    if (const auto calendar = ek_.store()->defaultCalendarForNewEvents()) return calendar->calendarIdentifier;
    return std::nullopt;
}

std::vector<RestoreEngine::CalendarInfo> RestoreEngine::calendarList() {
    std::vector<CalendarInfo> list;
    for (const auto& calendar : ek_.store()->calendarsForEntityType(EKEntityType::event)) {
        const bool shared = calendar->type == EKCalendarType::calDAV || calendar->type == EKCalendarType::exchange;
        list.push_back({calendar->calendarIdentifier, calendar->title, EventKitSnapshot::colorHex(*calendar),
                        shared && calendar->source ? calendar->source->title : otherGroup,
                        calendar->allowsContentModifications});
    }
    const NaturalOrder order;
    std::stable_sort(list.begin(), list.end(), [&](const CalendarInfo& a, const CalendarInfo& b) {
        if (a.group != b.group) {
            if (a.group == otherGroup || b.group == otherGroup) return b.group == otherGroup;
            return order.compare(a.group, b.group) < 0;
        }
        return order.compare(a.title, b.title) < 0;
    });
    return list;
}

Comparison RestoreEngine::load(const BackupSource& source) {
    loadWithoutComparing(source);
    return compare(false);
}

void RestoreEngine::loadWithoutComparing(const BackupSource& source) {
    close();
    ek_.requestAccess();
    // Held at once, so that a later `close` cleans up even when reading fails.
    opened_.emplace(BackupCatalog::open(source));
    allEvents_ = opened_->store->loadEvents();
    for (const auto& event : allEvents_) {
        events_.emplace(event.rowID, &event);
        if (event.masterRowID) detachedByMaster_[*event.masterRowID].push_back(event);
    }
    loadedSource_ = source;
}

Comparison RestoreEngine::compare(bool useEventKit) {
    if (!opened_ || !loadedSource_) throw RestoreError("No backup loaded.");
    CurrentEventSource& current = useEventKit ? ek_ : currentSource();
    return Comparison::of(*loadedSource_, opened_->location, allEvents_, wholeOccurrences(), current);
}

const std::optional<OccurrenceSet>& RestoreEngine::wholeOccurrences() {
    if (!occurrencesRead_ && opened_) {
        try {
            backupOccurrences_ = opened_->store->occurrences();
        } catch (const Error&) {
            // A store without an occurrence cache is still a good backup: detached occurrences
            // are still compared.
        }
        occurrencesRead_ = true;
    }
    return backupOccurrences_;
}

CurrentEventSource& RestoreEngine::currentSource() {
    if (!liveSource_) liveSource_ = BackupLocator::liveIndex([this] { return ek_.store(); });
    if (liveSource_) return *liveSource_;
    return ek_;
}

Comparison RestoreEngine::recompare(bool afterRestore) {
    ek_.store()->refreshSourcesIfNecessary();
    ek_.store()->reset();
    liveSource_.reset();
    return compare(afterRestore);
}

void RestoreEngine::calendarsChanged() { liveSource_.reset(); }

std::vector<RestorePlan> RestoreEngine::buildPlans(const std::vector<std::int64_t>& ids,
                                                   const std::optional<std::string>& into) {
    if (!opened_) throw RestoreError("No backup loaded.");
    auto& store = *ek_.store();
    const Restorer restorer(store);
    const auto target = into ? store.calendarWithIdentifier(*into) : nullptr;
    std::vector<RestorePlan> plans;
    for (const auto id : ids) {
        const auto found = events_.find(id);
        if (found == events_.end() || found->second->masterRowID) continue;
        const auto& event = *found->second;
        const bool repeats = event.snapshot.recurrence.has_value();
        auto exceptions = repeats ? opened_->store->exceptionDates(id) : std::vector<Date>{};
        const auto detached = detachedByMaster_.find(id);
        auto plan =
            restorer.plan(event, detached != detachedByMaster_.end() ? detached->second : std::vector<BackupEvent>{},
                          std::move(exceptions), target);
        if (repeats) plan.keptOccurrences = opened_->store->keptOccurrences(id);
        // Always the store itself: a copy of the database may lag behind a restore just made.
        if (ek_.contains(event)) {
            plan.problems.insert(plan.problems.begin(), "Still exists.");
        } else if (ek_.hasEquivalent(event)) {
            plan.problems.insert(plan.problems.begin(),
                                 "An event with the same title and start already exists (restored before?).");
        }
        plans.push_back(std::move(plan));
    }
    return plans;
}

RestoreEngine::PlanSummary RestoreEngine::summary(const RestorePlan& plan) {
    const auto& snapshot = plan.event.snapshot;
    return {plan.event.rowID,
            snapshot.title,
            snapshot.startText(),
            plan.targetName(),
            snapshot.recurrence ? std::optional(snapshot.recurrence->description()) : std::nullopt,
            static_cast<std::int64_t>(plan.exceptionDates.size()),
            static_cast<std::int64_t>(plan.detached.size()),
            plan.warnings,
            plan.problems};
}

std::vector<RestoreEngine::PlanSummary> RestoreEngine::plans(const std::vector<std::int64_t>& ids,
                                                             const std::optional<std::string>& into) {
    std::vector<PlanSummary> summaries;
    for (const auto& plan : buildPlans(ids, into))
        summaries.push_back(summary(plan));
    return summaries;
}

std::vector<RestoreEngine::RestoreOutcome> RestoreEngine::restore(const std::vector<std::int64_t>& ids,
                                                                  const std::optional<std::string>& into) {
    Restorer restorer(*ek_.store());
    std::vector<RestoreOutcome> outcomes;
    for (auto& plan : buildPlans(ids, into)) {
        if (!plan.problems.empty()) continue;
        const auto id = plan.event.rowID;
        auto title = plan.event.snapshot.title;
        try {
            auto result = restorer.restore(std::move(plan));
            outcomes.push_back({id, std::move(title), true, std::nullopt, std::move(result.verification)});
        } catch (const std::exception& error) {
            outcomes.push_back({id, std::move(title), false, std::string(error.what()), {}});
        }
    }
    return outcomes;
}

void RestoreEngine::close() {
    if (opened_) opened_->close();
    opened_.reset();
    events_.clear();
    allEvents_.clear();
    backupOccurrences_.reset();
    occurrencesRead_ = false;
    loadedSource_.reset();
    detachedByMaster_.clear();
}

} // namespace morvane
