// What a campaign found, as one JSON object, from the results of its histories; and the sum of several.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
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

// What all histories of a campaign have in common.
struct Chosen {
  std::string preparation;  // empty: the seed chooses
  std::string plant;        // empty: none
};

nlohmann::ordered_json summaryOf(const Range& range, const Chosen& chosen,
                                 const std::vector<nlohmann::ordered_json>& results);
// Throws std::runtime_error with the files, if one is no summary, if ranges overlap, or if versions,
// preparations or plants differ.
nlohmann::ordered_json merge(const std::vector<std::pair<std::string, nlohmann::ordered_json>>& summaries);

// The command that replays a history.
std::string replayLine(u64 seed, const Chosen& chosen,
                       const std::optional<std::vector<std::size_t>>& steps = std::nullopt);

}  // namespace campaign
