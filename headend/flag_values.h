// The values of `headend`'s flags, from text: each function reads one flag's text into the options, or throws
// CLI::ValidationError that says what it should be. For the command line alone.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "headend/options.h"

namespace headend {

[[noreturn]] void refuse(const std::string& flag, const std::string& text, const std::string& want);

// Seconds with a fraction; nothing when the text is none, or does not fit.
std::optional<Nanos> parseSeconds(const std::string& text);

// Splits "LEFT=RIGHT"; both must be there, or `want` is said.
std::pair<std::string, std::string> splitAssignment(const std::string& flag, const std::string& text,
                                                    const std::string& want);
// The channel of that name, which stands in `text`.
protocol::Channel channelOf(const std::string& flag, const std::string& text, const std::string& name);

// Takes "@SECONDS" off the end of a text; 0 where what follows the last @ is no time, for a file may have an
// @ in its name.
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
void parseEpoch(const std::string& text, Options& options);  // empty: by default
void parseKeys(const std::string& text, Options& options);
void parseFault(const std::string& text, Options& options);

}  // namespace headend
