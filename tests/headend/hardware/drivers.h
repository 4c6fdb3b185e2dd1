// Drivers of the card's devices, one for each kind of lines. They keep exactly the least times, unless a
// row changes one.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "headend/hardware/ad9775.h"
#include "headend/hardware/i2c.h"
#include "tests/headend/scratch.h"

namespace test {

using headend::Nanos;
using headend::Violations;

// What has been counted, separated by spaces.
inline std::string kinds(const Violations& violations) {
  std::string all;
  for (const auto& [kind, count] : violations.counts()) all += (all.empty() ? "" : " ") + kind;
  return all;
}

// In the tables of faults, where a row is one expression.
inline void expect(bool holds) {
  EXPECT_TRUE(holds);
}

// An I2C master in standard mode.
struct I2cLines {
  headend::OpenDrainBus bus;
  Nanos now = headend::kSecond;
  Nanos low = 4700, high = 4000, dataSetup = 250, startSetup = 4700, startHold = 4000, stopSetup = 4000;
  Nanos busFree = 4700;

  explicit I2cLines(headend::I2cSlave& slave) : bus(&slave) { scl(0, true), sda(0, true); }
  void scl(Nanos wait, bool level) {
    bus.drive(bus.kClock, level, now += wait);
    while (level && !bus.level(bus.kClock, now)) now += 100;
  }
  void sda(Nanos wait, bool level) { bus.drive(bus.kData, level, now += wait); }
  void rise(bool data) {
    sda(low - dataSetup, data);
    scl(dataSetup, true);
  }
  bool bit(bool level) {
    rise(level);
    const bool seen = bus.level(bus.kData, now + high);
    scl(high, false);
    return seen;
  }
  void start() {
    sda(0, false);
    scl(startHold, false);
  }
  void prepareRestart() {
    rise(true);
    now += startSetup;
  }
  void stop() {
    rise(false);
    sda(stopSetup, true);
    now += busFree;
  }
  unsigned exchange(unsigned byte) {
    unsigned seen = 0;
    for (int i = 7; i >= 0; --i) seen = seen << 1 | (bit((byte >> i & 1) != 0) ? 1U : 0U);
    return seen;
  }
  bool write(u8 byte) { return exchange(byte), !bit(true); }  // true: acknowledged
  u8 read(bool acknowledge) {
    const unsigned byte = exchange(0xFF);
    bit(!acknowledge);
    return static_cast<u8>(byte);
  }
  bool begin(unsigned address, bool reads = false) {
    start();
    return write(static_cast<u8>(address << 1 | (reads ? 1 : 0)));
  }
  template <typename... Values>
  bool send(unsigned address, Values... bytes) {  // true: all acknowledged
    bool taken = begin(address);
    ((taken = write(static_cast<u8>(bytes)) && taken), ...);
    stop();
    return taken;
  }
  template <typename... Values>
  Bytes fetch(unsigned address, int count, Values... command) {
    if (sizeof...(command) > 0) begin(address), (write(static_cast<u8>(command)), ...), prepareRestart();
    begin(address, true);
    Bytes bytes;
    for (int i = 1; i <= count; ++i) bytes.push_back(read(i < count));
    stop();
    return bytes;
  }
};

// Data, clock and latch enable, at the times of the synthesizer. Data moves under the high clock, as it may
// once it has been held.
template <typename Part>
struct ThreeLines {
  Part& part;
  Nanos now = 0;
  Nanos setup = 10, hold = 10, high = 25, low = 25, toLatch = 10, width = 20;

  void send(u32 word, int bits = 24) {
    for (int i = bits - 1; i >= 0; --i) {
      const bool level = (word >> i & 1) != 0;
      part.data(level, now);
      part.clock(true, now += setup);
      if (i == 0) break;
      part.data(!level, now += hold);
      part.clock(false, now += high - hold);
      now += low - setup;
    }
    part.latchEnable(true, now += toLatch);
    part.latchEnable(false, now += width);
    part.clock(false, now += high);
    now += low;
  }
};

// The four lines and the reset of the converter, which has been reset.
struct DacLines {
  explicit DacLines(headend::Dac& dac) : part(dac) { reset(), now += width; }

  headend::Dac& part;
  Nanos now = 1000;
  Nanos setup = 25, select = 25, high = 30, low = 37, width = 2;

  bool bit(bool level) {  // the output at the rising clock edge
    part.dataIn(level, now);
    const bool seen = part.dataOut();
    part.clock(true, now += setup);
    part.clock(false, now += high);
    now += low - setup;
    return seen;
  }
  template <typename... Values>
  unsigned bytes(Values... values) {  // returns the last byte read
    unsigned seen = 0;
    for (const u8 value : {static_cast<u8>(values)...}) {
      for (int place = 7; place >= 0; --place) seen = seen << 1 | (bit((value >> place & 1) != 0) ? 1U : 0U);
    }
    return seen & 0xFF;
  }
  void begin() {
    part.chipSelect(true, now);
    part.chipSelect(false, now);
    now += select - setup;
  }
  template <typename... Values>
  unsigned frame(Values... values) {
    begin();
    const unsigned seen = bytes(values...);
    EXPECT_FALSE(part.dataOut());
    part.chipSelect(true, now);
    return seen;
  }
  void holds(u8 index, u8 value) { expect(part.reg(index) == value); }
  void reset() {
    part.reset(true, now);
    part.reset(false, now += width);
  }
};

}  // namespace test
