#include "MorvaneCore/Shared/Json.h"

#include "MorvaneCore/Shared/DateFormatting.h"

#include <cmath>

namespace morvane::json {
namespace {

std::string kindOf(const Ordered& value) {
    switch (value.type()) {
    case Ordered::value_t::null: return "null";
    case Ordered::value_t::object: return "an object";
    case Ordered::value_t::array: return "an array";
    case Ordered::value_t::string: return "a string";
    case Ordered::value_t::boolean: return "a boolean";
    case Ordered::value_t::number_integer:
    case Ordered::value_t::number_unsigned:
    case Ordered::value_t::number_float: return "a number";
    default: return "an unknown value";
    }
}

std::string where(const std::string& path) { return path.empty() ? "the top level" : "\"" + path + "\""; }

// Null where a value is required, or a value of the wrong kind.
[[noreturn]] void mismatch(const Ordered& value, const std::string& expected, const std::string& path) {
    if (value.is_null()) {
        throw DecodingError(DecodingError::Case::valueNotFound, path,
                            "Expected " + expected + " at " + where(path) + " but found null.");
    }
    throw DecodingError(DecodingError::Case::typeMismatch, path,
                        "Expected " + expected + " at " + where(path) + " but found " + kindOf(value) + ".");
}

} // namespace

Value isoDate(std::optional<Date> date) { return date ? Value(dates::iso8601(*date)) : Value(nullptr); }

std::string dump(const Value& value, bool pretty) {
    return value.dump(pretty ? 2 : -1, ' ', false, Value::error_handler_t::replace);
}

std::string dumpKeepingOrder(const Ordered& value, bool pretty) {
    return value.dump(pretty ? 2 : -1, ' ', false, Ordered::error_handler_t::replace);
}

Value sorted(const Ordered& value) { return Value(value); }

Ordered parse(std::string_view text) { return parse(text, nullptr); }

Ordered parse(std::string_view text, const Ordered::parser_callback_t& callback) {
    try {
        return Ordered::parse(text, callback);
    } catch (const Ordered::exception& error) {
        throw DecodingError(DecodingError::Case::dataCorrupted, {},
                            std::string("The data isn't valid JSON: ") + error.what());
    }
}

std::int64_t integer(const Ordered& value, const std::string& path) {
    if (value.is_number_integer()) {
        if (value.is_number_unsigned() && value.get<std::uint64_t>() > static_cast<std::uint64_t>(INT64_MAX)) {
            throw DecodingError(DecodingError::Case::dataCorrupted, path,
                                "The number at " + where(path) + " doesn't fit a 64-bit integer.");
        }
        return value.get<std::int64_t>();
    }
    if (value.is_number_float()) {
        // 5.0 is the integer 5; 5.5 and numbers beyond 64 bits are no integer at all.
        const double number = value.get<double>();
        if (std::trunc(number) == number && number >= -9223372036854775808.0 && number < 9223372036854775808.0) {
            return static_cast<std::int64_t>(number);
        }
        throw DecodingError(DecodingError::Case::dataCorrupted, path,
                            "The number at " + where(path) + " doesn't fit a 64-bit integer.");
    }
    mismatch(value, "an integer", path);
}

double number(const Ordered& value, const std::string& path) {
    if (!value.is_number()) mismatch(value, "a number", path);
    return value.get<double>();
}

bool boolean(const Ordered& value, const std::string& path) {
    if (!value.is_boolean()) mismatch(value, "a boolean", path);
    return value.get<bool>();
}

std::string string(const Ordered& value, const std::string& path) {
    if (!value.is_string()) mismatch(value, "a string", path);
    return value.get<std::string>();
}

const Ordered& array(const Ordered& value, const std::string& path) {
    if (!value.is_array()) mismatch(value, "an array", path);
    return value;
}

Ordered date(Date date, DateEncoding encoding) {
    if (encoding == DateEncoding::iso8601) return dates::iso8601(date);
    return date.secondsSince1970();
}

Date date(const Ordered& value, DateEncoding encoding, const std::string& path) {
    if (encoding == DateEncoding::secondsSince1970) return Date::fromSecondsSince1970(number(value, path));
    const auto text = string(value, path);
    if (const auto parsed = dates::parseISO8601(text)) return *parsed;
    throw DecodingError(DecodingError::Case::dataCorrupted, path, "Expected date string to be ISO8601-formatted.");
}

ObjectReader::ObjectReader(const Ordered& value, std::string path) : object_(value), path_(std::move(path)) {
    if (!value.is_object()) mismatch(value, "an object", path_);
}

const Ordered& ObjectReader::required(std::string_view key) const {
    const auto found = object_.find(key);
    if (found == object_.end()) {
        throw DecodingError(DecodingError::Case::keyNotFound, path_,
                            "No value for the key \"" + std::string(key) + "\" at " + where(path_) + ".");
    }
    if (found->is_null()) {
        throw DecodingError(DecodingError::Case::valueNotFound, pathOf(key),
                            "Expected a value at " + where(pathOf(key)) + " but found null.");
    }
    return *found;
}

const Ordered* ObjectReader::optional(std::string_view key) const {
    const auto found = object_.find(key);
    if (found == object_.end() || found->is_null()) return nullptr;
    return &*found;
}

std::optional<std::string> ObjectReader::optionalString(std::string_view key) const {
    const auto* found = optional(key);
    if (found == nullptr) return std::nullopt;
    return string(*found, pathOf(key));
}

std::string ObjectReader::pathOf(std::string_view key) const { return keyPath(path_, key); }

std::string indexPath(const std::string& path, size_t index) { return path + "[" + std::to_string(index) + "]"; }

std::string keyPath(const std::string& path, std::string_view key) {
    return path.empty() ? std::string(key) : path + "." + std::string(key);
}

} // namespace morvane::json
