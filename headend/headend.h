// The running headend: the chassis's kernel, hardware and firmware for one power-up. Only one per process,
// because the cards' module keeps the state of its chassis in global variables.
#pragma once

#include <array>
#include <atomic>
#include <cstdarg>
#include <memory>
#include <string>
#include <vector>

#include "headend/eeprom_files.h"
#include "headend/firmware/alarm_list.h"
#include "headend/firmware/back_end.h"
#include "headend/firmware/carousel_monitor.h"
#include "headend/firmware/chassis.h"
#include "headend/firmware/debug_shell.h"
#include "headend/firmware/log.h"
#include "headend/firmware/panel/panel.h"
#include "headend/firmware/pid_search.h"
#include "headend/firmware/rate_meter.h"
#include "headend/firmware/snmp/agent.h"
#include "headend/firmware/socket_table.h"
#include "headend/firmware/source_cards.h"
#include "headend/hardware/bus.h"
#include "headend/hardware/packet_sink.h"
#include "headend/hardware/pid_router.h"
#include "headend/kernel/flash.h"
#include "headend/kernel/heap.h"
#include "headend/kernel/network.h"
#include "headend/operator.h"
#include "headend/options.h"
#include "headend/vcd_trace.h"
#include "protocol/card_state.h"

namespace headend {

class Headend final : private KernelObserver {
 public:
  struct AssertionFailure {
    std::string unit;
    int line = 0;
    std::string text;
  };
  struct ParkedTask {
    std::string task;
    int slot = -1;
    std::string reg;
    Nanos since = 0;
    bool still = true;
  };
  struct LongWait {  // for a semaphore
    std::string task;
    std::string semaphore;
    std::string holder;
    Nanos since = 0;
  };
  using CardState = protocol::CardState;

  // Reads the captures and opens outputs and sockets. Throws std::runtime_error with the item that cannot be
  // used.
  explicit Headend(Options options);
  ~Headend() override;

  // Runs until the end of the duration, or until `interrupted` becomes true. Returns an ExitCode.
  int run(const std::atomic<bool>& interrupted);

  // For the report and the status view.
  const Options& options() const { return options_; }
  const Kernel& kernel() const { return kernel_; }
  const Chassis& chassis() const { return chassis_; }
  const BackEnd& backEnd() const { return backEnd_; }
  const CarouselMonitor& monitor() const { return monitor_; }
  const AlarmList& alarms() const { return alarms_; }
  const Violations& violations() const { return violations_; }
  const Heap& heap() const { return heap_; }
  const Log& log() const { return log_; }
  PidRouter& router() { return router_; }
  MainBoard& mainBoard() { return mainBoard_; }
  const SourceCards& sources() const { return sources_; }
  const RateMeter& rates() const { return rates_; }
  CardFpga& card(int slot) { return *cards_[static_cast<std::size_t>(slot)]; }
  const std::vector<AssertionFailure>& assertionFailures() const { return assertionFailures_; }
  const std::vector<ParkedTask>& parkedTasks() const { return parkedTasks_; }
  const std::vector<LongWait>& longWaits() const { return longWaits_; }
  CardState state(int slot) const;
  bool powerWasCut() const { return powerCut_; }
  std::string calibrationAddress() const;
  const SnmpAgent* snmp() const { return snmp_.get(); }  // null if it is off
  std::string managementAddress() { return backEnd_.socket().hostAddress(); }

  // For the services of platform/.
  Kernel& kernel() { return kernel_; }
  Network& network() { return network_; }
  Chassis& chassis() { return chassis_; }
  BackEnd& backEnd() { return backEnd_; }
  Panel& panel() { return panel_; }
  AlarmList& alarms() { return alarms_; }
  Heap& heap() { return heap_; }
  const Flash& flash() const { return flash_; }
  Bus& bus() { return bus_; }
  SocketTable& sockets() { return sockets_; }
  void registerMib(const u32* base, int baseLength, const chassis::variable4* rows, int count, int rowSize);
  void checkFailed(const char* text, const char* unit, int line);
  void heapExhausted(std::size_t size);
  void debugPrint(const char* format, std::va_list args);

  // Called once per system tick, on the running task's stack: for status views.
  void onTick(std::function<void()> hook) { onTick_ = std::move(hook); }

 private:
  void auxiliaryClock() override;
  void systemClock() override;
  void queueCreated(os::MsgQ* queue, const Task* by) override;
  void messageSent(os::MsgQ* queue, std::span<const char> message) override;
  void taskParked(const Task& task) override;
  void taskReleased(const Task& task) override;
  void semaphoreLong(const os::Semaphore& semaphore, const Task& task) override;
  std::uint16_t peek(const volatile void* reg) override { return bus_.peek(reg, kernel_.now()); }

  void openSnmp();
  void openMib(int slot);
  void openOutputs();
  void openInputs();
  void connectRouter();
  void provideServices();
  std::unique_ptr<TsInput> openInput(const Options::Input& input);
  Multiplexer* outputOf(int slot, int port);  // null if there is no card
  u32 routerMap(const protocol::Request& request, base::Bytes& reply);
  MenuEngine::Firmware menuFirmware();
  void installCards();
  void scheduleFaults();
  void scheduleLossOfPower();
  void keepEeproms();
  void lookAtParameterFiles();
  void noteConfiguration(int slot, bool complete, Nanos now);
  void noteRegister(int slot, u32 offset, u16 value, Nanos now);
  void finishOutputs();
  int exitCode();

  Options options_;
  Log log_;
  Violations violations_;
  Heap heap_;
  Flash flash_;
  Kernel kernel_;
  Network network_;
  Bus bus_;
  std::array<std::unique_ptr<CardFpga>, MAX_BOARD_NUM> cards_;
  std::array<std::unique_ptr<ConfigPort>, MAX_BOARD_NUM> ports_;
  PidRouter router_;
  MainBoard mainBoard_;
  SourceCards sources_{router_};
  RateMeter rates_;
  CarouselMonitor monitor_;
  Chassis chassis_;
  AlarmList alarms_;
  Panel panel_;
  std::unique_ptr<SnmpAgent> snmp_;
  BackEnd backEnd_;
  PidSearch search_;
  DebugShell shell_{kernel_};
  Operator operator_;
  SocketTable sockets_{network_};
  EepromFiles eepromFiles_;
  bool eepromsKept_ = true;
  bool powerCut_ = false;
  std::map<protocol::Channel, std::unique_ptr<PacketSink>> sinks_;
  std::FILE* busLog_ = nullptr;
  std::unique_ptr<VcdTrace> trace_;
  std::vector<AssertionFailure> assertionFailures_;
  std::vector<ParkedTask> parkedTasks_;
  std::vector<LongWait> longWaits_;
  const std::atomic<bool>* interrupted_ = nullptr;
  std::function<void()> onTick_;
};

// Creates a flash folder with the sample bitstream. Throws std::runtime_error; refuses a folder that has a
// bitstream.
void initFlash(const std::filesystem::path& folder);

// The one running headend; the services of platform/ use it. Set while a Headend exists.
void setRunning(Headend* headend);

}  // namespace headend
