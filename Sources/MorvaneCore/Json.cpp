#include "MorvaneCore/Json.h"

#include "MorvaneCore/DateFormatting.h"

namespace morvane::json {

Value isoDate(std::optional<Date> date) { return date ? Value(dates::iso8601(*date)) : Value(nullptr); }

std::string dump(const Value& value, bool pretty) {
    return value.dump(pretty ? 2 : -1, ' ', false, Value::error_handler_t::replace);
}

} // namespace morvane::json
