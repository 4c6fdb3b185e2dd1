// What the HTTP service replies.
#pragma once

#include <httplib.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tools/web/feed.h"

namespace tools {

using Feeds = std::vector<std::unique_ptr<Feed>>;
using httplib::Request;
using httplib::Response;

// As it is: what has its length only, the library would compress for a browser, for a fifth of a second the
// script.
void send(Response& response, std::string content, const char* type);
struct Reply {
  int status = 200;
  std::string json;
};
void give(Response& response, Reply reply);
Reply refusal(int status, const std::string& why);
void refuse(Response& response, int status, const std::string& why);
// What `work` returns; for its error the status that fits.
Reply attempt(const std::function<std::string()>& work);

// The JSON of a request; discarded if it is none. What is nested deeply is left out: the library copies and
// prints nested values by recursion.
Json requestJson(const std::string& text);

// The headend of a path "/api/N/...", whose N is the first match. Null, and 404: there is none.
Feed* feedOf(const Feeds& feeds, const Request& request, Response& response);

// "localhost" of "localhost:8080", "[::1]" of "[::1]:8080"; in small letters.
std::string hostOf(const Request& request);
bool isLoopbackName(const std::string& host);

}  // namespace tools
