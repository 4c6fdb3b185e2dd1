// The chassis's SNMP agent: Net-SNMP in a task of the kernel, with the rows that cards have registered and
// the system group. Only the users and communities that the operator configured have access. It sends the
// events of the alarm list as notifications, and uses no file of this machine except the flash. See
// docs/snmp.md. Only one per process, because the library's state is global.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "headend/firmware/alarm_file.h"
#include "headend/firmware/snmp/card_rows.h"
#include "headend/firmware/snmp/engine_identity.h"
#include "headend/firmware/snmp/library.h"
#include "headend/firmware/snmp/notifier.h"
#include "headend/firmware/snmp/secrets.h"
#include "headend/kernel/network.h"

namespace headend {

class SnmpAgent {
 public:
  struct Settings {
    std::optional<SnmpLibrary::Address> listen;
    std::optional<SnmpLibrary::Address> trapSink;
    std::vector<u32> base;  // ten components; the slot number follows them
    bool communityWrites = false;
  };

  // Lower priority than the back end (220): operators are served before polling stations.
  static constexpr int kPriority = 222;

  // Opens the agent's sockets. Throws std::runtime_error.
  SnmpAgent(Kernel& kernel, Network& network, Flash& flash, const Settings& settings,
            const SnmpSecrets& secrets, std::function<bool(int slot)> runs,
            std::function<void(const std::string&)> say);
  void start();  // spawns the task

  // Rows of a card, and an event of the alarm list; callable from any task.
  void registerRows(const u32* base, int baseLength, const chassis::variable4* rows, int count, int rowSize);
  void notify(const AlarmRecord& event);

  std::string address() const;  // empty if it only sends
  const EngineIdentity& engine() const { return engine_; }

 private:
  void serve();
  void readRequest();

  Kernel& kernel_;
  Network& network_;
  std::function<void(const std::string&)> say_;
  EngineIdentity engine_;
  CardRows rows_;
  std::optional<SnmpLibrary> library_;
  std::vector<Task*> waiters_;
  bool readable_ = false;
  std::optional<SnmpNotifier> notifier_;
};

}  // namespace headend
