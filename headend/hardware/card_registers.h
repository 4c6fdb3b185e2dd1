// The register map of the card's FPGA in hardware: name, width and direction of each register. Used by the
// FPGA model, the wiring of its lines, and views of the registers.
#pragma once

#include <array>
#include <string_view>

#include "platform/types.h"

namespace headend {

struct CardRegister {
  enum Kind : u8 {
    kWord,       // sixteen bits that a driver writes
    kLine,       // a line that a driver drives, bit 0; the wire may hold another level
    kInput,      // sixteen bits that only the card writes
    kInputLine,  // a line that only the card drives
    kSpare,
  };
  const char* name;
  Kind kind;

  constexpr bool isLine() const { return kind == kLine || kind == kInputLine; }
  constexpr bool isDrivers() const { return kind == kWord || kind == kLine; }
};

// clang-format off
inline constexpr auto kCardRegisters = [] {
  using enum CardRegister::Kind;
  return std::to_array<CardRegister>({
      {"nrst", kWord},
      {"qam_mode", kWord},
      {"rf_off_hh", kWord},
      {"rf_off_hl", kWord},
      {"rf_off_lh", kWord},
      {"rf_off_ll", kWord},
      {"att_q1_dat", kLine},
      {"att_q1_clk", kLine},
      {"att_q1_le", kLine},
      {"att_q2_dat", kLine},
      {"att_q2_clk", kLine},
      {"att_q2_le", kLine},
      {"cdce925_scl", kLine},
      {"cdce925_sda", kLine},
      {"cdce925_s0", kLine},
      {"ad7414_sda", kLine},
      {"ad7414_scl", kLine},
      {"ad7414_alt", kInputLine},
      {"ad9775_1_sdo", kInputLine},
      {"ad9775_1_rst", kLine},
      {"ad9775_1_clk", kLine},
      {"ad9775_1_cs", kLine},
      {"ad9775_1_sdio", kLine},
      {"ad9775_2_sdo", kInputLine},
      {"ad9775_2_rst", kLine},
      {"ad9775_2_clk", kLine},
      {"ad9775_2_cs", kLine},
      {"ad9775_2_sdio", kLine},
      {"q1_12v_ctrl", kLine},
      {"q1_5v_ctrl", kLine},
      {"q2_12v_ctrl", kLine},
      {"q2_5v_ctrl", kLine},
      {"lo1_dat", kLine},
      {"lo1_clk", kLine},
      {"lo1_ref", kLine},
      {"lo1_mo", kInputLine},
      {"lo1_le", kLine},
      {"lo2_q1_dat", kLine},
      {"lo2_q1_clk", kLine},
      {"lo2_q1_ref", kLine},
      {"lo2_q1_mo", kInputLine},
      {"lo2_q1_le", kLine},
      {"lo2_q2_dat", kLine},
      {"lo2_q2_clk", kLine},
      {"lo2_q2_ref", kLine},
      {"lo2_q2_mo", kInputLine},
      {"lo2_q2_le", kLine},
      {"rf0_en", kLine},
      {"rf1_en", kLine},
      {"X24C16SDA", kLine},
      {"X24C16SCL", kLine},
      {"power", kWord},
      {"qamen", kWord},
      {"version", kInput},
      {"plllock", kInput},
      {"tslock", kInput},
      {"rate_ctrl_rst", kLine},
      {"Valid_0_rateL", kInput},
      {"Valid_0_rateM", kInput},
      {"Valid_0_rateH", kInput},
      {"Sys_0_rateL", kInput},
      {"Sys_0_rateH", kInput},
      {"Valid_1_rateL", kInput},
      {"Valid_1_rateM", kInput},
      {"Valid_1_rateH", kInput},
      {"Sys_1_rateL", kInput},
      {"Sys_1_rateH", kInput},
      {"ext_ad7414_sda", kLine},
      {"ext_ad7414_scl", kLine},
      {"ext_ad7414_alt", kInputLine},
      {"Card_No", kInput},
      {"oport_num0", kWord},
      {"oport_num1", kWord},
      {"pkt_len0", kWord},
      {"Orate0_0", kInput},
      {"Orate0_1", kInput},
      {"Orate0_2", kInput},
      {"Orate0_3", kInput},
      {"PsiData0", kWord},
      {"PsiRdy0", kInputLine},
      {"reserved", kSpare},
      {"pkt_len1", kWord},
      {"Orate1_0", kInput},
      {"Orate1_1", kInput},
      {"Orate1_2", kInput},
      {"Orate1_3", kInput},
      {"PsiData1", kWord},
      {"PsiRdy1", kInputLine},
      {"reserve0", kSpare},
      {"reserve1", kSpare},
      {"reserve2", kSpare},
      {"reserve3", kSpare},
      {"reserve4", kSpare},
      {"reserve5", kSpare},
      {"reserve6", kSpare},
      {"reserve7", kSpare},
      {"reserve8", kSpare},
      {"reserve9", kSpare},
      {"reserve10", kSpare},
      {"reserve11", kSpare},
      {"Test0", kWord},
      {"Test1", kWord},
      {"Test2", kWord},
      {"Test3", kWord},
      {"Test4", kWord},
      {"Test5", kWord},
      {"Test6", kWord},
      {"Test7", kWord},
      {"Test8", kWord},
      {"Test9", kWord},
      {"Test10", kWord},
      {"Test11", kWord},
      {"Test12", kWord},
      {"Test13", kWord},
      {"Test14", kWord},
      {"qampidmap0_oldpid_l", kWord},
      {"qampidmap0_oldpid_h", kWord},
      {"qampidmap0_newpid_l", kWord},
      {"qampidmap0_newpid_h", kWord},
      {"qampidmap0_addr", kWord},
      {"qampidmap0_we", kLine},
      {"qampidmap0_mode", kWord},
      {"qampidmap0_reserved0", kSpare},
      {"qampidmap1_oldpid_l", kWord},
      {"qampidmap1_oldpid_h", kWord},
      {"qampidmap1_newpid_l", kWord},
      {"qampidmap1_newpid_h", kWord},
      {"qampidmap1_addr", kWord},
      {"qampidmap1_we", kLine},
      {"qampidmap1_mode", kWord},
      {"qampidmap1_reserved0", kSpare},
      {"qampidfilter0_filter_onoff", kLine},
      {"qampidfilter0_filter_we", kLine},
      {"qampidfilter0_filter_pid_l", kWord},
      {"qampidfilter0_filter_pid_h", kWord},
      {"qampidfilter1_filter_onoff", kLine},
      {"qampidfilter1_filter_we", kLine},
      {"qampidfilter1_filter_pid_l", kWord},
      {"qampidfilter1_filter_pid_h", kWord},
  });
}();
// clang-format on

inline constexpr u32 kCardWindowSize = kCardRegisters.size() * 2;  // bytes
static_assert(kCardWindowSize == 278);

constexpr const CardRegister& cardRegister(u32 offset) {
  return kCardRegisters[offset / 2];
}

// The byte offset of a register; an unknown name is a compile error.
consteval u32 offsetOf(std::string_view name) {
  u32 offset = 0;
  while (kCardRegisters.at(offset / 2).name != name) offset += 2;
  return offset;
}

}  // namespace headend
