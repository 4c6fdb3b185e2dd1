// The register map of the card's FPGA in hardware: name, width and direction of each register. Used by the
// FPGA model, the wiring of its lines, and views of the registers.
#pragma once

#include <algorithm>
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
  Kind kind = kSpare;
  std::string_view name;

  constexpr bool isLine() const { return kind == kLine || kind == kInputLine; }
  constexpr bool isDrivers() const { return kind == kWord || kind == kLine; }
};

// In the order of their addresses.
inline constexpr auto kCardRegisters = [] {
  using enum CardRegister::Kind;
  // Each run has registers of one kind.
  constexpr CardRegister kRuns[] = {
      {kWord, "nrst qam_mode rf_off_hh rf_off_hl rf_off_lh rf_off_ll"},
      {kLine,
       "att_q1_dat att_q1_clk att_q1_le att_q2_dat att_q2_clk att_q2_le cdce925_scl cdce925_sda cdce925_s0 "
       "ad7414_sda ad7414_scl"},
      {kInputLine, "ad7414_alt ad9775_1_sdo"},
      {kLine, "ad9775_1_rst ad9775_1_clk ad9775_1_cs ad9775_1_sdio"},
      {kInputLine, "ad9775_2_sdo"},
      {kLine,
       "ad9775_2_rst ad9775_2_clk ad9775_2_cs ad9775_2_sdio q1_12v_ctrl q1_5v_ctrl q2_12v_ctrl q2_5v_ctrl "
       "lo1_dat lo1_clk lo1_ref"},
      {kInputLine, "lo1_mo"},
      {kLine, "lo1_le lo2_q1_dat lo2_q1_clk lo2_q1_ref"},
      {kInputLine, "lo2_q1_mo"},
      {kLine, "lo2_q1_le lo2_q2_dat lo2_q2_clk lo2_q2_ref"},
      {kInputLine, "lo2_q2_mo"},
      {kLine, "lo2_q2_le rf0_en rf1_en X24C16SDA X24C16SCL"},
      {kWord, "power qamen"},
      {kInput, "version plllock tslock"},
      {kLine, "rate_ctrl_rst"},
      {kInput,
       "Valid_0_rateL Valid_0_rateM Valid_0_rateH Sys_0_rateL Sys_0_rateH Valid_1_rateL Valid_1_rateM "
       "Valid_1_rateH Sys_1_rateL Sys_1_rateH"},
      {kLine, "ext_ad7414_sda ext_ad7414_scl"},
      {kInputLine, "ext_ad7414_alt"},
      {kInput, "Card_No"},
      {kWord, "oport_num0 oport_num1 pkt_len0"},
      {kInput, "Orate0_0 Orate0_1 Orate0_2 Orate0_3"},
      {kWord, "PsiData0"},
      {kInputLine, "PsiRdy0"},
      {kSpare, "reserved"},
      {kWord, "pkt_len1"},
      {kInput, "Orate1_0 Orate1_1 Orate1_2 Orate1_3"},
      {kWord, "PsiData1"},
      {kInputLine, "PsiRdy1"},
      {kSpare,
       "reserve0 reserve1 reserve2 reserve3 reserve4 reserve5 reserve6 reserve7 reserve8 reserve9 "
       "reserve10 reserve11"},
      {kWord,
       "Test0 Test1 Test2 Test3 Test4 Test5 Test6 Test7 Test8 Test9 Test10 Test11 Test12 Test13 Test14 "
       "qampidmap0_oldpid_l qampidmap0_oldpid_h qampidmap0_newpid_l qampidmap0_newpid_h qampidmap0_addr"},
      {kLine, "qampidmap0_we"},
      {kWord, "qampidmap0_mode"},
      {kSpare, "qampidmap0_reserved0"},
      {kWord,
       "qampidmap1_oldpid_l qampidmap1_oldpid_h qampidmap1_newpid_l qampidmap1_newpid_h qampidmap1_addr"},
      {kLine, "qampidmap1_we"},
      {kWord, "qampidmap1_mode"},
      {kSpare, "qampidmap1_reserved0"},
      {kLine, "qampidfilter0_filter_onoff qampidfilter0_filter_we"},
      {kWord, "qampidfilter0_filter_pid_l qampidfilter0_filter_pid_h"},
      {kLine, "qampidfilter1_filter_onoff qampidfilter1_filter_we"},
      {kWord, "qampidfilter1_filter_pid_l qampidfilter1_filter_pid_h"},
  };
  std::array<CardRegister, 139> registers;
  std::size_t count = 0;
  for (auto [kind, names] : kRuns) {
    while (!names.empty()) {
      const std::size_t end = std::min(names.find(' '), names.size());
      registers.at(count++) = {kind, names.substr(0, end)};
      names.remove_prefix(std::min(end + 1, names.size()));
    }
  }
  return registers;
}();

inline constexpr u32 kCardWindowSize = kCardRegisters.size() * 2;  // bytes
static_assert(!kCardRegisters.back().name.empty());

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
