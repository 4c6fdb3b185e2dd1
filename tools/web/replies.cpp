#include "tools/web/replies.h"

#include <algorithm>
#include <cctype>

#include "commands/form.h"

namespace tools {

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
