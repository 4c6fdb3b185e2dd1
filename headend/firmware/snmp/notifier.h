// Sends notifications in their order, in a task of its own. An INFORM is repeated until the receiver has
// acknowledged it; its time-outs run in wall time, and meanwhile the task waits for a tick of the clock, so a
// receiver that does not answer delays nothing.
#pragma once

#include <chrono>
#include <deque>
#include <optional>
#include <vector>

#include "headend/firmware/snmp/notification.h"
#include "headend/firmware/snmp/sink.h"
#include "headend/kernel/network.h"

namespace headend {

class Notifier {
 public:
  // Lower priority than the agent (222): a card that delays the agent does not delay notifications.
  static constexpr int kPriority = 223;
  static constexpr std::size_t kWaitingMost = 100;  // if more wait, the oldest are dropped and counted

  // Opens the session. Throws std::runtime_error.
  Notifier(Kernel& kernel, Network& network, const SnmpSettings& settings, const SnmpSecrets& secrets,
           const EngineIdentity& engine, Say say)
      : kernel_(kernel),
        network_(network),
        sink_(*settings.trapSink, secrets, engine, settings.inform),
        base_(settings.base),
        say_(std::move(say)) {}
  void start();  // spawns the task, and notifies that the agent has started

  // Callable from any task.
  void alarm(const AlarmRecord& event) { add({.alarm = event}); }
  void authenticationFailed();  // at most one notification per second

 private:
  using Clock = std::chrono::steady_clock;

  void add(Notification notification);
  void limit();
  void run();
  void attendInform();
  void send();
  void returned(bool isAcknowledged);
  void listen();

  Kernel& kernel_;
  Network& network_;
  NotificationSink sink_;
  std::vector<u32> base_;
  Say say_;
  std::vector<Task*> tasks_;  // waiting for work
  std::deque<Notification> waiting_;
  std::optional<Notification> sent_;  // an INFORM that is not acknowledged yet
  bool readable_ = false;
  Clock::time_point notBefore_;  // after a failure
  bool isSilent_ = false;
  std::uint64_t dropped_ = 0;
  Nanos lastFailure_ = kLongAgo;  // of an authentication
};

}  // namespace headend
