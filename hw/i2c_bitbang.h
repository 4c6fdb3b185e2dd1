// The only I2C master of the card's software-driven buses (UM10204, standard mode): start, stop, bytes and
// acknowledges as changes of two lines, and the two transfers that every device on them supports. Buses
// differ only in the fields of `I2cBus`. Takes no lock; a slave that holds the clock low blocks the caller
// permanently.
#pragma once

#include "platform/bus.h"
#include "platform/chassis.h"

struct I2cBus {
  // A falling data line gets a second wait.
  bool slowFall = false;
  // A byte is sent at its own pace, with watchdog kicks, and without checking the clock line. Not for null
  // lines.
  bool pacedSend = false;
  // What counts as a high clock: exactly 1, or all but 0.
  bool anyLevelIsHigh = false;
};

class I2cMaster {
 public:
  // `bus` must outlive the master. Null lines mean no bus: changes have no effect, and it reads as idle.
  I2cMaster(const I2cBus& bus, Reg16* clock, Reg16* data) : bus_(bus), clock_(clock), data_(data) {}

  void setClock(bool level);
  void setData(bool level);
  u8 clock() const { return sense(clock_); }
  u8 data() const { return sense(data_); }

  void start();
  void stop();

  // Most significant bit first; the data line is released for the acknowledge.
  void send(u8 byte);
  u8 receive();

  // The clock of the slave's acknowledge, after checking for it up to 200 times if the caller waits. A
  // missing acknowledge is ignored and clocked: an error is visible only in the device's behaviour.
  void takeAcknowledge(bool waits);
  void giveAcknowledge(bool acknowledge);

  // Whether a device acknowledges its address byte: a busy device does not.
  bool answers(u8 device);

  void startWith(u8 device, u8 address);
  // `device` is the address byte for writing. The acknowledge of the last byte is not waited for.
  void write(u8 device, u8 address, const u8* bytes, int size);
  void read(u8 device, u8 address, u8* bytes, int size);

 private:
  // A line change is two calls and a store: a compiler that optimises for size would make them nested calls.
  [[gnu::always_inline]] static void change(Reg16& line, u16 level) {
    chassis::Delay5us();
    line = level;
    chassis::Delay5us();
  }
  [[gnu::always_inline]] static void change(Reg16* line, u16 level) {
    chassis::Delay5us();
    if (line != nullptr) *line = level;
    chassis::Delay5us();
  }
  [[gnu::always_inline]] void clockHigh() { change(clock_, 1); }
  [[gnu::always_inline]] void clockLow() { change(clock_, 0); }
  [[gnu::always_inline]] void dataHigh() { change(data_, 1); }
  [[gnu::always_inline]] void dataLow() {
    change(data_, 0);
    if (bus_.slowFall) chassis::Delay5us();
  }
  [[gnu::always_inline]] static u8 sense(const Reg16* line) {
    return line != nullptr ? static_cast<u8>(*line) : 1;
  }

  void raiseClock();
  void clockPulse();
  void sendPaced(u8 byte);

  const I2cBus& bus_;
  Reg16* clock_;
  Reg16* data_;
};
