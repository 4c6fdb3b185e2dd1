#include "tools/web/replies.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <regex>

#include "commands/form.h"

namespace tools {
namespace {

// CHANNEL, SLOT are parts of both.
struct Answer {
  const char* path;  // a regular expression
  Question question;
};
const std::vector<Answer>& answers() {
  static const std::vector<Answer> kAnswers = {
      {"alarms", {{"alarms", "--history"}, true}},
      {"programmes/([1-6]\\.[12])", {{"programme", "list", "$"}}},
      {"pidmap/([1-6]\\.[12])", {{"pidmap", "show", "$"}}},
      {"psi/([1-6]\\.[12])", {{"psi", "show", "$"}}},
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

void give(Response& response, int status, const std::string& json) {
  response.status = status;
  response.set_content(json, "application/json");
}

void refuse(Response& response, int status, const std::string& why) {
  give(response, status, compactText({{"error", why}}));
}

void attempt(Response& response, const std::function<std::string()>& work) {
  try {
    give(response, 200, work());
  } catch (const commands::Help&) {
    refuse(response, 400, "the page gives no help");
  } catch (const commands::WrongCall& e) {
    refuse(response, 400, e.what());
  } catch (const Feed::Changed& e) {
    give(response, 409, compactText({{"error", e.what()}, {"changed", true}}));
  } catch (const client::Error& e) {
    refuse(response, e.gotNoReply() ? 504 : 409, e.what());
  } catch (const std::exception& e) {
    refuse(response, 502, e.what());
  }
}

Json requestJson(const std::string& text) {
  constexpr int kDepth = 16;
  return Json::parse(
      text, [](int depth, Json::parse_event_t, const Json&) { return depth < kDepth; }, false);
}

Feed* feedOf(const Feeds& feeds, const Request& request, Response& response) {
  const auto number = static_cast<std::size_t>(std::stoi(request.matches[1]));
  if (number > 0 && number <= feeds.size()) return feeds[number - 1].get();
  refuse(response, 404, "there is no headend of this number");
  return nullptr;
}

std::optional<Question> questionOf(const std::string& path) {
  for (const Answer& answer : answers()) {
    std::smatch match;
    if (!std::regex_match(path, match, std::regex(answer.path))) continue;
    Question question = answer.question;
    for (std::string& word : question.words) {
      if (word == "$") word = match[1];
    }
    return question;
  }
  return std::nullopt;
}

std::string hostOf(const Request& request) {
  std::string text = request.get_header_value("Host");
  const std::size_t colon = text.find(':', text.starts_with('[') ? text.find(']') + 1 : 0);
  if (colon != std::string::npos) text.erase(colon);
  std::ranges::transform(text, text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

bool isLoopbackName(const std::string& host) {
  return host == "localhost" || host == "127.0.0.1" || host == "[::1]";
}

}  // namespace tools
