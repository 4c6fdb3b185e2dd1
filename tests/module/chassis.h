// A chassis for tests of the module alone: it answers as a test tells it, and keeps what the module did, in
// order. One chassis is one power-up; the module cannot be powered down, so ctest runs every test in a
// process of its own.
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
#include <ostream>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "card/QamCardPara.h"
#include "platform/agent.h"
#include "platform/backend.h"
#include "platform/chassis.h"
#include "platform/kernel.h"
#include "platform/mainboard.h"

namespace test {

using Bytes = std::vector<u8>;
using Lines = std::vector<std::string>;

template <class T>
std::vector<T> operator+(std::vector<T> a, const std::vector<T>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Appends a big-endian number.
inline void put(Bytes& bytes, u32 value, int width) {
  while (width-- > 0) bytes.push_back(static_cast<u8>(value >> 8 * width));
}

inline constexpr u32 kWindows = 0x60000000;    // the cards' windows on the bus
inline constexpr u32 kMainBoard = 0x50000000;  // where the main board's FPGA answers here

// A register access: 'r' or 'w', address on the bus, value.
struct Access {
  char direction;
  u32 address;
  u16 value;
  bool operator==(const Access&) const = default;
};
void PrintTo(const Access& access, std::ostream* out);

// What stands behind a queue's handle: what was sent, and how much more fits.
struct Queue {
  std::vector<u32> messages;
  int room = 256;

  os::MSG_Q_ID handle() { return reinterpret_cast<os::MSG_Q_ID>(this); }
  static Queue& of(os::MSG_Q_ID handle) { return *reinterpret_cast<Queue*>(handle); }
};

struct Task {
  os::FUNCPTR entry;
  int slotNo, port;
};

class FakeChassis {
 public:
  FakeChassis();
  ~FakeChassis();
  FakeChassis(const FakeChassis&) = delete;
  FakeChassis& operator=(const FakeChassis&) = delete;

  // What it answers.
  std::map<std::string, Bytes> files;  // the flash
  std::size_t unreadableTail = 0;      // bytes at the end of each file that reading does not give
  int tickHz = 100;
  int heapBlocks = std::numeric_limits<int>::max();  // allocations until the heap is exhausted
  u8 heapFill = 0xA7;
  bool queuesToBeHad = true;
  bool stopsAtChecks = false;                             // a failed check ends `runs`
  std::function<std::optional<u16>(u32 address)> onRead;  // a register's value; none: as written
  std::function<void(u32 address, u16 value)> onWrite;
  bool socketsToBeHad = true;
  bool portsToBeHad = true;
  std::deque<std::optional<Bytes>>
      datagrams;  // that come, from 192.0.2.1:7; none: an error. Then nobody sends
  std::function<void(std::string_view)> onCall;  // "save", "malloc" or "delay", before it is carried out
  std::function<u8()> onKeyScan;                 // the key pressed; empty: nobody ever presses one

  // What the module did. `log` has a line a call, in order; allocations, queue traffic and registers are
  // apart.
  Lines log;
  std::vector<Access> accesses;
  // Every access to a card's window, wait and lock, in short: "nrst=3", "ad7414_scl?", "5us", "5us'"
  // (delay5us), "dog", "1000 turns", "10 ticks", "lock".
  Lines steps;
  std::int64_t now = 0;  // nanoseconds: what accesses, waits and loops have taken
  Lines checks;          // that failed: "unit: text"
  int checkedLine = 0;   // of the last one
  std::vector<Task> tasks;
  std::vector<std::unique_ptr<Queue>> queues;
  const chassis::bc_var* variables = nullptr;  // the table registered last
  std::vector<u32> mibBase;                    // of the rows registered last
  std::vector<chassis::variable4> mibRows;
  std::map<std::pair<int, int>, std::vector<std::array<u16, 3>>> routes;  // by slot and port; sent in order
  std::set<std::tuple<int, int, int>> alarms;                             // that stand: slot, port, type
  std::set<void*> blocks;                                                 // allocated and not freed
  std::set<std::FILE*> openFiles;

  // The steps in short: locks, and of each run of writes to one device (clock generator, oscillators,
  // attenuator, modulator's rate and reset) its name, of any other register each write.
  Lines landmarks() const;

  // Registers and starts a card whose FPGA needs no bitstream; the record. Leaves `log` empty.
  QamCardPara* start(u8 slotNo);

  // What the module does in `routine`, and nothing from before.
  Lines stepsOf(const std::function<void()>& routine) { return forget(), routine(), steps; }
  Lines logOf(const std::function<void()>& routine) { return forget(), routine(), log; }
  void forget() { log = steps = checks = {}, accesses = {}; }

  // Runs `body`; false when it ended in a failed check, or waiting for a message that nobody will send.
  bool runs(const std::function<void()>& body);
  [[noreturn]] void leave();

  u32 addressOf(const volatile void* reg) const;
  u16 read(const volatile void* reg);
  void write(volatile void* reg, u16 value);
  void* busAddress(u32 address);
  void note(std::string line) { log.push_back(std::move(line)); }

 private:
  std::jmp_buf wayOut_{};
  u16& held(u32 address);

  alignas(Reg16) u16 windows_[0x1100] = {};
  alignas(Reg16) u16 mainBoard_[sizeof(bbFpga_t) / 2] = {};
};

class ModuleTest : public ::testing::Test {
 protected:
  FakeChassis fake;
};

// Rows of a table are known by their member `name`.
inline constexpr auto kRowName = [](const auto& row) { return std::string(row.param.name); };

template <class Row>
requires requires(const Row& row) {
  row.name;
}
void PrintTo(const Row& row, std::ostream* out) {
  *out << row.name;
}

}  // namespace test
