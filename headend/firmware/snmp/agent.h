// The chassis's SNMP agent: Net-SNMP in a task of the kernel, with the rows that cards have registered, the
// tables of the chassis and the system group. Only the users and communities that the operator configured
// have access. It sends the events of the alarm list as notifications, and uses no file of this machine
// except the flash. See docs/snmp.md. Only one per process, because the library's state is global.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "headend/firmware/snmp/card_rows.h"
#include "headend/firmware/snmp/chassis_tables.h"
#include "headend/firmware/snmp/library.h"
#include "headend/firmware/snmp/notifier.h"
#include "headend/firmware/snmp/secrets.h"
#include "headend/kernel/network.h"

namespace headend {

class SnmpAgent {
 public:
  // Lower priority than the back end (220): operators are served before polling stations.
  static constexpr int kPriority = 222;

  // Reads the secrets and opens the agent's sockets. Throws std::runtime_error.
  SnmpAgent(Kernel& kernel, Network& network, Flash& flash, SnmpSettings settings, CardRows::CardOf cardOf,
            const ChassisTables::Sources& chassis, Say say);
  void start();  // spawns the tasks

  // Rows of a card, and an event of the alarm list; callable from any task.
  void registerRows(const u32* base, int baseLength, const chassis::variable4* rows, int count, int rowSize);
  void notify(const AlarmRecord& event);

  // Empty if it only sends.
  std::string address() const { return settings_.listen ? hostAddress(library_->fd()) : ""; }
  int fd() const { return library_->fd(); }  // receives requests
  const EngineIdentity& engine() const { return library_->engine(); }

 private:
  void serve();

  Kernel& kernel_;
  Network& network_;
  SnmpSettings settings_;
  Say say_;
  CardRows rows_;
  ChassisTables tables_;
  std::optional<SnmpLibrary> library_;
  std::optional<Notifier> notifier_;
  std::vector<Task*> servers_;
  bool readable_ = false;
};

}  // namespace headend
