#include "bench/bare_loops.h"

#include "platform/chassis.h"
#include "platform/kernel.h"

void barePsiPacket(Reg16& data, const u8* packet) {
  for (int i = 0; i < 188; ++i) data = packet[i];
  for (int i = 0; i < 16; ++i) data = 0xFFFF;
}

void bareConfiguration(brdFpgaCfg_t& port, const u8* stream, int size) {
  port.config_protect = 0xC0DE;
  port.fpga_dclk = 0;
  port.fpga_ncfg = 0x3C5A;
  while (port.fpga_ncfg != 0x3C5A) {
  }
  while (port.fpga_stat != 0) {
  }
  port.fpga_ncfg = 0xC3A5;
  while (port.fpga_stat == 0) {
  }
  for (int i = 0; i < size; ++i) {
    for (int bit = 0; bit < 8; ++bit) {
      port.fpga_data = (stream[i] >> (7 - bit)) & 1;
      port.fpga_dclk = 1;
      port.fpga_dclk = 0;
    }
  }
  for (int i = 0; i < 10; ++i) {
    port.fpga_dclk = 1;
    port.fpga_dclk = 0;
  }
  while (port.fpga_done == 0) {
  }
  port.config_protect = 0;
}

namespace {

void clockHigh(Qam_fpga_if& window) {
  chassis::Delay5us();
  window.cdce925_scl = 1;
  chassis::Delay5us();
}
void clockLow(Qam_fpga_if& window) {
  chassis::Delay5us();
  window.cdce925_scl = 0;
  chassis::Delay5us();
}
void dataHigh(Qam_fpga_if& window) {
  chassis::Delay5us();
  window.cdce925_sda = 1;
  chassis::Delay5us();
}
void dataLow(Qam_fpga_if& window) {
  chassis::Delay5us();
  window.cdce925_sda = 0;
  chassis::Delay5us();
  chassis::Delay5us();
}
void waitForClock(Qam_fpga_if& window) {
  while ((window.cdce925_scl & 0xFF) != 1) {
  }
}

void sendByte(Qam_fpga_if& window, u8 byte) {
  for (int bit = 0; bit < 8; ++bit) {
    if ((byte & 0x80) != 0) {
      dataHigh(window);
    } else {
      dataLow(window);
    }
    chassis::delay5us();
    chassis::Dog();
    clockHigh(window);
    chassis::delay5us();
    byte = static_cast<u8>(byte << 1);
    clockLow(window);
    chassis::delay5us();
    chassis::Dog();
  }
  dataHigh(window);
}

void acknowledgeClock(Qam_fpga_if& window) {
  clockHigh(window);
  waitForClock(window);
  clockLow(window);
}

void waitForAcknowledge(Qam_fpga_if& window) {
  int looks = 0;
  while (looks < 200 && (window.cdce925_sda & 0xFF) != 0) ++looks;
  acknowledgeClock(window);
}

}  // namespace

void bareClockRegisterWrite(Qam_fpga_if& window, u16 reg, u8 data) {
  dataHigh(window);
  clockHigh(window);
  waitForClock(window);
  dataLow(window);
  clockLow(window);
  sendByte(window, 0xC8);
  waitForAcknowledge(window);
  sendByte(window, static_cast<u8>(reg + 0x80));
  waitForAcknowledge(window);
  sendByte(window, data);
  os::countingLoop(20);
  acknowledgeClock(window);
  dataLow(window);
  clockLow(window);
  clockHigh(window);
  waitForClock(window);
  dataHigh(window);
}
