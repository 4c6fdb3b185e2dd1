#include "tools/web/answers.h"

#include <regex>
#include <utility>

namespace tools {
namespace {

constexpr const char* kRateNames[] = {"psi", "routed", "null"};

// CHANNEL, SLOT are parts of both.
struct Answer {
  Answer(const char* pattern, Question asked) : path(pattern), question(std::move(asked)) {}
  std::regex path;
  Question question;
};
const std::vector<Answer>& answers() {
  static const std::vector<Answer> kAnswers = {
      {"alarms", {{"alarms", "--history"}, true}},
      {"programmes/([1-6]\\.[12])", {{"programme", "list", "$"}}},
      {"pidmap/([1-6]\\.[12])", {{"pidmap", "show", "$"}}},
      {"psi/([1-6]\\.[12])", {{"psi", "show", "$"}}},
      {"ticks/([1-6]\\.[12])", {{"psi", "ticks", "$", "--seconds", "10"}}},
      {"pids/([1-6]\\.(?:[1-9]|1[0-6]))", {{"pids", "$", "--seconds", "0"}}},
      {"backup/([1-6]\\.[12])", {{"backup", "$"}}},
      // Without the rates: each takes the card half a second, in which the headend serves no other client.
      {"variables/([1-6])",
       {{"var", "get", "$", "rfreq", "rflevel", "symbolrate", "qammode", "rfswitch", "power", "temperature1",
         "temperature2", "software_version", "fpga_version", "hardware_version"}}},
      {"settings/([1-6])",
       {{"var", "get", "$", "rfreq", "rflevel", "symbolrate", "qammode", "rfswitch", "power"}}},
      {"calibration/([1-6])", {{"cal", "read", "$"}}},
      {"faults", {{"fault", "names"}}},
      {"variables", {{"var", "list"}}},
  };
  return kAnswers;
}

}  // namespace

std::string compactText(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json stateJson(unsigned long sequence, const Json& readUnixMs, const std::string& error, const Json& pace,
               const Json& status, const Json& lcd) {
  return {{"sequence", sequence}, {"read_unix_ms", readUnixMs}, {"error", error},
          {"pace", pace},         {"status", status},           {"lcd", lcd}};
}

std::optional<Question> questionOf(const std::string& path) {
  for (const Answer& answer : answers()) {
    std::smatch match;
    if (!std::regex_match(path, match, answer.path)) continue;
    Question question = answer.question;
    for (std::string& word : question.words) {
      if (word == "$") word = match[1];
    }
    return question;
  }
  return std::nullopt;
}

std::string answerText(const Question& question, const std::string& printed) {
  if (!question.isLines) return printed;
  std::string list;
  for (const char c : printed) list += c == '\n' ? ',' : c;
  if (list.ends_with(',')) list.pop_back();
  return "{\"events\":[" + list + "]}";
}

void RateHistory::add(const std::string& channel, const Json& rates) {
  for (const char* name : kRateNames) {
    std::deque<std::int64_t>& kept = kept_[channel][name];
    kept.push_back(static_cast<std::int64_t>(commands::number(rates, name).value_or(0)));
    if (kept.size() > kMost) kept.pop_front();
  }
}

Json RateHistory::json() const {
  Json channels = Json::object();
  for (const auto& [channel, kept] : kept_) {
    for (const char* name : kRateNames) channels[channel][name] = kept.at(name);
  }
  return {{"step_seconds", 1}, {"channels", std::move(channels)}};
}

}  // namespace tools
