#include "tools/web/replies.h"

#include <algorithm>
#include <cctype>
#include <utility>

#include "commands/form.h"

namespace tools {

void send(Response& response, std::string content, const char* type) {
  const auto kept = std::make_shared<const std::string>(std::move(content));
  response.set_content_provider(kept->size(), type,
                                [kept](std::size_t at, std::size_t count, httplib::DataSink& sink) {
                                  return sink.write(kept->data() + at, count);
                                });
}

void give(Response& response, Reply reply) {
  response.status = reply.status;
  send(response, std::move(reply.json), "application/json");
}

Reply refusal(int status, const std::string& why) {
  return {.status = status, .json = compactText({{"error", why}})};
}

void refuse(Response& response, int status, const std::string& why) {
  give(response, refusal(status, why));
}

Reply attempt(const std::function<std::string()>& work) {
  try {
    return {.json = work()};
  } catch (const commands::Help&) {
    return refusal(400, "the page gives no help");
  } catch (const commands::WrongCall& e) {
    return refusal(400, e.what());
  } catch (const Feed::Changed& e) {
    return {.status = 409, .json = compactText({{"error", e.what()}, {"changed", true}})};
  } catch (const client::Error& e) {
    return refusal(e.gotNoReply() ? 504 : 409, e.what());
  } catch (const std::exception& e) {
    return refusal(409, e.what());  // a file that cannot be used, a value that needs --force
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
