#include "hw/ad9775.h"

#include "card/QamFpga.h"
#include "platform/chassis.h"
#include "platform/kernel.h"

namespace {

constexpr u8 kRead = 0x80;  // instruction bit; the length bits stay 0, for one byte

void shiftOut(u8 slotNo, u8 data) {
  Qam_fpga_if* window = QamFpgaIf[slotNo];
  for (int bit = 7; bit >= 0; --bit) {
    window->ad9775_1_clk = 0;
    delay1();
    window->ad9775_1_sdio = (data >> bit) & 1;
    delay1();
    window->ad9775_1_clk = 1;
    delay1();
  }
}

}  // namespace

void ad9775_init(u8 slotNo) {
  Qam_fpga_if* window = QamFpgaIf[slotNo];
  window->ad9775_1_rst = 0;
  delay1();
  window->ad9775_1_rst = 1;
  delay1();
  chassis::Dog();
  delay1();
  window->ad9775_1_rst = 0;
  window->ad9775_1_cs = 1;
  window->ad9775_1_clk = 1;
}

void ad9775_reg_write(u8 slotNo, u8 addr, const u8* data, u8 num) {
  Qam_fpga_if* window = QamFpgaIf[slotNo];
  window->ad9775_1_cs = 0;
  write_ins(slotNo, addr);
  for (u8 i = 0; i < num; ++i) write_reg(slotNo, data[i]);
  window->ad9775_1_cs = 1;
}

u8 ad9775_reg_read(u8 slotNo, u8 addr) {
  Qam_fpga_if* window = QamFpgaIf[slotNo];
  window->ad9775_1_cs = 0;
  write_ins(slotNo, addr | kRead);
  window->ad9775_1_clk = 0;
  delay1();
  u16 value = 0;
  for (int bit = 0; bit < 8; ++bit) {
    value = static_cast<u16>(value << 1);
    window->ad9775_1_clk = 1;
    delay1();
    value = static_cast<u16>(value | window->ad9775_1_sdo);  // the whole cell: it must read 0 or 1
    window->ad9775_1_clk = 0;
    delay1();
  }
  window->ad9775_1_cs = 1;
  return static_cast<u8>(value);
}

void write_ins(u8 slotNo, u8 data) {
  shiftOut(slotNo, data);
}
void write_reg(u8 slotNo, u8 data) {
  shiftOut(slotNo, data);
}

void delay1() {
  os::countingLoop(100);
}
