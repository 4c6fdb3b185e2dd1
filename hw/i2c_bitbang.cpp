#include "hw/i2c_bitbang.h"

#include "platform/chassis.h"
#include "platform/kernel.h"

// A comment before a step gives the levels of the two lines at that moment: clock, data. "-" is a level that
// does not matter, "b" the bit, "a" the acknowledge.

void I2cMaster::setClock(bool level) {
  level ? clockHigh() : clockLow();
}

void I2cMaster::setData(bool level) {
  level ? dataHigh() : dataLow();
}

void I2cMaster::raiseClock() {
  Reg16* line = clock_;
  change(line, 1);
  if (line == nullptr) return;
  for (u8 level = sense(line); level != 1; level = sense(line)) {
    if (level != 0 && bus_.anyLevelIsHigh) return;
  }
}

void I2cMaster::clockPulse() {
  // 0 b
  raiseClock();
  // 1 b
  clockLow();
}

void I2cMaster::start() {
  // - -
  dataHigh();
  // - 1
  raiseClock();
  // 1 1
  dataLow();  // the start condition
  // 1 0
  clockLow();
  // 0 0
}

void I2cMaster::stop() {
  // - -
  dataLow();
  // - 0
  clockLow();
  // 0 0
  raiseClock();
  // 1 0
  dataHigh();  // the stop condition
  // 1 1
}

void I2cMaster::send(u8 byte) {
  if (bus_.pacedSend) return sendPaced(byte);
  for (u32 bit = 0x80; bit != 0; bit >>= 1) {
    // 0 -
    (byte & bit) != 0 ? dataHigh() : dataLow();
    // 0 b
    clockPulse();
  }
  // 0 b
  dataHigh();
  // 0 a
}

void I2cMaster::sendPaced(u8 byte) {
  Reg16& clock = *clock_;
  Reg16& data = *data_;
  const bool slowFall = bus_.slowFall;
  for (u32 bit = 0x80; bit != 0; bit >>= 1) {
    // 0 -
    if ((byte & bit) != 0) {
      change(data, 1);
    } else {
      change(data, 0);
      if (slowFall) chassis::Delay5us();
    }
    chassis::delay5us();
    chassis::Dog();
    // 0 b
    change(clock, 1);
    chassis::delay5us();
    // 1 b
    change(clock, 0);
    chassis::delay5us();
    chassis::Dog();
  }
  // 0 b
  change(data, 1);
  // 0 a
}

u8 I2cMaster::receive() {
  // 0 -
  dataHigh();
  u8 byte = 0;
  for (int bit = 0; bit < 8; ++bit) {
    // 0 b
    raiseClock();
    // 1 b
    byte = static_cast<u8>(byte << 1 | data());
    clockLow();
  }
  return byte;
}

void I2cMaster::takeAcknowledge(bool waits) {
  const Reg16* line = data_;
  if (!waits) {
    os::countingLoop(20);
  } else if (line != nullptr) {
    int looks = 200;
    while (static_cast<u8>(*line) != 0 && --looks != 0) {
    }
  }
  // 0 a
  clockPulse();
}

void I2cMaster::giveAcknowledge(bool acknowledge) {
  // 0 -
  acknowledge ? dataLow() : dataHigh();
  // 0 a
  clockPulse();
  // 0 a
  dataHigh();
}

bool I2cMaster::answers(u8 device) {
  start();
  send(device);
  // 0 a
  raiseClock();
  // 1 a
  const bool acknowledged = data() == 0;
  clockLow();
  stop();
  return acknowledged;
}

void I2cMaster::startWith(u8 device, u8 address) {
  start();
  send(device);
  takeAcknowledge(true);
  send(address);
}

void I2cMaster::write(u8 device, u8 address, const u8* bytes, int size) {
  startWith(device, address);
  takeAcknowledge(true);
  for (int i = 0; i < size; ++i) {
    send(bytes[i]);
    takeAcknowledge(i + 1 < size);
  }
  stop();
}

void I2cMaster::read(u8 device, u8 address, u8* bytes, int size) {
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
