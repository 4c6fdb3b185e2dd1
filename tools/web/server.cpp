#include "tools/web/server.h"

#include <fmt/format.h>
#include <httplib.h>

#include <atomic>
#include <cctype>
#include <cstring>
#include <functional>
#include <optional>
#include <stdexcept>

#include "tools/web/metrics.h"
#include "tools/web/page.h"

namespace tools {
namespace {

using std::chrono::milliseconds;

constexpr int kShortThreads = 32;     // for requests that end at once
constexpr milliseconds kQuiet{2000};  // the longest time between two events
constexpr int kPatienceSeconds = 5;   // for a slow request or viewer

constexpr const char* kPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; connect-src 'self'; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

// Why a browser may not have the answer: a page of another site asks, or the name was made to point to this
// service by others. nullopt if it may.
std::optional<std::string> forbidden(const Request& request, const std::set<std::string>& names) {
  const std::string host = hostOf(request);
  if (!isLoopbackName(host) && !names.contains(host))
    return fmt::format("'{}' is no name of this service: start it with --web-name to add one", host);
  if (request.has_header("Origin")) {
    const std::string origin = request.get_header_value("Origin");
    const std::size_t at = origin.find("://");
    if (at == std::string::npos || origin.substr(at + 3) != request.get_header_value("Host"))
      return "a page of another site may not ask";
  }
  const std::string site = request.get_header_value("Sec-Fetch-Site");
  const bool isPage = request.method == "GET" &&
                      request.get_header_value("Sec-Fetch-Mode") == "navigate";  // a link leads here
  if (!site.empty() && site != "same-origin" && site != "none" && !isPage)
    return "a page of another site may not ask";
  return std::nullopt;
}

// Counts while it lives.
class Viewer {
 public:
  explicit Viewer(std::atomic<int>& count) : count_(count), mine_(++count) {}
  Viewer(const Viewer&) = delete;
  Viewer& operator=(const Viewer&) = delete;
  ~Viewer() { --count_; }
  bool fits() const { return mine_ <= WebServer::kViewers; }

 private:
  std::atomic<int>& count_;
  int mine_;
};

void sendEvents(Feed& feed, std::atomic<int>& viewers, Response& response) {
  const auto viewer = std::make_shared<Viewer>(viewers);
  if (!viewer->fits())
    return refuse(response, 503, fmt::format("{} viewers are connected; no more fit", WebServer::kViewers));
  const auto last = std::make_shared<unsigned long>(0);
  response.set_header("X-Accel-Buffering", "no");  // a proxy must not hold events back
  response.set_chunked_content_provider(
      "text/event-stream", [&feed, viewer, last](std::size_t, httplib::DataSink& sink) {
        const Feed::State state = feed.after(*last, kQuiet);
        if (!state.text) return sink.write(":\n\n", 3);
        const std::string event = fmt::format("id: {}\ndata: {}\n\n", state.sequence, *state.text);
        *last = state.sequence;
        return sink.write(event.data(), event.size());
      });
}

void sendAnswer(Feed& feed, const Request& request, Response& response) {
  const auto question = questionOf(request.matches[2]);
  if (!question) return refuse(response, 404, "there is nothing of this name");
  give(response, attempt([&] { return answerText(*question, feed.answer(question->words)); }));
}

Json headendsJson(const Feeds& feeds) {
  Json list = Json::array();
  for (std::size_t i = 0; i < feeds.size(); ++i)
    list.push_back({{"id", std::to_string(i + 1)},
                    {"name", feeds[i]->place().name},
                    {"server", feeds[i]->place().management}});
  return {{"version", QAM_VERSION}, {"headends", std::move(list)}};
}

}  // namespace

WebServer::WebServer(const Feeds& feeds, std::set<std::string> names, WriteOptions writes)
    : feeds_(feeds), writing_(feeds, std::move(writes)), http_(std::make_unique<httplib::Server>()) {
  http_->new_task_queue = [] { return new httplib::ThreadPool(kViewers + kShortThreads); };
  http_->set_default_headers({{"Content-Security-Policy", kPolicy},
                              {"X-Content-Type-Options", "nosniff"},
                              {"Referrer-Policy", "no-referrer"},
                              {"Cross-Origin-Resource-Policy", "same-origin"},
                              {"Cross-Origin-Opener-Policy", "same-origin"},
                              {"Cache-Control", "no-store"}});
  http_->set_read_timeout(kPatienceSeconds);
  http_->set_write_timeout(kPatienceSeconds);
  // Each connection is for one request: what is left of the body of a refused one is no other request.
  http_->set_keep_alive_max_count(1);
  http_->set_payload_max_length(Writing::kMostUpload + 1);
  http_->set_tcp_nodelay(true);
  // Not the library's own: with them a second service can listen on the same port, and each gets half the
  // requests.
  http_->set_socket_options([](int socket) {
    const int yes = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });
  http_->set_pre_routing_handler([names = std::move(names)](const Request& request, Response& response) {
    using Handled = httplib::Server::HandlerResponse;
    if (const auto why = forbidden(request, names)) return refuse(response, 403, *why), Handled::Handled;
    const bool isRead = request.method == "GET" || request.method == "HEAD";
    if (isRead || Writing::isRoute(request)) return Handled::Unhandled;
    return refuse(response, 405, "not a method of this service"), Handled::Handled;
  });
  http_->set_error_handler([](const Request&, Response& response) {
    if (!response.content_provider_) refuse(response, response.status, "there is nothing of this name");
  });
  http_->set_exception_handler([](const Request&, Response& response, const std::exception_ptr&) {
    refuse(response, 500, "the request could not be carried out");
  });

  for (const PageFile& file : pageFiles()) {
    http_->Get(file.path, [file](const Request&, Response& response) {
      send(response, std::string(file.content), file.type);
    });
  }
  writing_.serve(*http_);
  const auto get = [this](const std::string& path,
                          const std::function<void(Feed&, const Request&, Response&)>& handler) {
    http_->Get("/api/([0-9]{1,3})/" + path, [this, handler](const Request& request, Response& response) {
      if (Feed* feed = feedOf(feeds_, request, response)) handler(*feed, request, response);
    });
  };
  http_->Get("/api/headends", [this](const Request&, Response& response) {
    give(response, {.json = compactText(headendsJson(feeds_))});
  });
  http_->Get("/metrics", [this](const Request& request, Response& response) {
    if (!writing_.mayReadMetrics(request, response)) return;
    send(response, metricsOf(feeds_), "text/plain; version=0.0.4");
  });
  const auto viewers = std::make_shared<std::atomic<int>>(0);
  get("events",
      [viewers](Feed& feed, const Request&, Response& response) { sendEvents(feed, *viewers, response); });
  get("state", [](Feed& feed, const Request&, Response& response) {
    const Feed::State state = feed.after(0, kQuiet);
    if (!state.text) return refuse(response, 503, "nothing has been read yet");
    give(response, {.json = *state.text});
  });
  get("history", [](Feed& feed, const Request&, Response& response) {
    give(response, {.json = compactText(feed.history())});
  });
  get("([a-z]+(?:/[0-9.]+)?)", sendAnswer);
}

WebServer::~WebServer() = default;

u16 WebServer::open(const std::string& host, u16 port) {
  const int bound = port == 0 ? http_->bind_to_any_port(host) : http_->bind_to_port(host, port) ? port : -1;
  if (bound < 0)
    throw std::runtime_error(fmt::format("cannot listen on {}:{}: {}; --listen takes another address or port",
                                         host, port, std::strerror(errno)));
  return static_cast<u16>(bound);
}

void WebServer::serve() {
  http_->listen_after_bind();
}

void WebServer::stop() {
  writing_.end();
  for (const auto& feed : feeds_) feed->end();
  http_->stop();
}

}  // namespace tools
