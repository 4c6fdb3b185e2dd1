// The JSON values of reports, and the fields of a JSON object from a server: a missing field, or one of an
// unexpected type, is not an error. Used for the status.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace commands {

using Json = nlohmann::ordered_json;

Json member(const Json& object, const char* key);  // null if it is missing
std::optional<double> number(const Json& object, const char* key);
std::string whole(const Json& object, const char* key);  // without decimals, or "?"

// A text, a number, or the texts of a list, as printable text on one line; else empty.
std::string oneLine(const Json& value);

// The text with the members of an object in place of their names in braces, as "{pid:#06x}". Only texts and
// numbers can be named.
std::string filled(const char* text, const Json& object);

// Indented lines, escaped beyond ASCII, so that no text from the chassis can control a terminal.
std::string jsonText(const Json& json);

}  // namespace commands
