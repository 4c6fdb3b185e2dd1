// The main board's bus: the cards' windows from 0x60000000 on and the main board's own FPGA. Maps a register
// address to its device, and writes the log of accesses.
#pragma once

#include <boost/core/noncopyable.hpp>

#include <array>
#include <cstdio>
#include <string>

#include "headend/hardware/card_fpga.h"

namespace headend {

// The registers of the main board's FPGA for the state of the outputs. The chassis reads them over the bus.
class MainBoard final : public BusDevice {
 public:
  // Byte offset in the main board's block. Two bits per slot, the first output in the lower bit. A bit is set
  // when a packet finds the output's buffer full, and cleared after kOverflowHold without another.
  static constexpr u32 kRateOverflow = 376;
  static constexpr Nanos kOverflowHold = 2 * kSecond;

  // The output's bit in the register.
  static constexpr std::size_t outputNumber(int slot, int port) {
    return static_cast<std::size_t>(slot) * MAX_QAM_OUT_NUM + static_cast<std::size_t>(port);
  }

  void watch(int slot, int port, Multiplexer& output) { outputs_.at(outputNumber(slot, port)) = &output; }

  // Whether the output's bit is set; false if no output is monitored there.
  bool overflows(int slot, int port, Nanos now);

  u16 read(u32 offset, Nanos now) override;
  void write(u32 /*offset*/, u16 /*value*/, Nanos /*now*/) override {}  // only the board writes it
  std::string_view registerName(u32 /*offset*/) const override { return "rate_overflow"; }

 private:
  std::array<Multiplexer*, std::size_t{MAX_BOARD_NUM} * MAX_QAM_OUT_NUM> outputs_{};
};

class Bus : boost::noncopyable {
 public:
  explicit Bus(Violations& violations);
  ~Bus();

  void attach(int slot, CardFpga& card) { cards_[static_cast<std::size_t>(slot)] = &card; }
  void attach(MainBoard& board) { board_ = &board; }
  void logTo(std::FILE* log) { log_ = log; }

  // Addresses in this process that represent bus addresses. Only the bus can resolve them; there is no memory
  // behind them.
  void* hostAddress(u32 busAddress) const;
  void* mainBoard() const { return base_ + kMainBoard; }

  u16 read(const volatile void* reg, Nanos now) {
    const Place place = find(reg);
    count(place);
    const u16 value = place.device == nullptr ? kOpenBus : place.device->read(place.offset, now);
    if (log_ != nullptr) logAccess(place, 'r', value, now);
    return value;
  }
  void write(volatile void* reg, u16 value, Nanos now) {
    const Place place = find(reg);
    count(place);
    if (log_ != nullptr) logAccess(place, 'w', value, now);
    if (place.device != nullptr) place.device->write(place.offset, value, now);
  }
  // The value of a register, without an access.
  u16 peek(const volatile void* reg, Nanos now) {
    const Place place = find(reg);
    return place.device == nullptr ? kOpenBus : place.device->read(place.offset, now);
  }

  std::string registerName(const volatile void* reg) const;              // "slot 1 PsiRdy0"
  int slotOf(const volatile void* reg) const { return find(reg).slot; }  // -1: no slot, or no device
  std::uint64_t accesses(int slot) const { return accesses_[static_cast<std::size_t>(slot)]; }

 private:
  struct Place {
    BusDevice* device;
    u32 offset;
    int slot;
  };

  static constexpr u16 kOpenBus = 0xFFFF;  // the data lines are pulled up
  static constexpr u32 kFirstWindow = 0x60000000;
  static constexpr std::size_t kWindowGrid = 0x200;
  static constexpr std::size_t kWindows = 0x2200;  // from the first window to the end of the last
  static constexpr std::size_t kMainBoard = 0x4000;
  static constexpr std::size_t kConfigPorts = kMainBoard + 0x300;
  static constexpr std::size_t kMapped = 0x8000;

  Place find(const volatile void* reg) const {
    const auto at = static_cast<std::size_t>(static_cast<const volatile char*>(reg) - base_);
    if (at < kWindows) {
      const int slot = slotOfWindow_[at / kWindowGrid];
      const u32 offset = static_cast<u32>(at % kWindowGrid);
      if (slot >= 0 && cards_[static_cast<std::size_t>(slot)] != nullptr && offset < CardFpga::kWindowSize) {
        return {cards_[static_cast<std::size_t>(slot)], offset, slot};
      }
    } else if (at >= kConfigPorts && at < kConfigPorts + MAX_BOARD_NUM * FpgaConfiguration::kSize) {
      const std::size_t slot = (at - kConfigPorts) / FpgaConfiguration::kSize;
      if (cards_[slot] != nullptr) {
        return {&cards_[slot]->configuration(),
                static_cast<u32>((at - kConfigPorts) % FpgaConfiguration::kSize), static_cast<int>(slot)};
      }
    } else if (at == kMainBoard + MainBoard::kRateOverflow && board_ != nullptr) {
      return {board_, MainBoard::kRateOverflow, -1};
    }
    return {nullptr, 0, -1};
  }

  void count(const Place& place) {
    if (place.device == nullptr) [[unlikely]] {
      violations_.count("bus_access_without_device");
    } else if (place.slot >= 0) {
      ++accesses_[static_cast<std::size_t>(place.slot)];
    }
  }

  void logAccess(const Place& place, char direction, u16 value, Nanos now);

  Violations& violations_;
  char* base_;
  std::FILE* log_ = nullptr;
  std::array<int, kWindows / kWindowGrid> slotOfWindow_{};
  std::array<CardFpga*, MAX_BOARD_NUM> cards_{};
  MainBoard* board_ = nullptr;
  std::array<std::uint64_t, MAX_BOARD_NUM> accesses_{};
};

}  // namespace headend
