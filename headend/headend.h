// A headend: the kernel, hardware and firmware of a chassis for one power-up, put together from the options
// of a run. Only one per process, because the cards' module keeps the state of its chassis in global
// variables.
#pragma once

#include <boost/core/noncopyable.hpp>

#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <optional>

#include "headend/fault_injector.h"
#include "headend/firmware/alarm_list.h"
#include "headend/firmware/back_end.h"
#include "headend/firmware/debug_shell.h"
#include "headend/firmware/panel/panel.h"
#include "headend/firmware/pid_counters.h"
#include "headend/firmware/pid_search.h"
#include "headend/firmware/rate_meter.h"
#include "headend/firmware/snmp/agent.h"
#include "headend/firmware/socket_table.h"
#include "headend/firmware/source_cards.h"
#include "headend/firmware/status_checks.h"
#include "headend/flash_folder.h"
#include "headend/hardware/fpga_configuration.h"
#include "headend/kernel/heap.h"
#include "headend/observation.h"
#include "headend/operator.h"
#include "headend/options.h"
#include "headend/vcd_trace.h"
#include "protocol/words.h"

namespace headend {

// The one running headend; the services of platform/ use it. Set while a Headend exists.
class Headend;
void setRunning(Headend* headend);

class Headend final : boost::noncopyable {
 public:
  // Reads the captures, opens outputs and sockets, and starts the chassis' tasks; time passes only in `run`.
  // Throws std::runtime_error with the item that cannot be used.
  explicit Headend(Options chosen);
  ~Headend() { setRunning(nullptr); }

  CardFpga& card(int slot) { return *cards[static_cast<std::size_t>(slot)]; }
  Multiplexer& output(int slot, int port) { return card(slot).output(static_cast<std::size_t>(port)); }
  protocol::CardState state(int slot) const;
  bool runs(int slot) const { return state(slot) == protocol::CardState::kRunning; }
  std::string managementAddress() { return backEnd.socket().hostAddress(); }
  std::string calibrationAddress() const { return sockets.hostAddress(client::kDefaultCalibrationPort); }

  Options options;
  Log log;
  const Say say = [this](const std::string& text) { log.line(kernel.now(), "headend", text); };
  Violations violations;
  Heap heap;
  FlashLock flashLock;
  Flash flash;
  Observation observation;
  Kernel kernel;
  Network network;
  Bus bus;
  std::array<std::unique_ptr<CardFpga>, MAX_BOARD_NUM> cards;  // null in a slot without a card
  PidRouter router;
  MainBoard mainBoard;
  RateMeter rates;
  CarouselMonitor monitor;
  Chassis chassis;
  AlarmList alarms;
  StatusChecks statusChecks;
  Panel panel;
  std::optional<SnmpAgent> snmp;  // nullopt if it is off
  BackEnd backEnd;
  FaultInjector faults;
  SourceCards sources;
  PidCounters pidCounters;
  PidSearch search;
  DebugShell shell;
  Operator automaticOperator;
  SocketTable sockets;
  EepromFiles eepromFiles;
  std::map<protocol::Channel, std::unique_ptr<PacketSink>> sinks;
  std::optional<OutputFile> busLog;
  std::optional<VcdTrace> trace;
  std::function<void()> onTick = [] {};  // called once per system tick, on the running task's stack

 private:
  void installCards();
  void installCard(int slot);
  void openOutputs();
  void openInputs();
  void connectRouter();
  void provideServices();
  void startCards();
};

// Runs until the end of the duration, or until `interrupted` becomes true. Prints what has failed. Returns an
// ExitCode.
int run(Headend& headend, const std::atomic<bool>& interrupted);

}  // namespace headend
