// The one I2C master of the card's software-driven buses (UM10204, standard mode): start, stop, bytes and
// acknowledges as changes of two lines, and the two transfers that every device on them knows. A bus differs
// from the others only in what `I2cBus` says. Takes no lock; a slave that holds the clock low holds the
// caller for good.
#pragma once

#include "platform/bus.h"
#include "platform/chassis.h"
#include "platform/kernel.h"

// Waits are counted in 5 us.
struct I2cBus {
  int waitsAfterDataHigh = 1;
  int waitsAfterDataLow = 1;
  // A byte is sent at a pace of its own, with the watchdog kicked, and no look at the clock line.
  bool pacedSend = false;
  // What reads as a high clock: exactly 1, or all but 0.
  bool anyLevelIsHigh = false;
};

template <I2cBus kBus>
class I2cMaster {
 public:
  // Lines that are null are not there: writes go nowhere, and they read as an idle bus does.
  I2cMaster(Reg16* clock, Reg16* data) : clock_(clock), data_(data) {}

  void setClock(bool level) {
    wait(1);
    drive(clock_, level);
    wait(1);
  }
  void setData(bool level) {
    wait(1);
    drive(data_, level);
    wait(level ? kBus.waitsAfterDataHigh : kBus.waitsAfterDataLow);
  }
  u8 clock() const { return sense(clock_); }
  u8 data() const { return sense(data_); }

  void start() {
    setData(true);
    raiseClock();
    setData(false);
    setClock(false);
  }

  void stop() {
    setData(false);
    setClock(false);
    raiseClock();
    setData(true);
  }

  // Most significant bit first; the data line is released for the acknowledge.
  void send(u8 byte) {
    for (int bit = 7; bit >= 0; --bit) {
      setData((byte >> bit & 1) != 0);
      if constexpr (kBus.pacedSend) {
        chassis::delay5us();
        chassis::Dog();
        setClock(true);
        chassis::delay5us();
        setClock(false);
        chassis::delay5us();
        chassis::Dog();
      } else {
        clockPulse();
      }
    }
    setData(true);
  }

  u8 receive() {
    setData(true);
    u8 byte = 0;
    for (int bit = 0; bit < 8; ++bit) {
      raiseClock();
      byte = static_cast<u8>(byte << 1 | data());
      setClock(false);
    }
    return byte;
  }

  // The clock of the slave's acknowledge, after up to 200 looks for it where the caller waits. One that does
  // not come is clocked through: what a device did not take shows in what it does.
  void takeAcknowledge(bool waits) {
    if (waits) {
      for (int looks = 0; looks < 200 && data() != 0; ++looks) {
      }
    } else {
      os::countingLoop(20);
    }
    clockPulse();
  }

  void giveAcknowledge(bool acknowledge) {
    setData(!acknowledge);
    clockPulse();
    setData(true);
  }

  void startWith(u8 device, u8 address) {
    start();
    send(device);
    takeAcknowledge(true);
    send(address);
  }

  // `device` is the address byte for writing. The last byte's acknowledge is not waited for.
  void write(u8 device, u8 address, const u8* bytes, int size) {
    startWith(device, address);
    takeAcknowledge(true);
    for (int i = 0; i < size; ++i) {
      send(bytes[i]);
      takeAcknowledge(i + 1 < size);
    }
    stop();
  }

  void read(u8 device, u8 address, u8* bytes, int size) {
    startWith(device, address);
    takeAcknowledge(true);
    start();
    send(device | 1);
    takeAcknowledge(true);
    for (int i = 0; i < size; ++i) {
      bytes[i] = receive();
      giveAcknowledge(i + 1 < size);
    }
    stop();
  }

 private:
  static void wait(int waits) {
    for (int i = 0; i < waits; ++i) chassis::Delay5us();
  }
  static void drive(Reg16* line, bool level) {
    if (line != nullptr) *line = level ? 1 : 0;
  }
  static u8 sense(const Reg16* line) { return line != nullptr ? static_cast<u8>(*line) : 1; }

  void raiseClock() {
    setClock(true);
    while (kBus.anyLevelIsHigh ? clock() == 0 : clock() != 1) {
    }
  }
  void clockPulse() {
    raiseClock();
    setClock(false);
  }

  Reg16* clock_;
  Reg16* data_;
};
