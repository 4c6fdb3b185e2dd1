#include "tools/web/writing.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <regex>

#include "base/text.h"
#include "commands/form.h"
#include "tools/web/uploaded_file.h"

namespace tools {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kSessionPath = "/api/session";
constexpr auto kDoPath = "/api/([0-9]{1,3})/do";
constexpr auto kUploadPath = "/api/([0-9]{1,3})/upload";
constexpr auto kFileWord = "@";  // in place of the uploaded file's name
constexpr auto kReadOnly = "this page only reads: start qamweb with --web-write to change something";
constexpr std::chrono::seconds kDrain{5};  // so long the rest of a refused upload is read

// The commands of qamctl that the page may give.
struct Order {
  std::vector<std::string> words;  // with which it begins
  bool isJson = false;             // it has --json
  bool hasFile = false;
  bool isCapture = false;
};
const std::vector<Order>& orders() {
  static const std::vector<Order> kOrders = {
      {{"var", "set"}},
      {{"psi", "interval"}},
      {{"psi", "clear"}},
      {{"psi", "load"}, false, true, true},
      {{"psi", "search"}, true},
      {{"pids"}},
      {{"pidmap", "clear"}},
      {{"pidmap", "load"}, false, true},
      {{"programme", "add"}, true},
      {{"programme", "remove"}, true},
      {{"restore"}, true, true},
      {{"key"}},
      {{"fault", "add"}},
      {{"fault", "clear"}},
      {{"cal", "write"}, true},
      {{"cal", "restore"}, true, true},
      {{"call"}},
  };
  return kOrders;
}

const Order& orderOf(const std::vector<std::string>& words) {
  const auto found = std::ranges::find_if(orders(), [&](const Order& order) {
    return words.size() >= order.words.size() &&
           std::equal(order.words.begin(), order.words.end(), words.begin());
  });
  if (found == orders().end())
    throw commands::WrongCall(fmt::format("'{}' is no command for this page", fmt::join(words, " ")));
  return *found;
}

void log(const std::string& who, const std::string& what) {
  fmt::print(stderr, "{:%F %T} UTC page: {}: {}\n", fmt::gmtime(std::time(nullptr)), who,
             base::printable(what));
}

// The token that a program sends with its request; nullopt: none.
std::optional<std::string> bearerOf(const Request& request) {
  const std::string authorization = request.get_header_value("Authorization");
  const std::string scheme = "Bearer ";
  return authorization.starts_with(scheme) ? std::optional(authorization.substr(scheme.size()))
                                           : std::nullopt;
}

bool isJson(const Request& request) {
  return request.get_header_value("Content-Type").starts_with("application/json");
}

// The body, or nullopt and 413.
std::optional<std::string> bodyOf(const httplib::ContentReader& reader, Response& response) {
  std::string body;
  bool fits = true;
  reader([&](const char* bytes, std::size_t count) {
    fits = fits && body.size() + count <= Writing::kMostBody;
    if (fits) body.append(bytes, count);
    return fits;
  });
  if (fits) return body;
  refuse(response, 413, fmt::format("more than {} bytes", Writing::kMostBody));
  return std::nullopt;
}

// Reads on for a while, so that a client that still sends gets the reply.
void drain(const httplib::ContentReader& reader) {
  const Clock::time_point until = Clock::now() + kDrain;
  reader([&](const char*, std::size_t) { return Clock::now() < until; });
}

std::vector<std::string> textsOf(const Json& list) {
  if (!list.is_array() || !std::ranges::all_of(list, [](const Json& one) { return one.is_string(); }))
    throw commands::WrongCall("\"words\" must be a list of texts");
  return list.get<std::vector<std::string>>();
}

std::optional<Feed::Expected> expectedOf(const Json& wanted) {
  if (wanted.is_null()) return std::nullopt;
  const Json path = commands::member(wanted, "path");
  const auto question = path.is_string() ? questionOf(path.get<std::string>()) : std::nullopt;
  if (!question || question->isLines || !wanted.contains("value"))
    throw commands::WrongCall(R"("expect" must have a "path" below /api/N/ and its "value")");
  return Feed::Expected{.words = question->words, .value = commands::member(wanted, "value")};
}

void replaceAll(std::string& text, const std::string& old, const std::string& with) {
  if (old.empty()) return;
  for (std::size_t at = text.find(old); at != std::string::npos; at = text.find(old, at + with.size()))
    text.replace(at, old.size(), with);
}

Json outputOf(const Outcome& outcome, bool isJson) {
  Json parsed = isJson ? Json::parse(outcome.output, nullptr, false) : Json();
  return isJson && !parsed.is_discarded() ? parsed : Json(outcome.output);
}

}  // namespace

Writing::Writing(const Feeds& feeds, WriteOptions options)
    : feeds_(feeds), options_(std::move(options)), access_(options_.token) {}

void Writing::serve(httplib::Server& http) {
  const auto with = [this](auto handler) {
    return [this, handler](const Request& request, Response& response, const Reader& reader) {
      (this->*handler)(request, response, reader);
    };
  };
  http.Get(kSessionPath,
           [this](const Request& request, Response& response) { tellSession(request, response); });
  http.Post(kSessionPath, with(&Writing::openSession));
  http.Delete(kSessionPath,
              [this](const Request& request, Response& response) { closeSession(request, response); });
  http.Post(kDoPath, with(&Writing::carryOutOrder));
  http.Post(kUploadPath, with(&Writing::takeUpload));
}

bool Writing::isRoute(const Request& request) {
  static const std::regex kPosts(fmt::format("{}|{}|{}", kSessionPath, kDoPath, kUploadPath));
  if (request.method == "POST") return std::regex_match(request.path, kPosts);
  const bool hasBody = request.has_header("Content-Length") || request.has_header("Transfer-Encoding");
  return request.method == "DELETE" && request.path == kSessionPath && !hasBody;
}

// ---- Who

std::string Writing::secretOf(const Request& request) const {
  const std::string all = "; " + request.get_header_value("Cookie") + ";";
  const std::string key = "; " + access_.cookie() + "=";
  const std::size_t at = all.find(key);
  return at == std::string::npos
             ? ""
             : all.substr(at + key.size(), all.find(';', at + key.size()) - at - key.size());
}

std::string Writing::cookie(const std::string& secret, const char* more) const {
  return fmt::format("{}={}; Path=/; HttpOnly; SameSite=Strict{}{}", access_.cookie(), secret,
                     options_.isBehindTls ? "; Secure" : "", more);
}

// The address of the client; behind a proxy, also the one that the proxy names.
std::string Writing::who(const Request& request, const std::string& user) const {
  const std::string forwarded = options_.isBehindTls ? request.get_header_value("X-Forwarded-For") : "";
  return base::printable(
      fmt::format("{}{}{}, {}", request.remote_addr, forwarded.empty() ? "" : " for ", forwarded, user));
}

bool Writing::knowsToken(const Request& request, const std::string& token, Response& response) {
  const Access::Verdict verdict = access_.tryToken(token);
  if (verdict == Access::Verdict::kRight) return true;
  log(who(request, "nobody"), verdict == Access::Verdict::kWrong ? "wrong token" : "too many wrong tokens");
  if (verdict == Access::Verdict::kWrong) {
    refuse(response, 403, "this is not the token that qamweb gave at its start");
  } else {
    response.set_header("Retry-After", "60");
    refuse(response, 429,
           fmt::format("{} wrong tokens within a minute: try again in a minute", Access::kMostFailures));
  }
  return false;
}

// Who may change something; otherwise nullopt and the reason.
std::optional<std::string> Writing::user(const Request& request, Response& response) {
  const auto no = [&](int status, const char* why) {
    refuse(response, status, why);
    return std::nullopt;
  };
  if (!options_.isWritable) return no(403, kReadOnly);
  if (!options_.isBehindTls && !isLoopbackName(hostOf(request)))
    return no(403, "changes from other machines need --web-behind-tls, or 'ssh -L'");
  if (!request.get_header_value("Authorization").empty()) {
    if (!knowsToken(request, bearerOf(request).value_or(""), response)) return std::nullopt;
    return "with the token";
  }
  const auto number = access_.numberOf(secretOf(request));
  if (!number) return no(401, "log in first: POST /api/session, or 'Authorization: Bearer TOKEN'");
  if (!request.has_header("Origin")) return no(403, "a browser must name the origin of a change");
  return fmt::format("session {}", *number);
}

bool Writing::mayReadMetrics(const Request& request, Response& response) {
  const bool isNear = request.remote_addr == "127.0.0.1" || request.remote_addr == "::1";
  if (isNear && isLoopbackName(hostOf(request))) return true;
  const auto token = bearerOf(request);
  if (!options_.token.empty() && token) return knowsToken(request, *token, response);
  refuse(response, 401,
         "from other machines /metrics needs 'Authorization: Bearer TOKEN', with the token of --web-write");
  return false;
}

void Writing::tellSession(const Request& request, Response& response) {
  give(response, {.json = compactText({{"writes", options_.isWritable},
                                       {"in", access_.numberOf(secretOf(request)).has_value()}})});
}

void Writing::openSession(const Request& request, Response& response, const Reader& reader) {
  const auto body = bodyOf(reader, response);
  if (!body) return;
  if (!options_.isWritable) return refuse(response, 403, kReadOnly);
  if (!isJson(request)) return refuse(response, 415, "the body must be JSON");
  const Json token = commands::member(requestJson(*body), "token");
  if (!token.is_string()) return refuse(response, 400, "the body must be {\"token\": TEXT}");
  if (!knowsToken(request, token.get<std::string>(), response)) return;
  const Access::Session session = access_.open();
  log(who(request, fmt::format("session {}", session.number)), "logged in");
  response.set_header("Set-Cookie", cookie(session.secret, ""));
  give(response, {.json = compactText({{"writes", true}, {"in", true}})});
}

void Writing::closeSession(const Request& request, Response& response) {
  access_.close(secretOf(request));
  response.set_header("Set-Cookie", cookie("", "; Max-Age=0"));
  give(response, {.json = compactText({{"writes", options_.isWritable}, {"in", false}})});
}

// ---- What

namespace {

// The words as a client gave them: with @ for the file.
void order(Feed& feed, const std::string& who, std::vector<std::string> words, const std::string& file,
           const std::optional<Feed::Expected>& expected, Response& response) {
  const std::string what = fmt::format("{}: {}", feed.place().name, fmt::join(words, " "));
  Reply reply = attempt([&] {
    const Order& known = orderOf(words);
    if (file.empty() && std::ranges::count(words, kFileWord) > 0)
      throw commands::WrongCall("the word @ is for a file, and none was sent");
    if (known.isJson) words.emplace_back("--json");
    std::ranges::replace(words, std::string(kFileWord), file);
    const Outcome outcome = feed.change(words, file, expected);
    return compactText({{"output", outputOf(outcome, known.isJson)}, {"notes", outcome.notes}});
  });
  replaceAll(reply.json, file, "the file");
  const std::string error = commands::oneLine(commands::member(Json::parse(reply.json), "error"));
  log(who, what + (error.empty() ? ": done" : ": not done: " + error));
  give(response, std::move(reply));
}

}  // namespace

void Writing::carryOutOrder(const Request& request, Response& response, const Reader& reader) {
  const auto body = bodyOf(reader, response);
  if (!body) return;
  const auto name = user(request, response);
  if (!name) return;
  Feed* feed = feedOf(feeds_, request, response);
  if (feed == nullptr) return;
  if (!isJson(request)) return refuse(response, 415, "the body must be JSON");
  const Json asked = requestJson(*body);
  std::vector<std::string> words;
  std::optional<Feed::Expected> expected;
  try {
    words = textsOf(commands::member(asked, "words"));
    expected = expectedOf(commands::member(asked, "expect"));
  } catch (const commands::WrongCall& e) {
    return refuse(response, 400, e.what());
  }
  std::optional<UploadedFile> file;
  try {
    if (asked.contains("file")) {
      const std::string content = compactText(asked["file"]);
      file.emplace().append(content.data(), content.size());
    }
  } catch (const std::system_error& e) {
    return refuse(response, 507, e.what());
  }
  order(*feed, who(request, *name), words, file ? file->path() : "", expected, response);
}

namespace {

// Receives the file of an upload and says why it cannot be used.
class Receiver {
 public:
  Receiver(UploadedFile& file, u64 most, bool isCapture, const std::atomic<bool>& ends)
      : file_(file), most_(most), isCapture_(isCapture), ends_(ends) {}

  struct Refusal {
    int status = 0;
    std::string why;
  };

  bool take(const char* bytes, std::size_t count) {
    if (refusal_) return !ends_ && Clock::now() < until_;
    if (ends_) return refuseIt(503, "the web page ends");
    try {
      file_.append(bytes, count);
    } catch (const std::system_error& e) {
      return refuseIt(507, e.what());
    }
    if (file_.size() > most_) return refuseIt(413, fmt::format("the file has more than {} bytes", most_));
    if (!looked_ && isCapture_ && file_.size() >= Writing::kMostWithoutPackets) {
      looked_ = true;
      if (!file_.hasPackets())
        return refuseIt(422, "the first MiB has no packets of a transport stream: nothing was changed");
    }
    return true;
  }
  const std::optional<Refusal>& refusal() const { return refusal_; }

 private:
  // The rest is read and dropped for a while, so that a client that still sends gets the reply.
  bool refuseIt(int status, const std::string& why) {
    refusal_ = {status, why};
    until_ = Clock::now() + kDrain;
    return true;
  }

  UploadedFile& file_;
  const u64 most_;
  const bool isCapture_;
  const std::atomic<bool>& ends_;
  bool looked_ = false;
  std::optional<Refusal> refusal_;
  Clock::time_point until_;
};

// Keeps others from uploading the same while it lives.
class Turn {
 public:
  Turn(std::mutex& mutex, std::set<std::string>& all, std::string name)
      : mutex_(mutex), all_(all), name_(std::move(name)) {
    const std::lock_guard lock(mutex_);
    isMine_ = all_.insert(name_).second;
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;
  ~Turn() {
    const std::lock_guard lock(mutex_);
    if (isMine_) all_.erase(name_);
  }
  bool isMine() const { return isMine_; }

 private:
  std::mutex& mutex_;
  std::set<std::string>& all_;
  std::string name_;
  bool isMine_ = false;
};

}  // namespace

void Writing::takeUpload(const Request& request, Response& response, const Reader& reader) {
  std::vector<std::string> words;
  for (auto [at, end] = request.params.equal_range("word"); at != end; ++at) words.push_back(at->second);
  const auto no = [&](int status, const std::string& why) {
    drain(reader);
    refuse(response, status, why);
  };
  const auto name = user(request, response);
  Feed* feed = name ? feedOf(feeds_, request, response) : nullptr;
  if (feed == nullptr) return drain(reader);
  if (request.is_multipart_form_data()) return no(415, "the body must be the file itself, not a form");
  const Order* known = nullptr;
  try {
    known = &orderOf(words);
  } catch (const commands::WrongCall& e) {
    return no(400, e.what());
  }
  if (!known->hasFile || std::ranges::count(words, kFileWord) != 1)
    return no(400, "one word must be @, for the file");
  const Turn turn(mutex_, uploads_,
                  fmt::format("{} {} {}", request.matches[1].str(), words[0] == "restore" ? "" : words[0],
                              words[known->words.size()]));
  if (!turn.isMine()) return no(409, "another upload to it is in progress");
  std::optional<UploadedFile> stored;
  try {
    stored.emplace();
  } catch (const std::system_error& e) {
    return no(507, e.what());
  }
  UploadedFile& file = *stored;
  const u64 announced = request.get_header_value<u64>("Content-Length");
  const u64 most = known->isCapture ? kMostUpload : kMostBody;
  if (announced > most) return no(413, fmt::format("the file has more than {} bytes", most));
  if (announced > file.freeBytes())
    return no(507, fmt::format("the upload has {} bytes, and {} are free in the folder for temporary files",
                               announced, file.freeBytes()));
  Receiver receiver(file, most, known->isCapture, ends_);
  const bool isWhole =
      reader([&](const char* bytes, std::size_t count) { return receiver.take(bytes, count); });
  const std::string by = who(request, *name);
  const std::string what = fmt::format("{}: {}", feed->place().name, fmt::join(words, " "));
  if (receiver.refusal() || !isWhole) {
    const Receiver::Refusal why =
        receiver.refusal().value_or(Receiver::Refusal{400, "the upload was not completed"});
    log(by, fmt::format("{}: not done: {}", what, why.why));
    return refuse(response, why.status, why.why);
  }
  order(*feed, by, words, file.path(), {}, response);
}

}  // namespace tools
