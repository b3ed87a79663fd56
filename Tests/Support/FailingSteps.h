#pragma once

#include "MorvanePlatform/EventStore/SQLiteHandles.h"

#include <sqlite3.h>

namespace morvane::testing {

// Fails the Nth call of the event store that runs a statement with an I/O error, as a full disk or
// a lost file would; every other call goes through. Install it with ScopedReplacement.
class FailingNthStep final : public sqlite::Steps {
public:
    explicit FailingNthStep(int n) : n_(n) {}

    int step(sqlite3_stmt* statement) override { return fails() ? SQLITE_IOERR : system().step(statement); }
    int execute(sqlite3* db, const char* sql, char** message) override {
        return fails() ? SQLITE_IOERR : system().execute(db, sql, message);
    }
    // Whether the call meant to fail has come.
    bool failed() const { return calls_ >= n_; }

private:
    bool fails() { return ++calls_ == n_; }

    const int n_;
    int calls_ = 0;
};

} // namespace morvane::testing
