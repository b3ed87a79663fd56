// Writes a calendar-like SQLite database of about 50 MB for the LZFSE benchmarks, in the shape of
// the 2.4 MB calendar of the shared test data: one table of synthetic events (identifiers with
// the row number inside, titles, places, rising start times from 2024, recurrence rules, agenda
// notes), an index on the start time, 4 KiB pages, vacuumed. Every value comes from a fixed linear
// congruential sequence, so the same SQLite version writes the same file.
//
//     make-calendar-database OUT.sqlite [ROWS]
#include <sqlite3.h>

#include <algorithm>
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
    const long rows = argc > 2 ? std::atol(argv[2]) : 395000;
    std::remove(argv[1]);
    sqlite3* db = nullptr;
    check(sqlite3_open(argv[1], &db), db, "open");
    check(sqlite3_exec(db,
                       "PRAGMA page_size=4096; PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF;"
                       "CREATE TABLE calendar(id INTEGER PRIMARY KEY, uid TEXT NOT NULL, title TEXT NOT NULL,"
                       " location TEXT, start_ts INTEGER NOT NULL, end_ts INTEGER NOT NULL, all_day INTEGER NOT NULL,"
                       " recurrence TEXT, notes TEXT);"
                       "BEGIN",
                       nullptr, nullptr, nullptr),
          db, "create");
    sqlite3_stmt* insert = nullptr;
    check(sqlite3_prepare_v2(db, "INSERT INTO calendar VALUES(?,?,?,?,?,?,?,?,?)", -1, &insert, nullptr), db,
          "prepare");

    Sequence random;
    char text[160];
    std::int64_t start = 1704067200;
    static constexpr const char* tail = " Bring laptop and charger. Confirm attendance with the organiser.";
    for (long id = 1; id <= rows; ++id) {
        sqlite3_bind_int64(insert, 1, id);
        std::snprintf(text, sizeof text, "%08X-%04lX-%04X-%012llX", random.next(), id & 0xFFFF, random.below(65536),
                      static_cast<unsigned long long>(random.next()) * random.below(4096));
        sqlite3_bind_text(insert, 2, text, -1, SQLITE_TRANSIENT);
        std::snprintf(text, sizeof text, "%s %s #%ld", words[random.below(24)], words[random.below(24)], id);
        sqlite3_bind_text(insert, 3, text, -1, SQLITE_TRANSIENT);
        switch (random.below(6)) {
        case 0: std::snprintf(text, sizeof text, "Room %u", 5 * (1 + random.below(10))); break;
        case 1:
        case 2: std::snprintf(text, sizeof text, "Online"); break;
        case 3: std::snprintf(text, sizeof text, "%u %s", 1 + random.below(300), streets[random.below(5)]); break;
        case 4: std::snprintf(text, sizeof text, "Cafe %s", words[random.below(24)]); break;
        default: text[0] = 0;
        }
        if (text[0] != 0)
            sqlite3_bind_text(insert, 4, text, -1, SQLITE_TRANSIENT);
        else
            sqlite3_bind_null(insert, 4);
        start += 3600 + random.below(7200);
        const bool allDay = random.below(10) == 0;
        sqlite3_bind_int64(insert, 5, start);
        sqlite3_bind_int64(insert, 6, start + 900 * (1 + random.below(8)));
        sqlite3_bind_int(insert, 7, allDay);
        if (random.below(10) < 3)
            sqlite3_bind_text(insert, 8, rules[random.below(5)], -1, SQLITE_STATIC);
        else
            sqlite3_bind_null(insert, 8);
        if (random.below(3) == 0) {
            // An agenda line, then a piece of a stock sentence: 38 to 74 characters.
            std::string notes = std::string("Agenda: ") + words[random.below(24)] + ", " + words[random.below(24)] +
                                ". Ref " + std::to_string(10000 + random.below(90000)) + ". ";
            const std::size_t length = 38 + random.below(37);
            const std::size_t from = random.below(30);
            notes += std::string(tail + from);
            notes.resize(std::min(length, notes.size()));
            sqlite3_bind_text(insert, 9, notes.c_str(), -1, SQLITE_TRANSIENT);
        } else {
            sqlite3_bind_null(insert, 9);
        }
        check(sqlite3_step(insert), db, "insert");
        sqlite3_reset(insert);
        sqlite3_clear_bindings(insert);
    }
    sqlite3_finalize(insert);
    check(sqlite3_exec(db, "COMMIT; CREATE INDEX idx_start ON calendar(start_ts); VACUUM;", nullptr, nullptr, nullptr),
          db, "index");
    check(sqlite3_close(db), nullptr, "close");
    return 0;
}
