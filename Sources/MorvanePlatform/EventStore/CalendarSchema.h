#pragma once

#include <string_view>

namespace morvane {

// The tables, indexes and trigger of the operating system's calendar database (Calendar.sqlitedb)
// that the system reads and that the local event store keeps: every column of those tables, so
// that a database made here reads like one made by the system. One script of SQL statements.
std::string_view calendarSchemaSQL();

} // namespace morvane
