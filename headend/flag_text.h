// What the texts of `headend`'s flags have in common: times, assignments, refusals.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "headend/kernel/kernel.h"

namespace headend {

// Throws std::invalid_argument: "'TEXT': WANT".
[[noreturn]] void refuse(const std::string& text, const std::string& want);

// The form of --set, for a variable or for what a sensor measures.
inline constexpr auto kWantSetting = "want N.NAME=VALUE or N.NAME=VALUE@SECONDS, as 1.rfreq=474000@5";

// Seconds with a fraction; nullopt if the text is not a number or is out of range.
std::optional<Nanos> parseSeconds(const std::string& text);

// Splits "LEFT=RIGHT"; if one part is missing, the error message contains `want`.
std::pair<std::string, std::string> splitAssignment(const std::string& text, const std::string& want);

// Removes "@SECONDS" from the end of a text; 0 if the text after the last @ is not a time, because a file
// name may contain an @.
Nanos takeTimeIfAny(std::string& text);

}  // namespace headend
