#pragma once

#include "MorvanePlatform/Replaceable.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <sqlite3.h>
#include <string>
#include <string_view>

// Owners of SQLite's C handles for the event store. Failures throw EventStoreError with SQLite's
// own explanation after `what`.
namespace morvane::sqlite {

// The calls that run statements: every step and every `execute` goes through `current()`, so that
// a test can put a forwarding wrapper around `system()` that fails the Nth call, as a full disk or
// a lost file would. Rolling back after a failure calls SQLite directly: it has to run whatever
// failed before it.
//
// Threads: every thread that uses a store calls it, concurrently when stores work at once; the
// real one holds no state. A failing wrapper is for a test whose writes run on one thread.
class Steps : public Replaceable<Steps> {
public:
    virtual ~Steps() = default;

    // sqlite3_step.
    virtual int step(sqlite3_stmt* statement) = 0;
    // sqlite3_exec without a callback; `message` as sqlite3_exec sets it.
    virtual int execute(sqlite3* db, const char* sql, char** message) = 0;

    static Steps& system();
};

struct CloseConnection {
    void operator()(sqlite3* handle) const { sqlite3_close_v2(handle); }
};
using Connection = std::unique_ptr<sqlite3, CloseConnection>;

[[noreturn]] void fail(sqlite3* db, std::string_view what);
// The same for a call that returned `code`, which may not be the connection's last error when
// the call didn't reach SQLite.
[[noreturn]] void fail(sqlite3* db, int code, std::string_view what);

// For a failure that says the file is damaged or holds no database, the reason in words ("the
// file is damaged (database disk image is malformed)"); empty for any other failure.
std::string damage(sqlite3* db, int code);

// Runs statements that return no rows.
void execute(sqlite3* db, std::string_view sql);

// One prepared statement, reset before each use. Parameters are numbered from 1, columns from 0.
class Statement {
public:
    Statement(sqlite3* db, std::string_view sql);
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    Statement& bind(int index, std::int64_t value);
    Statement& bind(int index, double value);
    Statement& bind(int index, long long value) { return bind(index, static_cast<std::int64_t>(value)); }
    Statement& bind(int index, std::string_view value);
    Statement& bind(int index, const std::string& value) { return bind(index, std::string_view(value)); }
    Statement& bind(int index, std::nullptr_t);
    Statement& bind(int index, const std::optional<std::string>& value);
    Statement& bind(int index, const std::optional<double>& value);

    // Advances to the next row; false when there is none.
    bool step();
    // Runs a statement that returns no rows, then resets it for the next use.
    void run();
    void reset();

    bool isNull(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_NULL; }
    std::int64_t integer(int column) const { return sqlite3_column_int64(statement_, column); }
    double real(int column) const { return sqlite3_column_double(statement_, column); }
    std::string text(int column) const;
    std::optional<std::int64_t> optionalInteger(int column) const;
    std::optional<double> optionalReal(int column) const;
    std::optional<std::string> optionalText(int column) const;

private:
    sqlite3* db_;
    sqlite3_stmt* statement_ = nullptr;
    bool needsReset_ = false;
};

} // namespace morvane::sqlite
