#include "bench/bare_loops.h"

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
