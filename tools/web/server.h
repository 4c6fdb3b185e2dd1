// The HTTP service of qamweb: the page, the JSON below /api/, server-sent events, and /metrics. docs/web.md
// describes them.
#pragma once

#include <memory>
#include <set>
#include <string>

#include "tools/web/writing.h"

namespace tools {

class WebServer : boost::noncopyable {
 public:
  // `names`: host names, besides those of the loopback, by which browsers may call it. At most kViewers
  // event streams are served.
  static constexpr int kViewers = 32;
  WebServer(const Feeds& feeds, std::set<std::string> names, WriteOptions writes);
  ~WebServer();

  // Opens the socket; port 0: a free one. Returns the port. Throws std::runtime_error.
  u16 open(const std::string& host, u16 port);
  void serve();  // until `stop`
  void stop();   // from any thread

 private:
  const Feeds& feeds_;
  Writing writing_;
  std::unique_ptr<httplib::Server> http_;
  std::string host_;
};

}  // namespace tools
