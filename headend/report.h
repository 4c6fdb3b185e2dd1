// What a run tells at its end, and a client that asks for the status while it runs: one JSON object,
// described in docs/report.md.
#pragma once

#include <string>

#include "headend/headend.h"

namespace headend {

std::string reportText(Headend& headend);  // indented, for a file
std::string statusText(Headend& headend);  // compact, for a datagram

}  // namespace headend
