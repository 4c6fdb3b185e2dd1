// Converts the texts of `headend`'s flags into values and options. All throw std::invalid_argument with the
// text and the expected form. Used only for the command line.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "headend/options.h"

namespace headend {

// Throws std::invalid_argument: "'TEXT': WANT".
[[noreturn]] void refuse(const std::string& text, const std::string& want);

base::Address parseAddress(const std::string& text);        // "ADDRESS:PORT"
u32 parseEpoch(const std::string& text);                    // UTC, in seconds since 1970
Nanos parseSeconds(const std::string& text);                // with a fraction
std::vector<std::string> partsOf(const std::string& text);  // between commas

// "NAME=VALUE"; if a part is missing, the error contains `want`.
std::pair<std::string, std::string> splitAssignment(const std::string& text, const std::string& want);

// "NAME=VALUE[@SECONDS]". The time is 0 if the text after the last @ is not a time, because a file name may
// contain an @.
struct Assignment {
  std::string name;
  std::string value;
  Nanos at = 0;
};
Assignment parseAssignment(const std::string& text, const std::string& want);
// Removes "@SECONDS" from the end of a text, as above.
Nanos takeTime(std::string& text);

// The form of --set, for a variable or for what a sensor measures.
inline constexpr auto kWantSetting = "want N.NAME=VALUE or N.NAME=VALUE@SECONDS, as 1.rfreq=474000@5";

void parseOutput(const std::string& text, Options& options);
void parseSource(const std::string& text, Options& options);
void parseEeprom(const std::string& text, Options& options);
void parseEepromCycle(const std::string& text, Options& options);
void parseLockTime(const std::string& text, Options& options);
void parsePowerCut(const std::string& text, Options& options);
// Also the loss of an input. Throws commands::Help for "help".
void parseFault(const std::string& text, Options& options);
// False if the text sets something else than what a sensor measures.
bool parseTemperature(const std::string& text, Options& options);
std::vector<u32> parseSnmpBase(const std::string& text);

}  // namespace headend
