#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace morvane {

class SQLiteError;

// The one thin wrapper through which the system reads SQLite: one connection to one private,
// staged copy of a database, running one statement at a time and handing each row to a
// callback as it is stepped. Nothing is buffered, pooled or prepared ahead.
//
// Failures throw SQLiteError with the user's text, SQLite's codes put into words here, once: a
// damaged file or one that holds no database says so and names the file as the user knows it
// (`shownAs`), never the staged copy or a statement. The connection is opened read-write without
// create, so a staged copy's "-wal" may be replayed and checkpointed, and a missing file fails
// instead of appearing empty. One thread at a time; the object may change threads.
class SQLiteDB {
public:
    // The current row of a running statement; valid only inside the callback that receives it.
    // Numbers are absent for NULL, so that a NULL is never read as 0 by accident.
    class Row {
    public:
        std::optional<std::int64_t> integer(int index) const;
        std::optional<double> real(int index) const;
        // The bytes up to the first NUL, ill-formed UTF-8 repaired; absent for NULL.
        std::optional<std::string> text(int index) const;
        // Appends what `text` gives to `out` (nothing for NULL), without a copy of its own: for
        // readers that stream many rows.
        void appendText(int index, std::string& out) const;
        bool isNull(int index) const;
        int columnCount() const;

    private:
        friend class SQLiteDB;
        explicit Row(sqlite3_stmt* statement) : statement_(statement) {}
        sqlite3_stmt* statement_;
    };

    // Throws "Cannot open {shownAs}: {message}". `shownAs` is the file the user knows the copy
    // by; the copy's own path when empty.
    explicit SQLiteDB(const std::string& stagedCopyPath, std::string shownAs = {});
    ~SQLiteDB();
    SQLiteDB(const SQLiteDB&) = delete;
    SQLiteDB& operator=(const SQLiteDB&) = delete;

    // Runs one statement to its end, calling `onRow` for each row; the statement is finalised on
    // every path and the connection stays usable. Throws what `onRow` throws, or by SQLite's code:
    //   damage: "{shownAs} isn't a calendar database: the file is damaged ({message})";
    //   no database: "{shownAs} isn't a calendar database: the file holds something else ({message})";
    //   the disk, memory or a lock: "Couldn't read {shownAs}: {message}";
    //   a statement that is wrong (the program's fault): "Prepare failed: {message}\n{sql}" or
    //   "Step failed: {message}".
    void query(std::string_view sql, const std::function<void(const Row&)>& onRow);
    // As above, with `parameters` bound to the statement's `?` in order.
    void query(std::string_view sql, const std::vector<double>& parameters,
               const std::function<void(const Row&)>& onRow);

    // The file as the user knows it, for messages.
    const std::string& shownAs() const { return shownAs_; }

    // The column names of a table; empty for a table that doesn't exist. `table` is put into
    // the SQL unescaped: pass only constants.
    std::set<std::string> columns(std::string_view table);

private:
    // The error for the connection's last failure, worded by its code; `sql` is shown only for
    // a statement that is wrong.
    SQLiteError failure(std::string_view stage, std::string_view sql) const;

    struct Close {
        void operator()(sqlite3* handle) const;
    };
    std::unique_ptr<sqlite3, Close> handle_;
    std::string shownAs_;
};

} // namespace morvane
