// A headend: the kernel, hardware and firmware of a chassis for one power-up, put together from the options
// of a run. Only one per process, because the cards' module keeps the state of its chassis in global
// variables.
#pragma once

#include <array>
#include <cstdio>
#include <map>
#include <memory>

#include "headend/eeprom_files.h"
#include "headend/firmware/alarm_list.h"
#include "headend/firmware/back_end.h"
#include "headend/firmware/debug_shell.h"
#include "headend/firmware/panel/panel.h"
#include "headend/firmware/pid_search.h"
#include "headend/firmware/rate_meter.h"
#include "headend/firmware/snmp/agent.h"
#include "headend/firmware/socket_table.h"
#include "headend/firmware/source_cards.h"
#include "headend/hardware/fpga_configuration.h"
#include "headend/kernel/heap.h"
#include "headend/observation.h"
#include "headend/operator.h"
#include "headend/options.h"
#include "headend/vcd_trace.h"
#include "protocol/card_state.h"

namespace headend {

class Headend final {
 public:
  // Reads the captures, opens outputs and sockets, and starts the chassis' tasks; time passes only in `run`
  // (headend/run.h). Throws std::runtime_error with the item that cannot be used.
  explicit Headend(Options chosen);
  Headend(const Headend&) = delete;
  Headend& operator=(const Headend&) = delete;
  ~Headend();

  void say(const std::string& text) { log.line(kernel.now(), "headend", text); }  // a line of the log
  CardFpga& card(int slot) { return *cards[static_cast<std::size_t>(slot)]; }
  Multiplexer& output(int slot, int port) { return card(slot).output(static_cast<std::size_t>(port)); }
  protocol::CardState state(int slot) const;
  bool runs(int slot) const { return state(slot) == protocol::CardState::kRunning; }
  std::string managementAddress() { return backEnd.socket().hostAddress(); }
  std::string calibrationAddress() const;

  Options options;
  Log log;
  Violations violations;
  Heap heap;
  Flash flash;
  Observation observation;
  Kernel kernel;
  Network network;
  Bus bus;
  std::array<std::unique_ptr<CardFpga>, MAX_BOARD_NUM> cards;  // null in a slot without a card
  PidRouter router;
  MainBoard mainBoard;
  SourceCards sources;
  RateMeter rates;
  CarouselMonitor monitor;
  Chassis chassis;
  AlarmList alarms;
  Panel panel;
  std::unique_ptr<SnmpAgent> snmp;  // null if it is off
  BackEnd backEnd;
  PidSearch search;
  DebugShell shell;
  Operator automaticOperator;
  SocketTable sockets;
  EepromFiles eepromFiles;
  std::map<protocol::Channel, std::unique_ptr<PacketSink>> sinks;
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> busLog;  // null if there is none
  std::unique_ptr<VcdTrace> trace;                         // null if there is none
  std::function<void()> onTick = [] {};  // called once per system tick, on the running task's stack

 private:
  void installCards();
  void openSnmp();
  void openOutputs();
  void openInputs();
  void connectRouter();
  void provideServices();
  void startCards();
};

// The one running headend; the services of platform/ use it. Set while a Headend exists.
void setRunning(Headend* headend);

}  // namespace headend
