// What a campaign found, as one JSON object, from the results of its histories; and the sum of several.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "campaign/history.h"

namespace campaign {

// The seeds from `first` to `last`.
struct Range {
  u64 first = 0;
  u64 last = 0;
};

// Of this program: results of another build are not added to its own.
std::string version();

// `only`: the preparation of all histories, if one was chosen.
nlohmann::ordered_json summaryOf(const Range& range, const std::string& only,
                                 const std::vector<nlohmann::ordered_json>& results);
// Throws std::runtime_error if the versions differ or if ranges overlap, with the files that do.
nlohmann::ordered_json merge(const std::vector<std::pair<std::string, nlohmann::ordered_json>>& summaries);

// The command that replays a history.
std::string replayLine(u64 seed, const std::string& only, const std::vector<std::size_t>& steps = {});

}  // namespace campaign
