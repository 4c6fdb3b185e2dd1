// The flags that bring programmes into a run: --source, --pidmap, --programme, and the fault of an input. As
// flag_values.h, for the command line alone.
#pragma once

#include <string>

#include "headend/options.h"

namespace headend {

void parseSource(const std::string& text, Options& options);
void parsePidMap(const std::string& text, Options& options);
void parseProgramme(const std::string& text, Options& options);

// "N.P.input-lost[@SECONDS[/PERIOD]]"; false when the text names another fault.
bool parseInputLoss(const std::string& text, Options& options);

// Whether these flags fit together and with the cards. Throws CLI::ValidationError.
void checkSources(const Options& options);

}  // namespace headend
