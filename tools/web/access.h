// Who may change something over the page: who knows its token. A browser gives the token once and then has a
// session, other programs give it with each request. Callable from any thread.
#pragma once

#include <boost/core/noncopyable.hpp>

#include <chrono>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace tools {

// 128 random bits, as 32 hexadecimal digits. Throws std::system_error.
std::string randomSecret();

class Access : boost::noncopyable {
 public:
  // At most so many wrong tokens are looked at in a minute; then even the right one is refused.
  static constexpr std::size_t kMostFailures = 10;
  static constexpr std::size_t kMostSessions = 64;  // then the oldest ends

  enum class Verdict { kRight, kWrong, kTooManyFailures };

  explicit Access(std::string token) : token_(std::move(token)) {}

  Verdict tryToken(const std::string& token);

  struct Session {
    std::string secret;   // for the cookie
    unsigned number = 0;  // for people: 1, 2, 3 ...
  };
  Session open();
  void close(const std::string& secret);
  std::optional<unsigned> numberOf(const std::string& secret);  // nullopt: there is no such session

  // Of the cookie: cookies are for a host and know no port, so each qamweb has another name.
  const std::string& cookie() const { return cookie_; }

 private:
  using Clock = std::chrono::steady_clock;

  const std::string token_;
  const std::string cookie_ = "qamweb_" + randomSecret().substr(0, 16);
  std::mutex mutex_;
  std::deque<Clock::time_point> failures_;  // of the last minute
  std::deque<Session> sessions_;            // the oldest first
  unsigned opened_ = 0;
};

}  // namespace tools
