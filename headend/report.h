// The report at the end of a run, and the status for clients while it runs: one JSON object, described in
// docs/report.md.
#pragma once

#include <string>

#include "headend/headend.h"

namespace headend {

std::string reportText(Headend& headend);  // indented, for a file
std::string statusText(Headend& headend);  // compact, for a datagram

}  // namespace headend
