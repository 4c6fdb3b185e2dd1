// Sends the events of the alarm list as SNMPv2 notifications, in its own task: a card that delays the agent
// does not delay notifications. A missing sink does no harm: notifications are not acknowledged.
#pragma once

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "headend/firmware/alarm_file.h"
#include "headend/firmware/snmp/library.h"
#include "headend/kernel/kernel.h"

namespace headend {

class SnmpNotifier {
 public:
  static constexpr int kPriority = 223;
  static constexpr std::size_t kWaitingMost = 1000;  // if there are more, the oldest are not sent

  // `library` has a sink. Names of objects are below `base` (protocol/mib_rows.h).
  SnmpNotifier(Kernel& kernel, SnmpLibrary& library, std::vector<u32> base,
               std::function<void(const std::string&)> say);

  void start();                           // spawns the task
  void notify(const AlarmRecord& event);  // any task

 private:
  void serve();
  void send(const AlarmRecord& event);

  Kernel& kernel_;
  SnmpLibrary& library_;
  std::vector<u32> base_;
  std::function<void(const std::string&)> say_;
  std::vector<Task*> waiters_;
  std::deque<AlarmRecord> waiting_;
  bool failed_ = false;  // the last one could not be sent
};

}  // namespace headend
