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

void give(Response& response, int status, const std::string& json);
void refuse(Response& response, int status, const std::string& why);
// Gives what `work` returns; for its error the status that fits.
void attempt(Response& response, const std::function<std::string()>& work);

// The JSON of a request; discarded if it is none. What is nested deeply is left out: the library copies and
// prints nested values by recursion.
Json requestJson(const std::string& text);

// The headend of a path "/api/N/...", whose N is the first match. Null, and 404: there is none.
Feed* feedOf(const Feeds& feeds, const Request& request, Response& response);

// "localhost" of "localhost:8080", "[::1]" of "[::1]:8080"; in small letters.
std::string hostOf(const Request& request);
bool isLoopbackName(const std::string& host);

}  // namespace tools
