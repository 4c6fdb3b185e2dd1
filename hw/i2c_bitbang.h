// The only I2C master of the card's software-driven buses (UM10204, standard mode): start, stop, bytes and
// acknowledges as changes of two lines, and the two transfers that every device on them supports. Buses
// differ only in the fields of `I2cBus`. Takes no lock; a slave that holds the clock low blocks the caller
// permanently.
#pragma once

#include "platform/bus.h"
#include "platform/chassis.h"
#include "platform/kernel.h"

struct I2cBus {
  // A falling data line gets a second wait.
  bool slowFall = false;
  // A byte is sent at its own pace, with watchdog kicks, and without checking the clock line.
  bool pacedSend = false;
  // What counts as a high clock: exactly 1, or all but 0.
  bool anyLevelIsHigh = false;
  // Lines may be null, which means no bus: writes have no effect, and it reads as an idle bus.
  bool optionalLines = false;
};

template <I2cBus kBus>
class I2cMaster {
 public:
  I2cMaster(Reg16* clock, Reg16* data) : clock_(clock), data_(data) {}

  void setClock(bool level) { level ? clockHigh() : clockLow(); }
  [[gnu::always_inline]] void setData(bool level) { level ? dataHigh() : dataLow(); }
  u8 clock() const { return sense(clock_); }
  u8 data() const { return sense(data_); }

  void start() {
    dataHigh();
    raiseClock();
    dataLow();
    clockLow();
  }

  void stop() {
    dataLow();
    clockLow();
    raiseClock();
    dataHigh();
  }

  // Most significant bit first; the data line is released for the acknowledge.
  void send(u8 byte) {
    for (int bit = 7; bit >= 0; --bit) {
      setData((byte >> bit & 1) != 0);
      if constexpr (kBus.pacedSend) {
        chassis::delay5us();
        chassis::Dog();
        clockHigh();
        chassis::delay5us();
        clockLow();
        chassis::delay5us();
        chassis::Dog();
      } else {
        clockPulse();
      }
    }
    dataHigh();
  }

  u8 receive() {
    dataHigh();
    u8 byte = 0;
    for (int bit = 0; bit < 8; ++bit) {
      raiseClock();
      byte = static_cast<u8>(byte << 1 | data());
      clockLow();
    }
    return byte;
  }

  // The clock of the slave's acknowledge, after checking for it up to 200 times if the caller waits. A
  // missing acknowledge is ignored and clocked: an error is visible only in the device's behaviour.
  void takeAcknowledge(bool waits) {
    if (waits) {
      const Reg16* line = data_;
      for (int looks = 200; looks > 0 && sense(line) != 0; --looks) {
      }
    } else {
      os::countingLoop(20);
    }
    clockPulse();
  }

  void giveAcknowledge(bool acknowledge) {
    setData(!acknowledge);
    clockPulse();
    dataHigh();
  }

  // Whether a device acknowledges its address byte: a busy device does not.
  bool answers(u8 device) {
    start();
    send(device);
    raiseClock();
    const bool acknowledged = data() == 0;
    clockLow();
    stop();
    return acknowledged;
  }

  void startWith(u8 device, u8 address) {
    start();
    send(device);
    takeAcknowledge(true);
    send(address);
  }

  // `device` is the address byte for writing. The acknowledge of the last byte is not waited for.
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
  // A line change is two calls and a store: a compiler that optimises for size would make them nested calls.
  [[gnu::always_inline]] static void change(Reg16* line, u16 level) {
    chassis::Delay5us();
    if (!kBus.optionalLines || line != nullptr) *line = level;
    chassis::Delay5us();
  }
  [[gnu::always_inline]] void clockHigh() { change(clock_, 1); }
  [[gnu::always_inline]] void clockLow() { change(clock_, 0); }
  [[gnu::always_inline]] void dataHigh() { change(data_, 1); }
  [[gnu::always_inline]] void dataLow() {
    change(data_, 0);
    if (kBus.slowFall) chassis::Delay5us();
  }
  // Used in the loops that wait for a line; a compiler that optimises for size would make it a call there.
  [[gnu::always_inline]] static u8 sense(const Reg16* line) {
    return !kBus.optionalLines || line != nullptr ? static_cast<u8>(*line) : 1;
  }

  void raiseClock() {
    clockHigh();
    while (kBus.anyLevelIsHigh ? clock() == 0 : clock() != 1) {
    }
  }
  void clockPulse() {
    raiseClock();
    clockLow();
  }

  Reg16* clock_;
  Reg16* data_;
};
