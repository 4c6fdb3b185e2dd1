// Converts the texts of `headend`'s flags into options. All throw std::invalid_argument with the text and the
// expected form. Used only for the command line.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "headend/options.h"

namespace headend {

[[noreturn]] void refuse(const std::string& text, const std::string& want);

// Seconds with a fraction; nullopt if the text is not a number or is out of range.
std::optional<Nanos> parseSeconds(const std::string& text);

// Splits "LEFT=RIGHT"; if one part is missing, the error message contains `want`.
std::pair<std::string, std::string> splitAssignment(const std::string& text, const std::string& want);

// Removes "@SECONDS" from the end of a text; 0 if the text after the last @ is not a time, because a file
// name may contain an @.
Nanos takeTimeIfAny(std::string& text);

base::Address parseAddress(const std::string& text);  // "ADDRESS:PORT"
u32 parseEpoch(const std::string& text);              // UTC, in seconds since 1970

void parseOutput(const std::string& text, Options& options);
void parseSource(const std::string& text, Options& options);
void parseEepromCycle(const std::string& text, Options& options);
void parsePowerCut(const std::string& text, Options& options);
void parseFault(const std::string& text, Options& options);  // also the loss of an input
// False if the text sets something else than what a sensor measures.
bool parseTemperature(const std::string& text, Options& options);
void parseSnmpBase(const std::string& text, Options::Snmp& snmp);

}  // namespace headend
