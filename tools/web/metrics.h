// What Prometheus reads: the text of /metrics.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tools/web/feed.h"

namespace tools {

std::string metricsOf(const std::vector<std::unique_ptr<Feed>>& feeds);

}  // namespace tools
