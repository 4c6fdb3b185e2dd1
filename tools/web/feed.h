// What one headend reports, read once for all viewers: its state several times a second by a thread of its
// own, and what a viewer asks for besides, as the JSON of a command of qamctl. Callable from any thread.
#pragma once

#include <boost/core/noncopyable.hpp>

#include <array>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "client/udp_link.h"
#include "commands/command.h"
#include "commands/json_fields.h"

namespace tools {

using commands::Json;

// On one line; bytes that are no UTF-8 are replaced.
std::string compactText(const Json& json);

class Feed : boost::noncopyable {
 public:
  using Clock = std::chrono::steady_clock;

  // The headend with the management socket `server`, "ADDR:PORT". `name` is for people.
  Feed(std::string name, std::string server);
  ~Feed();

  const std::string& name() const { return name_; }
  const std::string& server() const { return server_; }

  struct State {
    unsigned long sequence = 0;
    std::shared_ptr<const std::string> text;  // a JSON object, in docs/web.md
  };
  // The newest state, if it is newer than `sequence`; else the next one. After `limit` the newest again, so
  // that a viewer sees that the connection holds. States between are skipped.
  State after(unsigned long sequence, std::chrono::milliseconds limit);

  // The rates of the last ten minutes: {"step_seconds": 1, "channels": {"1.1": {"psi": [bit/s ...], ...}}}.
  Json history();
  // The last report of the headend; null if it does not answer.
  Json report();

  // The output of a command of qamctl with --json, carried out now, or at most a second ago. Throws
  // client::Error, also if earlier ones take long; std::runtime_error.
  std::string answer(const std::vector<std::string>& words);

 private:
  static constexpr std::size_t kHistory = 600;  // seconds
  using Rates = std::map<std::string, std::array<std::deque<std::int64_t>, 3>>;

  bool isWatched() const;
  void poll();
  void read();
  void publish(const std::string& error);
  void keepRates();
  std::optional<double> paceAt(double virtualSeconds);

  const std::string name_, server_;

  // Used by the polling thread only.
  client::UdpLink link_;
  Clock::time_point ratesKept_{};
  std::deque<std::pair<Clock::time_point, double>> times_;  // virtual seconds at the last polls

  std::mutex mutex_;
  std::condition_variable changed_;
  bool ends_ = false;
  Clock::time_point lastViewer_{};  // when one last asked
  State state_;
  bool isUp_ = false;  // whether the last poll was answered
  Json report_, lcd_, readAt_;
  std::optional<double> pace_;
  Rates rates_;

  std::timed_mutex asking_;  // one command at a time
  struct Answer {
    Clock::time_point at;
    std::string text;
  };
  std::map<std::vector<std::string>, Answer> answers_;
  commands::LineParser parser_;

  std::thread thread_;
};

}  // namespace tools
