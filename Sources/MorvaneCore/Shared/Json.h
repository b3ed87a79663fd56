#pragma once

#include "MorvaneCore/Shared/Date.h"
#include "MorvanePlatform/Error.h"

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

// The one JSON vocabulary of the system. `Value` objects keep their keys sorted, which the stored
// formats rely on; `Ordered` objects keep the order in which keys were written, for the formats
// whose records are written field by field. Every writer goes through `dump` or `dumpKeepingOrder`
// so that invalid UTF-8 never aborts a write: it is written as U+FFFD.
namespace morvane::json {

using Value = nlohmann::json;
using Ordered = nlohmann::ordered_json;

// ISO 8601 in UTC with whole seconds, or null.
Value isoDate(std::optional<Date> date);

// Pretty-printed with two-space indentation when `pretty`, else compact.
std::string dump(const Value& value, bool pretty);
std::string dumpKeepingOrder(const Ordered& value, bool pretty);

// The same document with every object's keys sorted.
Value sorted(const Ordered& value);

// How a document writes its dates: ISO 8601 text in UTC with whole seconds, or a number of
// seconds since 1970-01-01T00:00:00Z with its fraction.
enum class DateEncoding { iso8601, secondsSince1970 };

// A document that can't be decoded. `description()` is the decoder's explanation, such as
// "Invalid number of keys found, expected one."; `codingPath()` says where, as dotted keys and
// [indices] ("alarms[1]"), empty for the top level.
class DecodingError : public Error {
public:
    enum class Case { typeMismatch, valueNotFound, keyNotFound, dataCorrupted };

    DecodingError(Case which, std::string codingPath, std::string description)
        : Error(std::move(description)), which_(which), codingPath_(std::move(codingPath)) {}

    Case which() const { return which_; }
    const std::string& codingPath() const { return codingPath_; }

private:
    Case which_;
    std::string codingPath_;
};

// Parses a document, keeping key order; text that isn't JSON fails with `dataCorrupted`. With a
// `callback`, each value is handed to it as the parser finishes it, and left out of the
// document when the callback returns false (an exception from it comes out of `parse`).
Ordered parse(std::string_view text);
using ParseEvent = Ordered::parse_event_t;
Ordered parse(std::string_view text, const Ordered::parser_callback_t& callback);

// Strict readers of one value at `path`. A null where a value is required is `valueNotFound`, a
// value of another kind `typeMismatch`. An integer must be a whole number that fits 64 bits.
std::int64_t integer(const Ordered& value, const std::string& path);
double number(const Ordered& value, const std::string& path);
bool boolean(const Ordered& value, const std::string& path);
std::string string(const Ordered& value, const std::string& path);
const Ordered& array(const Ordered& value, const std::string& path);
Ordered date(Date date, DateEncoding encoding);
Date date(const Ordered& value, DateEncoding encoding, const std::string& path);

// The keys of one object being decoded, with the path for errors.
class ObjectReader {
public:
    // Fails with `typeMismatch` unless `value` is an object.
    ObjectReader(const Ordered& value, std::string path);

    // The value of a required key: a missing key is `keyNotFound`, null is `valueNotFound`.
    const Ordered& required(std::string_view key) const;
    // The value of an optional key, or null when it is missing or holds null.
    const Ordered* optional(std::string_view key) const;
    // The text of an optional key: absent when it is missing or null, else it must be text.
    std::optional<std::string> optionalString(std::string_view key) const;
    // The path of a key, for reading what it holds.
    std::string pathOf(std::string_view key) const;

    const Ordered& object() const { return object_; }
    const std::string& path() const { return path_; }

private:
    const Ordered& object_;
    std::string path_;
};

// The path of element `index` of the list at `path`.
std::string indexPath(const std::string& path, size_t index);
// The path of `key` of the object at `path`.
std::string keyPath(const std::string& path, std::string_view key);

} // namespace morvane::json
