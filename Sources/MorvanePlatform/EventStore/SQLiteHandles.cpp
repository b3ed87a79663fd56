#include "MorvanePlatform/EventStore/SQLiteHandles.h"

#include "MorvanePlatform/EventKit.h"

namespace morvane::sqlite {
namespace {

class SystemSteps final : public Steps {
public:
    int step(sqlite3_stmt* statement) override { return sqlite3_step(statement); }
    int execute(sqlite3* db, const char* sql, char** message) override {
        return sqlite3_exec(db, sql, nullptr, nullptr, message);
    }
};

std::string message(sqlite3* db, int code) {
    if (db != nullptr && sqlite3_errcode(db) == (code & 0xFF)) return sqlite3_errmsg(db);
    return sqlite3_errstr(code);
}

std::string explanation(sqlite3* db, int code) {
    const auto worded = damage(db, code);
    return worded.empty() ? message(db, code) : worded;
}

} // namespace

std::string damage(sqlite3* db, int code) {
    switch (code & 0xFF) {
    case SQLITE_CORRUPT: return "the file is damaged (" + message(db, code) + ")";
    case SQLITE_NOTADB: return "the file holds something else (" + message(db, code) + ")";
    default: return {};
    }
}

Steps& Steps::system() {
    static SystemSteps steps;
    return steps;
}

void fail(sqlite3* db, std::string_view what) {
    if (db == nullptr) throw EventStoreError(std::string(what) + ": out of memory");
    throw EventStoreError(std::string(what) + ": " + explanation(db, sqlite3_errcode(db)));
}

void fail(sqlite3* db, int code, std::string_view what) {
    throw EventStoreError(std::string(what) + ": " + explanation(db, code));
}

void execute(sqlite3* db, std::string_view sql) {
    char* message = nullptr;
    const int code = Steps::current().execute(db, std::string(sql).c_str(), &message);
    if (code != SQLITE_OK) {
        const std::string reason = message != nullptr ? message : explanation(db, code);
        sqlite3_free(message);
        throw EventStoreError("The event store's database failed: " + reason);
    }
}

Statement::Statement(sqlite3* db, std::string_view sql) : db_(db) {
    if (sqlite3_prepare_v2(db, sql.data(), static_cast<int>(sql.size()), &statement_, nullptr) != SQLITE_OK) {
        fail(db, "The event store's database failed");
    }
}

Statement::~Statement() { sqlite3_finalize(statement_); }

Statement& Statement::bind(int index, std::int64_t value) {
    reset();
    sqlite3_bind_int64(statement_, index, value);
    return *this;
}

Statement& Statement::bind(int index, double value) {
    reset();
    sqlite3_bind_double(statement_, index, value);
    return *this;
}

Statement& Statement::bind(int index, std::string_view value) {
    reset();
    sqlite3_bind_text(statement_, index, value.data(), static_cast<int>(value.size()), SQLITE_TRANSIENT);
    return *this;
}

Statement& Statement::bind(int index, std::nullptr_t) {
    reset();
    sqlite3_bind_null(statement_, index);
    return *this;
}

Statement& Statement::bind(int index, const std::optional<std::string>& value) {
    return value ? bind(index, std::string_view(*value)) : bind(index, nullptr);
}

Statement& Statement::bind(int index, const std::optional<double>& value) {
    return value ? bind(index, *value) : bind(index, nullptr);
}

void Statement::reset() {
    if (!needsReset_) return;
    sqlite3_reset(statement_);
    needsReset_ = false;
}

bool Statement::step() {
    needsReset_ = true;
    const int result = Steps::current().step(statement_);
    if (result == SQLITE_ROW) return true;
    if (result == SQLITE_DONE) return false;
    fail(db_, result, "The event store's database failed");
}

void Statement::run() {
    while (step()) {
    }
    reset();
    sqlite3_clear_bindings(statement_);
}

std::string Statement::text(int column) const {
    const auto* bytes = sqlite3_column_text(statement_, column);
    if (bytes == nullptr) return {};
    return std::string(reinterpret_cast<const char*>(bytes),
                       static_cast<size_t>(sqlite3_column_bytes(statement_, column)));
}

std::optional<std::int64_t> Statement::optionalInteger(int column) const {
    if (isNull(column)) return std::nullopt;
    return integer(column);
}

std::optional<double> Statement::optionalReal(int column) const {
    if (isNull(column)) return std::nullopt;
    return real(column);
}

std::optional<std::string> Statement::optionalText(int column) const {
    if (isNull(column)) return std::nullopt;
    return text(column);
}

} // namespace morvane::sqlite
