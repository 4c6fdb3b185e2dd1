// The report of a run, which is also the status for clients and the source of the status view: one JSON
// object, described in docs/report.md.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "headend/headend.h"

namespace headend {

nlohmann::ordered_json report(Headend& headend);

// The signal at an RF connector, as in the report.
nlohmann::ordered_json rfReport(const RfOutput& output);

// The rates of a channel, as in the report.
nlohmann::ordered_json ratesReport(const RateMeter::Rates& rates);

// Indented, for a file, with the commands of the run and their results.
std::string reportText(Headend& headend);

// Serves the operation kStatus: the report as compact text.
void provideStatus(Headend& headend);

}  // namespace headend
