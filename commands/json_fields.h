// The JSON values of reports, and the fields of a JSON object from a server: a missing field, or one of an
// unexpected type, is not an error. Used for the status and for files that users name.
#pragma once

#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
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

// Throws std::runtime_error if the file cannot be read, has more than 1 MB, or is not JSON.
Json readJson(const std::filesystem::path& file);

// What `parse` makes of a file's JSON. Throws std::runtime_error with the file's name and the error.
template <typename Parse>
auto fromJsonFile(const std::filesystem::path& file, Parse parse) {
  try {
    return parse(readJson(file));
  } catch (const std::exception& e) {
    throw std::runtime_error(file.string() + ": " + e.what());
  }
}

}  // namespace commands
