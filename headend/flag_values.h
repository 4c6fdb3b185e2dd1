// Parses the values of `headend`'s flags: each function parses one flag's text into the options, or throws
// CLI::ValidationError with the expected form. Used only for the command line.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "headend/options.h"

namespace headend {

[[noreturn]] void refuse(const std::string& flag, const std::string& text, const std::string& want);

// Seconds with a fraction; nullopt if the text is not a number or is out of range.
std::optional<Nanos> parseSeconds(const std::string& text);

// Splits "LEFT=RIGHT"; if one part is missing, the error message contains `want`.
std::pair<std::string, std::string> splitAssignment(const std::string& flag, const std::string& text,
                                                    const std::string& want);
// The channel with that name; `text` is for messages.
protocol::Channel channelOf(const std::string& flag, const std::string& text, const std::string& name);

// Removes "@SECONDS" from the end of a text; 0 if the text after the last @ is not a time, because a file
// name may contain an @.
Nanos takeTimeIfAny(std::string& text);

// "ADDRESS:PORT".
std::pair<std::string, std::uint16_t> parseAddress(const std::string& flag, const std::string& text,
                                                   const std::string& want);

void parsePsi(const std::string& text, Options& options);
void parseInterval(const std::string& text, Options& options);
void parseOutput(const std::string& text, Options& options);
void parseManage(const std::string& text, Options& options);
void parseSet(const std::string& text, Options& options);
void parseCalibration(const std::string& text, Options& options);
void parseEepromCycle(const std::string& text, Options& options);
void parsePowerCut(const std::string& text, Options& options);
void parseEpoch(const std::string& text, Options& options);  // empty: default
void parseKeys(const std::string& text, Options& options);
void parseFault(const std::string& text, Options& options);

}  // namespace headend
