// What the page asks for by the paths of docs/web.md: qamweb gives it for each request, and a report of
// headend has all of it in the file.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "commands/json_fields.h"

namespace tools {

using commands::Json;

// On one line; bytes that are no UTF-8 are replaced.
std::string compactText(const Json& json);

// The newest state of a headend, as the page gets it. `pace`, `status` and `lcd` may be null.
Json stateJson(unsigned long sequence, const Json& readUnixMs, const std::string& error, const Json& pace,
               const Json& status, const Json& lcd);

// A command of qamctl behind a path below /api/N/, as "psi/1.1"; --json is added to its words.
struct Question {
  std::vector<std::string> words;
  bool isLines = false;  // its JSON is an object a line
};
std::optional<Question> questionOf(const std::string& path);
// What the path gives, from what the command has printed. Lines become the list "events" of an object.
std::string answerText(const Question& question, const std::string& printed);

// The rates of each channel in the last ten minutes, one value a second.
class RateHistory {
 public:
  static constexpr std::size_t kMost = 600;

  // `rates` has the members psi, routed and null, in bit/s.
  void add(const std::string& channel, const Json& rates);
  // {"step_seconds": 1, "channels": {"1.1": {"psi": [bit/s ...], ...}}}
  Json json() const;

 private:
  std::map<std::string, std::map<std::string, std::deque<std::int64_t>>> kept_;
};

}  // namespace tools
