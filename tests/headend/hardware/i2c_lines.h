// An I2C master that keeps exactly the least times of fast mode, unless told to miss one.
#pragma once

#include <string>
#include <vector>

#include "headend/hardware/open_drain_bus.h"

namespace test {

using headend::Nanos;
using Bytes = std::vector<u8>;

inline std::string kinds(const headend::Violations& violations) {
  std::string all;
  for (const auto& [kind, count] : violations.counts()) all += (all.empty() ? "" : " ") + kind;
  return all;
}

struct I2cLines {
  headend::OpenDrainBus bus;
  Nanos now = headend::kSecond;
  bool waits = false;  // for a clock that a slave holds
  Nanos low = 1300, high = 600, dataSetup = 100, startSetup = 600, startHold = 600, stopSetup = 600,
        busFree = 1300;

  explicit I2cLines(headend::I2cSlave* slave, bool clockFirst = true) : bus(slave) {
    clockFirst ? scl(true) : sda(true);
    clockFirst ? sda(true) : scl(true);
  }
  void scl(bool level) {
    bus.driveClock(level, now);
    while (level && waits && !bus.clock(now)) now += 100;
  }
  void sda(bool level) { bus.driveData(level, now); }
  void rise(bool data) {
    now += low - dataSetup;
    sda(data);
    now += dataSetup;
    scl(true);
  }
  bool bit(bool level) {
    rise(level);
    now += high;
    const bool seen = bus.data(now);
    scl(false);
    return seen;
  }
  void start() {
    sda(false);
    now += startHold;
    scl(false);
  }
  void restart() {
    rise(true);
    now += startSetup;
    start();
  }
  void stop() {
    rise(false);
    now += stopSetup;
    sda(true);
    now += busFree;
  }
  bool write(u8 byte) {  // true: acknowledged
    for (int i = 7; i >= 0; --i) bit((byte >> i & 1) != 0);
    return !bit(true);
  }
  u8 read(bool acknowledge) {
    unsigned byte = 0;
    for (int i = 0; i < 8; ++i) byte = byte << 1 | (bit(true) ? 1U : 0U);
    bit(!acknowledge);
    return static_cast<u8>(byte);
  }
  bool begin(u8 addressByte) {
    start();
    return write(addressByte);
  }
  bool send(u8 address, const Bytes& bytes, bool andStop = true) {
    bool taken = begin(static_cast<u8>(address << 1));
    for (const u8 byte : bytes) taken = write(byte) && taken;
    if (andStop) stop();
    return taken;
  }
  Bytes fetch(u8 address, const Bytes& command, int count) {
    if (command.empty()) {
      start();
    } else {
      send(address, command, false);
      restart();
    }
    write(static_cast<u8>(address << 1 | 1));
    Bytes bytes;
    for (int i = 1; i <= count; ++i) bytes.push_back(read(i < count));
    stop();
    return bytes;
  }
};

}  // namespace test
