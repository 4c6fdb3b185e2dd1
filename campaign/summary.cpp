#include "campaign/summary.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <tuple>

#include "base/files.h"
#include "headend/fail.h"

namespace campaign {
namespace {

using Json = nlohmann::ordered_json;

// Numbers add up, lists are joined, objects are added key by key.
void add(Json& sum, const Json& more) {
  if (sum.is_null()) {
    sum = more;
  } else if (more.is_object()) {
    for (const auto& [key, value] : more.items()) add(sum[key], value);
  } else if (more.is_array()) {
    sum.insert(sum.end(), more.begin(), more.end());
  } else if (more.is_number_float() || sum.is_number_float()) {
    sum = sum.get<double>() + more.get<double>();
  } else {
    sum = sum.get<u64>() + more.get<u64>();
  }
}

}  // namespace

std::string version() {
  static const std::string text = [] {
    const std::string program = base::readFile("/proc/self/exe", std::size_t{1} << 30);
    return fmt::format("{} (program {:016x})", QAM_VERSION, std::hash<std::string>{}(program));
  }();
  return text;
}

Json summaryOf(const Range& range, const Chosen& chosen, const std::vector<Json>& results) {
  Json sum = {{"histories", 0},
              {"histories_failed", 0},
              {"virtual_ms", 0},
              {"cpu_seconds", {{"histories", 0.0}, {"starts", 0.0}}},
              {"preparations", Json::object()},
              {"steps", Json::object()},
              {"power_cuts", Json::object()},
              {"checks", Json::object()},
              {"failures", Json::array()}};
  for (const Json& each : results) {
    Json failures = Json::array();
    for (const Json& failure : each["failures"]) {
      failures.push_back({{"seed", each["seed"]}});
      failures.back().update(failure);
      failures.back()["replay"] = replayLine(each["seed"], chosen);
    }
    Json one = {
        {"histories", 1},
        {"histories_failed", failures.empty() ? 0 : 1},
        {"virtual_ms", each.value("virtual_ms", u64{0})},
        {"cpu_seconds",
         {{"histories", each.value("cpu_ms", 0.0) / 1e3}, {"starts", each.value("start_cpu_ms", 0.0) / 1e3}}},
        {"preparations", {{each["preparation"].get<std::string>(), 1}}},
        {"steps", each["steps"]},
        {"checks", each.value("checks", Json::object())},
        {"starts_again", each.contains("start_cpu_ms") ? 1 : 0},
        {"failures", failures}};
    for (const char* name : {"commands", "commands_refused", "flash_failures", "memory_failures"})
      one[name] = each.value(name, u64{0});
    if (const std::string cut = each["cut"]; !cut.empty()) one["power_cuts"] = {{cut, 1}};
    add(sum, one);
  }
  Json whole = {{"version", version()},
                {"preparation", chosen.preparation},
                {"plant", chosen.plant},
                {"seeds", Json::array({Json::array({range.first, range.last})})}};
  whole.update(sum);
  return whole;
}

Json merge(const std::vector<std::pair<std::string, Json>>& summaries) {
  Json sum = nullptr;
  std::vector<std::tuple<u64, u64, std::string>> ranges;
  const auto& [firstFile, first] = summaries.front();
  for (const auto& [file, summary] : summaries) {
    try {
      for (const char* name : {"version", "preparation", "plant"}) {
        if (summary.at(name) == first.at(name)) continue;
        headend::fail(
            "{} is of the {} '{}', and {} of '{}': only results of one program and campaign can be added",
            file, name, summary.at(name).get<std::string>(), firstFile, first.at(name).get<std::string>());
      }
      for (const Json& range : summary.at("seeds"))
        ranges.emplace_back(range.at(0).get<u64>(), range.at(1).get<u64>(), file);
      Json numbers = summary;
      for (const char* name : {"version", "preparation", "plant", "seeds"}) numbers.erase(name);
      add(sum, numbers);
    } catch (const Json::exception&) {
      headend::fail("{} is not the summary of a campaign", file);
    }
  }
  std::ranges::sort(ranges);
  Json seeds = Json::array();
  for (std::size_t i = 0; i < ranges.size(); ++i) {
    const auto& [from, to, file] = ranges[i];
    if (i > 0 && from <= std::get<1>(ranges[i - 1]))
      headend::fail("{} and {} both have the seed {}", std::get<2>(ranges[i - 1]), file, from);
    if (i > 0 && from == std::get<1>(ranges[i - 1]) + 1) {
      seeds.back()[1] = to;
    } else {
      seeds.push_back(Json::array({from, to}));
    }
  }
  Json whole;
  for (const char* name : {"version", "preparation", "plant"}) whole[name] = first[name];
  whole["seeds"] = seeds;
  whole.update(sum);
  return whole;
}

std::string replayLine(u64 seed, const Chosen& chosen, const std::optional<std::vector<std::size_t>>& steps) {
  std::string line = fmt::format("headend-campaign replay {}", seed);
  if (!chosen.preparation.empty()) line += fmt::format(" --preparation '{}'", chosen.preparation);
  if (!chosen.plant.empty()) line += fmt::format(" --plant '{}'", chosen.plant);
  if (steps)
    line += fmt::format(" --steps {}", steps->empty() ? "none" : fmt::format("{}", fmt::join(*steps, ",")));
  return line;
}

}  // namespace campaign
