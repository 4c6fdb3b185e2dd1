// Fields of a JSON object that a server made: whatever is missing, or of another kind than expected, is no
// failure. Used for what the status tells.
#pragma once

#include <optional>
#include <string>

#include "tools/psi_decode.h"

namespace tools {

Json member(const Json& object, const char* key);  // null when there is none
std::optional<double> number(const Json& object, const char* key);
std::string whole(const Json& object, const char* key);  // without decimals, or "?"

// A text, a number, or the texts of a list, as printable text in one line; else empty.
std::string oneLine(const Json& value);

}  // namespace tools
