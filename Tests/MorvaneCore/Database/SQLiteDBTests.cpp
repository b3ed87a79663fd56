#include "MorvaneCore/Database/SQLiteDB.h"

#include "MorvaneCore/Shared/Errors.h"
#include "Support/CalendarDatabaseBuilder.h"
#include "Support/ErrorText.h"
#include "Support/TemporaryDirectory.h"

#include <gtest/gtest.h>

namespace morvane {
namespace {

namespace fs = std::filesystem;
using testing::CalendarDatabaseBuilder;

class SQLiteDBTest : public ::testing::Test {
protected:
    fs::path makeDatabase(const std::string& sql) {
        const auto path = folder.path() / "test.sqlite";
        CalendarDatabaseBuilder builder(path);
        builder.execute(sql);
        return path;
    }

    static std::string failureOf(SQLiteDB& db, const std::string& sql) {
        return testing::errorText<SQLiteError>([&] { db.query(sql, [](const SQLiteDB::Row&) {}); });
    }

    testing::TemporaryDirectory folder;
};

TEST_F(SQLiteDBTest, AMissingFileFailsToOpenAndIsNotCreated) {
    const auto missing = folder.path() / "Calendar.sqlitedb";
    EXPECT_EQ(testing::errorText<SQLiteError>([&] { SQLiteDB db(missing.string()); }),
              "Cannot open " + missing.string() + ": unable to open database file");
    EXPECT_TRUE(fs::is_empty(folder.path()));
}

TEST_F(SQLiteDBTest, PrepareFailuresCarryTheSQLAndStepFailuresDoNot) {
    SQLiteDB db(makeDatabase("").string());
    EXPECT_EQ(failureOf(db, "SELECT x FROM\nNowhere"),
              "Prepare failed: no such table: Nowhere\nSELECT x FROM\nNowhere");
    EXPECT_EQ(failureOf(db, "SELECT abs(-9223372036854775807 - 1)"), "Step failed: integer overflow");
}

TEST_F(SQLiteDBTest, RowsTellNullFromZeroAndRepairText) {
    SQLiteDB db(makeDatabase("").string());
    int rows = 0;
    db.query("SELECT NULL, 0, 0.0, '', CAST(X'61FF62' AS TEXT), CAST(X'6162006364' AS TEXT), 2.5, '42'",
             [&rows](const SQLiteDB::Row& row) {
                 ++rows;
                 EXPECT_EQ(row.columnCount(), 8);
                 EXPECT_TRUE(row.isNull(0));
                 EXPECT_EQ(row.integer(0), std::nullopt);
                 EXPECT_EQ(row.real(0), std::nullopt);
                 EXPECT_EQ(row.text(0), std::nullopt);
                 EXPECT_EQ(row.integer(1), 0);
                 EXPECT_EQ(row.real(2), 0.0);
                 EXPECT_EQ(row.text(3), "");
                 EXPECT_FALSE(row.isNull(3));
                 EXPECT_EQ(row.text(4), "a\uFFFD"
                                        "b");
                 EXPECT_EQ(row.text(5), "ab"); // up to the first NUL
                 EXPECT_EQ(row.integer(6), 2);
                 EXPECT_EQ(row.text(6), "2.5");
                 EXPECT_EQ(row.integer(7), 42);
             });
    EXPECT_EQ(rows, 1);
}

TEST_F(SQLiteDBTest, ACallbackFailureStopsTheStatementAndTheConnectionStaysUsable) {
    SQLiteDB db(makeDatabase("CREATE TABLE n (v); INSERT INTO n VALUES (1), (2), (3);").string());
    int seen = 0;
    EXPECT_THROW(db.query("SELECT v FROM n",
                          [&seen](const SQLiteDB::Row&) {
                              if (++seen == 2) throw RestoreError("stop");
                          }),
                 RestoreError);
    EXPECT_EQ(seen, 2);
    // An unfinalised statement would keep this from truncating the log or closing cleanly.
    int total = 0;
    db.query("SELECT sum(v) FROM n", [&total](const SQLiteDB::Row& row) { total = static_cast<int>(*row.integer(0)); });
    EXPECT_EQ(total, 6);
}

} // namespace
} // namespace morvane
