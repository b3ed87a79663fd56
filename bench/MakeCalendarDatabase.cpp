// Writes a calendar-like SQLite database of about 50 MB for the LZFSE benchmarks: one table of
// synthetic events (identifiers, titles, places, times in 2024-2025, recurrence rules, notes),
// an index on the start time, 4 KiB pages, vacuumed. Every value comes from a fixed linear
// congruential sequence, so the same SQLite version writes the same file.
//
//     make-calendar-database OUT.sqlite [ROWS]
#include <sqlite3.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

struct Sequence {
    std::uint64_t state = 20240601;
    std::uint32_t next() {
        state = state * 6364136223846793005ull + 1442695040888963407ull;
        return static_cast<std::uint32_t>(state >> 33);
    }
    std::uint32_t below(std::uint32_t n) { return next() % n; }
};

constexpr const char* words[] = {"Team",   "Budget", "Design",  "Weekly", "Project", "Client", "Review", "Lunch",
                                 "Sprint", "Yoga",   "Dentist", "Family", "Board",   "Sync",   "Launch", "Hiring",
                                 "Coffee", "Demo",   "Retro",   "Travel", "School",  "Gym",    "Call",   "Dinner"};
constexpr const char* streets[] = {"Main Street", "High Street", "Park Avenue", "Station Road", "Mill Lane"};
constexpr const char* rules[] = {"FREQ=DAILY", "FREQ=WEEKLY;BYDAY=MO", "FREQ=WEEKLY;BYDAY=TU,TH",
                                 "FREQ=MONTHLY;BYMONTHDAY=1", "FREQ=YEARLY"};

void check(int status, sqlite3* db, const char* what) {
    if (status != SQLITE_OK && status != SQLITE_DONE && status != SQLITE_ROW) {
        std::fprintf(stderr, "make-calendar-database: %s: %s\n", what, sqlite3_errmsg(db));
        std::exit(1);
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: make-calendar-database OUT.sqlite [ROWS]\n");
        return 2;
    }
    const long rows = argc > 2 ? std::atol(argv[2]) : 430000;
    std::remove(argv[1]);
    sqlite3* db = nullptr;
    check(sqlite3_open(argv[1], &db), db, "open");
    check(sqlite3_exec(db,
                       "PRAGMA page_size=4096; PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF;"
                       "CREATE TABLE calendar(id INTEGER PRIMARY KEY, uid TEXT, title TEXT, location TEXT,"
                       " start INTEGER, end INTEGER, all_day INTEGER, rrule TEXT, notes TEXT);"
                       "BEGIN",
                       nullptr, nullptr, nullptr),
          db, "create");
    sqlite3_stmt* insert = nullptr;
    check(sqlite3_prepare_v2(db, "INSERT INTO calendar VALUES(?,?,?,?,?,?,?,?,?)", -1, &insert, nullptr), db,
          "prepare");

    Sequence random;
    char text[128];
    for (long id = 1; id <= rows; ++id) {
        sqlite3_bind_int64(insert, 1, id);
        std::snprintf(text, sizeof text, "%08X-%04X-%04X-%04X-%04X%08X", random.next(), random.below(65536),
                      0x4000 | random.below(4096), 0x8000 | random.below(16384), random.below(65536), random.next());
        sqlite3_bind_text(insert, 2, text, -1, SQLITE_TRANSIENT);
        std::snprintf(text, sizeof text, "%s %s %u", words[random.below(24)], words[random.below(24)],
                      random.below(100));
        sqlite3_bind_text(insert, 3, text, -1, SQLITE_TRANSIENT);
        switch (random.below(5)) {
        case 0: std::snprintf(text, sizeof text, "Room %u", 100 + random.below(400)); break;
        case 1: std::snprintf(text, sizeof text, "Online"); break;
        case 2: std::snprintf(text, sizeof text, "%u %s", 1 + random.below(200), streets[random.below(5)]); break;
        case 3: std::snprintf(text, sizeof text, "Cafe %s", words[random.below(24)]); break;
        default: text[0] = 0;
        }
        if (text[0] != 0)
            sqlite3_bind_text(insert, 4, text, -1, SQLITE_TRANSIENT);
        else
            sqlite3_bind_null(insert, 4);
        const bool allDay = random.below(8) == 0;
        const std::int64_t start = 1704067200 + std::int64_t{random.below(730)} * 86400 +
                                   (allDay ? 0 : (7 + random.below(12)) * 3600 + random.below(4) * 900);
        sqlite3_bind_int64(insert, 5, start);
        sqlite3_bind_int64(insert, 6, start + (allDay ? 86400 : (1 + random.below(8)) * 900));
        sqlite3_bind_int(insert, 7, allDay);
        if (random.below(4) == 0)
            sqlite3_bind_text(insert, 8, rules[random.below(5)], -1, SQLITE_STATIC);
        else
            sqlite3_bind_null(insert, 8);
        if (random.below(3) == 0) {
            std::string notes;
            const std::size_t length = 38 + random.below(37);
            while (notes.size() < length)
                notes += std::string(words[random.below(24)]) + " ";
            notes.resize(length);
            sqlite3_bind_text(insert, 9, notes.c_str(), -1, SQLITE_TRANSIENT);
        } else {
            sqlite3_bind_null(insert, 9);
        }
        check(sqlite3_step(insert), db, "insert");
        sqlite3_reset(insert);
        sqlite3_clear_bindings(insert);
    }
    sqlite3_finalize(insert);
    check(
        sqlite3_exec(db, "COMMIT; CREATE INDEX calendar_start ON calendar(start); VACUUM;", nullptr, nullptr, nullptr),
        db, "index");
    check(sqlite3_close(db), nullptr, "close");
    return 0;
}
