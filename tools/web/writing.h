// What changes something over the page: sessions of browsers, commands, uploads. Each change is logged.
#pragma once

#include <boost/core/noncopyable.hpp>

#include <atomic>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "tools/web/access.h"
#include "tools/web/replies.h"

namespace tools {

struct WriteOptions {
  std::string token;        // empty: nobody changes anything
  bool isWritable = false;  // else the token is for /metrics only
  bool isBehindTls = false;
};

class Writing : boost::noncopyable {
 public:
  static constexpr std::size_t kMostBody = 1 << 20;         // of a request without an upload
  static constexpr std::uint64_t kMostUpload = 4ULL << 30;  // 4 GiB
  static constexpr std::uint64_t kMostWithoutPackets = 1 << 20;

  Writing(const Feeds& feeds, WriteOptions options);

  void serve(httplib::Server& http);  // the routes
  // Other requests with a body must not reach the library: it would keep the body in memory.
  static bool isRoute(const Request& request);
  // Whether a program may read /metrics: on the loopback, or with the token.
  bool mayReadMetrics(const Request& request, Response& response);
  void end() { ends_ = true; }  // uploads that come are given up

 private:
  using Reader = httplib::ContentReader;

  std::optional<std::string> user(const Request& request, Response& response);
  bool knowsToken(const Request& request, const std::string& token, Response& response);
  std::string who(const Request& request, const std::string& user) const;
  std::string secretOf(const Request& request) const;
  std::string cookie(const std::string& secret, const char* more) const;

  void tellSession(const Request& request, Response& response);
  void openSession(const Request& request, Response& response, const Reader& reader);
  void closeSession(const Request& request, Response& response);
  void carryOutOrder(const Request& request, Response& response, const Reader& reader);
  void takeUpload(const Request& request, Response& response, const Reader& reader);

  const Feeds& feeds_;
  const WriteOptions options_;
  Access access_;
  std::atomic<bool> ends_ = false;
  std::mutex mutex_;
  std::set<std::string> uploads_;  // what is being uploaded: "1 psi load 1.1"
};

}  // namespace tools
