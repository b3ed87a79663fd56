#pragma once

#include "MorvaneCore/Backups/BackupSource.h"
#include "MorvaneCore/Database/BackupStore.h"
#include "MorvaneCore/Shared/Date.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace morvane {

class EKEventStore;

// Finds events by a word across many backups: each backup is opened once, reduced to a small
// index in memory and let go of at once, so that later queries over the same backups touch no
// file. Matches are grouped by event (series key), with how many backups hold it and whether the
// live calendars still do.
//
// How updates arrive: `search` blocks on the caller's thread and hands an Update to a callback
// after each backup; the callback's answer says whether to go on. We chose this over a pull
// iterator because a backup's opening must finish (and its mount and staged copy go) before
// anything is handed out, which a callback gives for free, and because a front end that must
// not block runs the whole call on a worker thread and forwards each update, stopping by
// answering false; a pull iterator would hold a half-walked search open between pulls instead.
//
// Threads: one operation at a time; the object has no lock. Any thread may use it, one at a time.
class BackupSearch {
public:
    // One top-level event of a backup.
    struct Entry {
        // The series key: the unique identifier cut before the first "/RID=".
        std::string uid;
        // Trimmed of spaces and tabs at both ends.
        std::string title;
        std::optional<std::string> location;
        // Real instants: a floating event's wall clock is brought to the current zone.
        Date start;
        Date end;
        bool isAllDay = false;
        bool isRepeating = false;
        std::string calendarName;
        std::optional<std::string> calendarID;
        std::optional<std::string> colorHex;
        // `uid`; for a repeating event "{uid}|{start as stored, rounded whole seconds}".
        std::string itemID;

        // The entry of an event that isn't a detached occurrence.
        static Entry of(const BackupEvent& event);

        friend bool operator==(const Entry&, const Entry&) = default;
    };

    // One event found, as first seen; identified by `entry.uid`.
    struct Result {
        Entry entry;
        BackupSource source;
        // Matches of this series so far, over all backups searched; an event under two calendars
        // of one backup counts twice.
        std::int64_t backupCount = 0;
        bool existsNow = false;

        const std::string& id() const { return entry.uid; }
    };

    struct Update {
        // In the order in which each series was first found.
        std::vector<Result> results;
        // Backups dealt with, unreadable ones included.
        std::int64_t searched = 0;
        std::int64_t total = 0;
        // The titles of the backups that couldn't be read, in order.
        std::vector<std::string> unreadable;
    };

    // Gets each update; returns whether to go on with the next backup.
    using UpdateHandler = std::function<bool(const Update&)>;

    // No indexes yet. The event store that tells whether an event still exists is made on the
    // first question (the live calendars, on this machine), or is the one given.
    BackupSearch() = default;
    explicit BackupSearch(std::shared_ptr<EKEventStore> store) : store_(std::move(store)) {}
    BackupSearch(const BackupSearch&) = delete;
    BackupSearch& operator=(const BackupSearch&) = delete;

    // Walks `in`, in that order, matching `query` (trimmed of spaces and tabs) against each
    // entry's title and location, ignoring case under the user's locale; characters with a
    // meaning in patterns are matched as they stand. After each backup, `onUpdate` gets all
    // results so far; when it answers false the walk stops before the next backup, keeping the
    // indexes built. An empty query builds the indexes and matches nothing; no sources, no update.
    // Never fails: a backup that can't be opened or read is listed in `unreadable` and tried again
    // by the next search; a live lookup that fails counts as the event not existing. What
    // `onUpdate` throws passes through, the indexes built so far kept.
    void search(std::string_view query, const std::vector<BackupSource>& in, const UpdateHandler& onUpdate);

    // Drops the index of every backup whose id isn't in `except`.
    void forget(const std::set<std::string>& except);

    // How many backups have an index in memory.
    std::size_t indexedCount() const { return indexes_.size(); }

    // Whether `text` contains `query` when case is ignored under the user's locale (and canonical
    // equivalents are equal). An empty query is in no text.
    static bool contains(std::string_view text, std::string_view query);

private:
    // A backup's entries, with the texts the matching compares, folded once.
    struct Index {
        std::vector<Entry> entries;
        std::vector<std::string> foldedTitles;
        // Empty where the entry has no location.
        std::vector<std::optional<std::string>> foldedLocations;
    };

    // The index of `source`, reading the backup when it has none yet; nothing when it can't be read.
    const Index* index(const BackupSource& source);
    bool existsNow(const std::string& uid);

    std::unordered_map<std::string, Index> indexes_;
    std::shared_ptr<EKEventStore> store_;
};

} // namespace morvane
