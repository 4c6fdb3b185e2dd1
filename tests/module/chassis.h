// A chassis for tests of the module alone: it answers as a test sets it, and keeps what the module did, in
// order. One chassis is one power-up; the module cannot be powered down, so every test runs in a process of
// its own.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <csetjmp>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "card/QamCardPara.h"
#include "headend/firmware/panel/lcd.h"
#include "headend/hardware/card_board.h"
#include "platform/agent.h"
#include "platform/backend.h"
#include "platform/chassis.h"
#include "platform/kernel.h"
#include "platform/mainboard.h"
#include "tests/headend/scratch.h"

namespace test {

using Lines = std::vector<std::string>;

inline constexpr u32 kWindows = 0x60000000;           // the cards' windows on the bus
inline constexpr u32 kMainBoard = kWindows + 0x2200;  // address of the main board's FPGA here
inline constexpr u32 kBusSize = kMainBoard - kWindows + sizeof(bbFpga_t);

// The object behind a queue's handle: what was sent, and how much more fits.
struct Queue {
  std::vector<u32> messages;
  int room = 256;

  os::MSG_Q_ID handle() { return reinterpret_cast<os::MSG_Q_ID>(this); }
  static Queue& of(os::MSG_Q_ID handle) { return *reinterpret_cast<Queue*>(handle); }
};

struct FakeChassis {
  FakeChassis();
  ~FakeChassis();
  FakeChassis(const FakeChassis&) = delete;
  FakeChassis& operator=(const FakeChassis&) = delete;

  // Inputs for the module.
  Scratch flash;
  int tickHz = 1000;     // no wait of whole milliseconds is rounded
  int firstOutput = 15;  // the main board's number for the first output of slot 0; it counts down
  int heapBlocks = std::numeric_limits<int>::max();  // allocations until the heap is exhausted
  bool queuesToBeHad = true, socketsToBeHad = true, portsToBeHad = true;
  bool stopsAtChecks = false;                             // a failed check ends `runs`
  std::function<std::optional<u16>(u32 address)> onRead;  // a register's value; none: as written
  std::deque<std::optional<Bytes>> datagrams;  // received from port 7; none: an error. Then no more arrive
  // "save", "malloc" or "delay", before it is done.
  std::function<void(std::string_view)> onCall = [](std::string_view) {};
  std::function<u8()> onKeyScan;  // the key pressed

  // The headend's models on the lines of the windows, once they are connected. They decode and drive the
  // lines, and count violations of data sheet rules, which fail the test.
  bool hasDevices = false;
  headend::Violations violations;
  headend::CardBoard board{violations, 1};

  // Calls of the module. `log` has a line per call, in order, except allocations and queue traffic.
  Lines log;
  // Every access to a register, wait and lock, in short: "nrst=3", "ad7414_scl?", "5us", "5us'" (delay5us),
  // "dog", "1000 turns", "10 ticks", "lock".
  Lines steps;
  std::int64_t now = 0;  // nanoseconds: duration of all accesses, waits and loops
  Lines checks;          // failed checks: "unit: text"
  int checkedLine = 0;   // of the last one
  // With QAM_TRACES=FOLDER in the environment: all calls, steps and messages, and the files at the end, in a
  // file with the test's name. The controller's code must leave the same one as this machine's.
  std::ofstream trace;
  headend::Lcd lcd;
  std::vector<std::function<void()>> tasks;
  std::vector<std::unique_ptr<Queue>> queues;
  const chassis::bc_var* variables = nullptr;                             // the table registered last
  std::vector<chassis::variable4> mibRows;                                // registered last
  std::map<std::pair<int, int>, std::vector<std::array<u16, 3>>> routes;  // by slot and port; sent in order
  std::set<std::tuple<int, int, int>> alarms;                             // active alarms: slot, port, type
  std::set<void*> blocks;                                                 // allocated and not freed

  // The steps in short: locks, for each run of writes to one device (clock generator, oscillators,
  // attenuator, modulator's rate and reset) its name, for any other register each write.
  Lines landmarks() const;

  // Registers and starts a card whose FPGA needs no bitstream; returns the record. Clears the recorded steps.
  QamCardPara* start(u8 slotNo);

  // The steps of the module in `routine`, without earlier ones.
  Lines stepsOf(const std::function<void()>& routine) { return forget(), routine(), steps; }
  void forget() { log = steps = checks = {}; }

  // Runs `body`; false if it ended in a failed check, or waits for a message that never arrives.
  bool runs(const std::function<void()>& body);
  // The module's frames hold nothing that would need destruction.
  [[noreturn]] void leave() { std::longjmp(wayOut_, 1); }

  // A read or write of the module, of 16 bits.
  u16 read(u32 address);
  void write(u32 address, u16 value);

  u16* pointerTo(u32 address) const { return window_ + (address - kWindows) / 2; }
  u32 addressOf(const volatile void* reg) const {
    return kWindows + static_cast<u32>(static_cast<const volatile u16*>(reg) - window_) * 2;
  }
  u16& cell(u32 address) { return bus_[(address - kWindows) / 2]; }

 private:
  std::jmp_buf wayOut_{};
  u16 bus_[kBusSize / 2] = {};
  u16* window_;  // where the module has the bus
};

class ModuleTest : public ::testing::Test {
 protected:
  FakeChassis fake;
};

class DeviceTest : public ModuleTest {
 protected:
  DeviceTest() { fake.hasDevices = true; }
  headend::CardBoard& board = fake.board;
};

}  // namespace test
