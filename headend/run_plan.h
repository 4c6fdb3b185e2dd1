// The jobs that the command line gives to the operator. Captures are read here, before the run starts.
#pragma once

#include "headend/firmware/log.h"
#include "headend/operator.h"
#include "headend/options.h"

namespace headend {

// Throws std::runtime_error with the capture that cannot be used.
std::vector<Operator::Job> operatorJobs(const Options& options, Log& log);

}  // namespace headend
