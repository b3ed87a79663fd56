#include "MorvaneCore/Database/SQLiteDB.h"

#include "MorvaneCore/Shared/Errors.h"
#include "MorvaneCore/Shared/Text.h"

#include <cstring>
#include <sqlite3.h>

namespace morvane {
namespace {

struct Finalize {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

} // namespace

void SQLiteDB::Close::operator()(sqlite3* handle) const { sqlite3_close(handle); }

SQLiteDB::SQLiteDB(const std::string& stagedCopyPath, std::string shownAs) : shownAs_(std::move(shownAs)) {
    if (shownAs_.empty()) shownAs_ = stagedCopyPath;
    sqlite3* opened = nullptr;
    // Read-write on purpose and never create: see the class comment.
    const int result =
        sqlite3_open_v2(stagedCopyPath.c_str(), &opened, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    std::unique_ptr<sqlite3, Close> connection(opened);
    if (result != SQLITE_OK) {
        const std::string message = connection ? sqlite3_errmsg(connection.get()) : "code " + std::to_string(result);
        throw SQLiteError("Cannot open " + shownAs_ + ": " + message);
    }
    handle_ = std::move(connection);
}

SQLiteError SQLiteDB::failure(std::string_view stage, std::string_view sql) const {
    const std::string message = sqlite3_errmsg(handle_.get());
    switch (sqlite3_errcode(handle_.get())) {
    case SQLITE_CORRUPT:
        return SQLiteError(shownAs_ + " isn't a calendar database: the file is damaged (" + message + ")");
    case SQLITE_NOTADB:
        return SQLiteError(shownAs_ + " isn't a calendar database: the file holds something else (" + message + ")");
    case SQLITE_ERROR:
    case SQLITE_RANGE:
    case SQLITE_MISUSE:
    case SQLITE_CONSTRAINT:
    case SQLITE_MISMATCH:
        // The statement itself is wrong: the developer needs to see which one.
        return SQLiteError(std::string(stage) + " failed: " + message + (sql.empty() ? "" : "\n" + std::string(sql)));
    default: return SQLiteError("Couldn't read " + shownAs_ + ": " + message);
    }
}

SQLiteDB::~SQLiteDB() = default;

void SQLiteDB::query(std::string_view sql, const std::function<void(const Row&)>& onRow) { query(sql, {}, onRow); }

void SQLiteDB::query(std::string_view sql, const std::vector<double>& parameters,
                     const std::function<void(const Row&)>& onRow) {
    sqlite3_stmt* prepared = nullptr;
    if (sqlite3_prepare_v2(handle_.get(), sql.data(), static_cast<int>(sql.size()), &prepared, nullptr) != SQLITE_OK) {
        sqlite3_finalize(prepared);
        throw failure("Prepare", sql);
    }
    const Statement statement(prepared);
    for (size_t index = 0; index < parameters.size(); ++index) {
        if (sqlite3_bind_double(prepared, static_cast<int>(index + 1), parameters[index]) != SQLITE_OK)
            throw failure("Prepare", sql);
    }
    const Row row(prepared);
    for (;;) {
        const int step = sqlite3_step(prepared);
        if (step == SQLITE_ROW) {
            onRow(row);
        } else if (step == SQLITE_DONE) {
            return;
        } else {
            // The message is taken before the statement is finalised, which may reset it.
            throw failure("Step", {});
        }
    }
}

std::set<std::string> SQLiteDB::columns(std::string_view table) {
    std::set<std::string> names;
    query("SELECT name FROM pragma_table_info('" + std::string(table) + "')", [&names](const Row& row) {
        if (auto name = row.text(0)) names.insert(std::move(*name));
    });
    return names;
}

std::optional<std::int64_t> SQLiteDB::Row::integer(int index) const {
    if (isNull(index)) return std::nullopt;
    return sqlite3_column_int64(statement_, index);
}

std::optional<double> SQLiteDB::Row::real(int index) const {
    if (isNull(index)) return std::nullopt;
    return sqlite3_column_double(statement_, index);
}

std::optional<std::string> SQLiteDB::Row::text(int index) const {
    const auto* characters = reinterpret_cast<const char*>(sqlite3_column_text(statement_, index));
    if (characters == nullptr) return std::nullopt;
    return text::repairedUTF8(std::string_view(characters, std::strlen(characters)));
}

void SQLiteDB::Row::appendText(int index, std::string& out) const {
    const auto* characters = reinterpret_cast<const char*>(sqlite3_column_text(statement_, index));
    if (characters == nullptr) return;
    const std::string_view bytes(characters, std::strlen(characters));
    if (text::isWellFormedUTF8(bytes)) {
        out.append(bytes);
    } else {
        out.append(text::repairedUTF8(bytes));
    }
}

bool SQLiteDB::Row::isNull(int index) const { return sqlite3_column_type(statement_, index) == SQLITE_NULL; }

int SQLiteDB::Row::columnCount() const { return sqlite3_column_count(statement_); }

} // namespace morvane
