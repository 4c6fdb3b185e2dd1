// What the command line asks a run to do besides running: jobs for the operator. Captures are read here,
// before anything starts.
#pragma once

#include "headend/firmware/log.h"
#include "headend/operator.h"
#include "headend/options.h"

namespace headend {

// Throws std::runtime_error that says which capture cannot be used.
std::vector<Operator::Job> operatorJobs(const Options& options, Log& log);

}  // namespace headend
