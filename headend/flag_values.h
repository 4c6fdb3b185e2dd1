// Converts the texts of `headend`'s flags into options. All throw std::invalid_argument with the text and the
// expected form. Used only for the command line.
#pragma once

#include <string>

#include "headend/flag_text.h"
#include "headend/options.h"

namespace headend {

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
