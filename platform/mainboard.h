// The main board's FPGA as a card driver uses it: a block of 16-bit registers. Drivers of this kind use the
// configuration ports, one per slot, and the outputs' overflow bits. The pointer to it is
// `pbbFpgaIf` of qamcard/chassis.h.
#pragma once

#include <cstddef>

#include "platform/bus.h"
#include "platform/chassis.h"

// One slot's port for loading the FPGA of its card.
struct brdFpgaCfg_t {
  Reg16 fpga_ncfg;       // request: kStartConfiguration, then kReleaseConfiguration; reads back the last code
  Reg16 fpga_dclk;       // configuration clock line
  Reg16 fpga_data;       // configuration data line, bit 0
  Reg16 fpga_stat;       // read: 0 in configuration reset, else ready for data
  Reg16 fpga_done;       // read: not 0 once the card's FPGA is configured
  Reg16 config_protect;  // write guard of this port: kGuardOpen or kGuardClosed
  Reg16 reserved[2];

  static constexpr u16 kStartConfiguration = 0x3C5A;
  static constexpr u16 kReleaseConfiguration = 0xC3A5;
  static constexpr u16 kGuardOpen = 0xC0DE;
  static constexpr u16 kGuardClosed = 0;
};
static_assert(sizeof(brdFpgaCfg_t) == 16);
static_assert(offsetof(brdFpgaCfg_t, fpga_ncfg) == 0);
static_assert(offsetof(brdFpgaCfg_t, fpga_dclk) == 2);
static_assert(offsetof(brdFpgaCfg_t, fpga_data) == 4);
static_assert(offsetof(brdFpgaCfg_t, fpga_stat) == 6);
static_assert(offsetof(brdFpgaCfg_t, fpga_done) == 8);
static_assert(offsetof(brdFpgaCfg_t, config_protect) == 10);
static_assert(offsetof(brdFpgaCfg_t, reserved) == 12);

struct bbFpga_t {
  Reg16 chassis[188];        // resets, interrupts, LEDs and router: for the main firmware
  Reg16 rate_overflow;       // read: one bit per output, by the number of `out_port_to_mbrd_out`
  Reg16 chassis_rates[195];  // for the main firmware
  brdFpgaCfg_t fpgaCfg[MAX_BOARD_NUM];
};
static_assert(offsetof(bbFpga_t, rate_overflow) == 376);
static_assert(offsetof(bbFpga_t, fpgaCfg) == 0x300);
static_assert(sizeof(bbFpga_t) == 0x300 + 6 * 16);
