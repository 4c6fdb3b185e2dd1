// The flags for programme sources: --source, --pidmap, --programme, and the fault of an input. Like
// flag_values.h, only for the command line.
#pragma once

#include <string>

#include "headend/options.h"

namespace headend {

void parseSource(const std::string& text, Options& options);
void parsePidMap(const std::string& text, Options& options);
void parseProgramme(const std::string& text, Options& options);

// "N.P.input-lost[@SECONDS[/PERIOD]]"; false if the text names another fault.
bool parseInputLoss(const std::string& text, Options& options);

// Checks that these flags match each other and the cards. Throws CLI::ValidationError.
void checkSources(const Options& options);

}  // namespace headend
