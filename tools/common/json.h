// JSON as every program writes it (through nlohmann-json, one compact line, one rule for text), and
// the members of JSON from outside read without a throw.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <type_traits>

namespace cli {

// A JSON value whose objects keep their members in the order they were given.
using Json = nlohmann::ordered_json;

// `value` as one line of compact JSON ({"a":1,"b":["x"]}), without its line end. Text is read as
// UTF-8: valid UTF-8 is written as it is, the control characters U+0000 to U+001F are escaped
// (\n, \t ... or \u00XX) with the quote and the backslash, and bytes that are not UTF-8 (a
// device's or the network's) are written as U+FFFD, the replacement character, one for each
// broken sequence. Never throws for what the text holds.
std::string json_text(const Json& value);

// The member at `path` ("/payload/value") of `message` when it is there and a T (bool or
// std::string), else `otherwise`: a message of any other shape, or no JSON at all (a value that
// nlohmann::json::parse discarded), gives `otherwise` and never throws.
template <typename T>
T member_or(const nlohmann::json& message, const char* path, const T& otherwise) {
    const nlohmann::json::json_pointer pointer(path);
    if (message.is_discarded() || !message.contains(pointer))
        return otherwise;
    const nlohmann::json& member = message.at(pointer);
    if constexpr (std::is_same_v<T, bool>)
        return member.is_boolean() ? member.get<bool>() : otherwise;
    else
        return member.is_string() ? member.get<std::string>() : otherwise;
}

} // namespace cli
