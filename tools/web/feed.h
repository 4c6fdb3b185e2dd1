// What one headend reports, read once for all viewers: its state several times a second by a thread of its
// own, and what a viewer asks for besides, as the JSON of a command of qamctl. And the changes that viewers
// make. Callable from any thread.
#pragma once

#include <boost/core/noncopyable.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "client/udp_link.h"
#include "tools/web/answers.h"
#include "tools/web/page_call.h"

namespace tools {

class Feed : boost::noncopyable {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Feed(Place place);
  ~Feed();

  const Place& place() const { return place_; }

  struct State {
    unsigned long sequence = 0;
    std::shared_ptr<const std::string> text;  // a JSON object, in docs/web.md
  };
  // The newest state, if it is newer than `sequence`; else the next one. After `limit` the newest again, so
  // that a viewer sees that the connection holds. States between are skipped.
  State after(unsigned long sequence, std::chrono::milliseconds limit);

  Json history();  // see RateHistory
  // The last report of the headend; null if it does not answer.
  Json report();

  // The output of a command of qamctl with --json, carried out now, or at most a second ago. Throws
  // client::Error, also if earlier ones take long; std::runtime_error.
  std::string answer(const std::vector<std::string>& words);

  // A command that changes something, carried out now; `file` as in carryOut. With `expected` only if a
  // command gives a value: so a viewer undoes its own change, and no other.
  struct Expected {
    std::vector<std::string> words;
    Json value;
  };
  class Changed : public std::runtime_error {
   public:
    Changed() : runtime_error("somebody else has changed this since") {}
  };
  // Throws Changed, and as `answer`.
  Outcome change(const std::vector<std::string>& words, const std::string& file,
                 const std::optional<Expected>& expected);
  // Makes all commands that wait give up.
  void end() { ends_ = true; }

 private:
  bool isWatched() const;
  void poll();
  void read();
  void publish(const std::string& error);
  void forgetAnswers();
  void showSoon();  // what was changed just now
  void keepRates();
  std::optional<double> paceAt(double virtualSeconds);

  const Place place_;

  // Used by the polling thread only.
  client::UdpLink link_;
  Clock::time_point ratesKept_{};
  std::deque<std::pair<Clock::time_point, double>> times_;  // virtual seconds at the last polls

  std::mutex mutex_;
  std::condition_variable changed_;
  std::atomic<bool> ends_ = false;
  Clock::time_point lastViewer_{};    // when one last asked
  Clock::time_point hurriesUntil_{};  // states come faster: something was changed
  State state_;
  bool isUp_ = false;  // whether the last poll was answered
  Json report_, lcd_, readAt_;
  std::optional<double> pace_;
  RateHistory rates_;

  std::timed_mutex asking_;  // one command at a time
  struct Answer {
    Clock::time_point at;
    std::string text;
  };
  std::map<std::vector<std::string>, Answer> answers_;
  std::timed_mutex changing_;  // one change at a time

  std::thread thread_;
};

}  // namespace tools
