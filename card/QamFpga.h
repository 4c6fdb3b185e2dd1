// The card FPGA's register window on the main board's bus: the only definition of its map, and each slot's
// pointer to it. All drivers of the card's devices use these registers.
#pragma once

#include <cstddef>

#include "platform/bus.h"
#include "platform/chassis.h"

// Table port for PIDs on the card; this module uses the chassis's router for PID mapping instead.
struct __qampidmap {  // NOLINT(bugprone-reserved-identifier)
  Reg16 oldpid_l, oldpid_h;
  Reg16 newpid_l, newpid_h;
  Reg16 addr;
  Reg16 we;
  Reg16 mode;
  Reg16 reserved0;
};

// Pass filter by PID: the value for the addressed PID is stored at the rising edge of the strobe.
struct __qampidfilter {  // NOLINT(bugprone-reserved-identifier)
  Reg16 filter_onoff;
  Reg16 filter_we;
  Reg16 filter_pid_l, filter_pid_h;
};

struct Qam_fpga_if {
  Reg16 nrst;  // modulator reset lines, active low
  Reg16 qam_mode;
  Reg16 rf_off_hh, rf_off_hl, rf_off_lh, rf_off_ll;  // symbol-rate word, a byte each
  Reg16 att_q1_dat, att_q1_clk, att_q1_le;           // attenuators
  Reg16 att_q2_dat, att_q2_clk, att_q2_le;
  Reg16 cdce925_scl, cdce925_sda, cdce925_s0;  // clock generator
  Reg16 ad7414_sda, ad7414_scl, ad7414_alt;    // first temperature sensor
  Reg16 ad9775_1_sdo, ad9775_1_rst, ad9775_1_clk, ad9775_1_cs, ad9775_1_sdio;
  Reg16 ad9775_2_sdo, ad9775_2_rst, ad9775_2_clk, ad9775_2_cs, ad9775_2_sdio;
  Reg16 q1_12v_ctrl, q1_5v_ctrl;
  Reg16 q2_12v_ctrl, q2_5v_ctrl;
  Reg16 lo1_dat, lo1_clk, lo1_ref, lo1_mo, lo1_le;  // synthesizers
  Reg16 lo2_q1_dat, lo2_q1_clk, lo2_q1_ref, lo2_q1_mo, lo2_q1_le;
  Reg16 lo2_q2_dat, lo2_q2_clk, lo2_q2_ref, lo2_q2_mo, lo2_q2_le;
  Reg16 rf0_en, rf1_en;
  Reg16 X24C16SDA, X24C16SCL;  // calibration EEPROM
  Reg16 power;
  Reg16 qamen;
  Reg16 version;
  Reg16 plllock;
  Reg16 tslock;
  Reg16 rate_ctrl_rst;
  Reg16 Valid_0_rateL, Valid_0_rateM, Valid_0_rateH, Sys_0_rateL, Sys_0_rateH;
  Reg16 Valid_1_rateL, Valid_1_rateM, Valid_1_rateH, Sys_1_rateL, Sys_1_rateH;
  Reg16 ext_ad7414_sda, ext_ad7414_scl, ext_ad7414_alt;  // second temperature sensor
  Reg16 Card_No;
  Reg16 oport_num0, oport_num1;
  Reg16 pkt_len0;
  Reg16 Orate0_0, Orate0_1, Orate0_2, Orate0_3;
  Reg16 PsiData0, PsiRdy0;  // PSI insertion of channel 0: data port, and not 0 when a packet may be written
  Reg16 reserved;
  Reg16 pkt_len1;
  Reg16 Orate1_0, Orate1_1, Orate1_2, Orate1_3;
  Reg16 PsiData1, PsiRdy1;
  Reg16 reserve[12];
  Reg16 Test[15];
  __qampidmap qampidmap[2];
  __qampidfilter qampidfilter[2];
};

static_assert(offsetof(Qam_fpga_if, nrst) == 0 && offsetof(Qam_fpga_if, qam_mode) == 2);
static_assert(offsetof(Qam_fpga_if, rf_off_hh) == 4 && offsetof(Qam_fpga_if, rf_off_hl) == 6);
static_assert(offsetof(Qam_fpga_if, rf_off_lh) == 8 && offsetof(Qam_fpga_if, rf_off_ll) == 10);
static_assert(offsetof(Qam_fpga_if, att_q1_dat) == 12 && offsetof(Qam_fpga_if, att_q1_clk) == 14);
static_assert(offsetof(Qam_fpga_if, att_q1_le) == 16 && offsetof(Qam_fpga_if, att_q2_dat) == 18);
static_assert(offsetof(Qam_fpga_if, att_q2_clk) == 20 && offsetof(Qam_fpga_if, att_q2_le) == 22);
static_assert(offsetof(Qam_fpga_if, cdce925_scl) == 24 && offsetof(Qam_fpga_if, cdce925_sda) == 26);
static_assert(offsetof(Qam_fpga_if, cdce925_s0) == 28 && offsetof(Qam_fpga_if, ad7414_sda) == 30);
static_assert(offsetof(Qam_fpga_if, ad7414_scl) == 32 && offsetof(Qam_fpga_if, ad7414_alt) == 34);
static_assert(offsetof(Qam_fpga_if, ad9775_1_sdo) == 36 && offsetof(Qam_fpga_if, ad9775_1_rst) == 38);
static_assert(offsetof(Qam_fpga_if, ad9775_1_clk) == 40 && offsetof(Qam_fpga_if, ad9775_1_cs) == 42);
static_assert(offsetof(Qam_fpga_if, ad9775_1_sdio) == 44 && offsetof(Qam_fpga_if, ad9775_2_sdo) == 46);
static_assert(offsetof(Qam_fpga_if, ad9775_2_rst) == 48 && offsetof(Qam_fpga_if, ad9775_2_clk) == 50);
static_assert(offsetof(Qam_fpga_if, ad9775_2_cs) == 52 && offsetof(Qam_fpga_if, ad9775_2_sdio) == 54);
static_assert(offsetof(Qam_fpga_if, q1_12v_ctrl) == 56 && offsetof(Qam_fpga_if, q1_5v_ctrl) == 58);
static_assert(offsetof(Qam_fpga_if, q2_12v_ctrl) == 60 && offsetof(Qam_fpga_if, q2_5v_ctrl) == 62);
static_assert(offsetof(Qam_fpga_if, lo1_dat) == 64 && offsetof(Qam_fpga_if, lo1_clk) == 66);
static_assert(offsetof(Qam_fpga_if, lo1_ref) == 68 && offsetof(Qam_fpga_if, lo1_mo) == 70);
static_assert(offsetof(Qam_fpga_if, lo1_le) == 72 && offsetof(Qam_fpga_if, lo2_q1_dat) == 74);
static_assert(offsetof(Qam_fpga_if, lo2_q1_clk) == 76 && offsetof(Qam_fpga_if, lo2_q1_ref) == 78);
static_assert(offsetof(Qam_fpga_if, lo2_q1_mo) == 80 && offsetof(Qam_fpga_if, lo2_q1_le) == 82);
static_assert(offsetof(Qam_fpga_if, lo2_q2_dat) == 84 && offsetof(Qam_fpga_if, lo2_q2_clk) == 86);
static_assert(offsetof(Qam_fpga_if, lo2_q2_ref) == 88 && offsetof(Qam_fpga_if, lo2_q2_mo) == 90);
static_assert(offsetof(Qam_fpga_if, lo2_q2_le) == 92 && offsetof(Qam_fpga_if, rf0_en) == 94);
static_assert(offsetof(Qam_fpga_if, rf1_en) == 96 && offsetof(Qam_fpga_if, X24C16SDA) == 98);
static_assert(offsetof(Qam_fpga_if, X24C16SCL) == 100 && offsetof(Qam_fpga_if, power) == 102);
static_assert(offsetof(Qam_fpga_if, qamen) == 104 && offsetof(Qam_fpga_if, version) == 106);
static_assert(offsetof(Qam_fpga_if, plllock) == 108 && offsetof(Qam_fpga_if, tslock) == 110);
static_assert(offsetof(Qam_fpga_if, rate_ctrl_rst) == 112 && offsetof(Qam_fpga_if, Valid_0_rateL) == 114);
static_assert(offsetof(Qam_fpga_if, Valid_0_rateM) == 116 && offsetof(Qam_fpga_if, Valid_0_rateH) == 118);
static_assert(offsetof(Qam_fpga_if, Sys_0_rateL) == 120 && offsetof(Qam_fpga_if, Sys_0_rateH) == 122);
static_assert(offsetof(Qam_fpga_if, Valid_1_rateL) == 124 && offsetof(Qam_fpga_if, Valid_1_rateM) == 126);
static_assert(offsetof(Qam_fpga_if, Valid_1_rateH) == 128 && offsetof(Qam_fpga_if, Sys_1_rateL) == 130);
static_assert(offsetof(Qam_fpga_if, Sys_1_rateH) == 132 && offsetof(Qam_fpga_if, ext_ad7414_sda) == 134);
static_assert(offsetof(Qam_fpga_if, ext_ad7414_scl) == 136 && offsetof(Qam_fpga_if, ext_ad7414_alt) == 138);
static_assert(offsetof(Qam_fpga_if, Card_No) == 140 && offsetof(Qam_fpga_if, oport_num0) == 142);
static_assert(offsetof(Qam_fpga_if, oport_num1) == 144 && offsetof(Qam_fpga_if, pkt_len0) == 146);
static_assert(offsetof(Qam_fpga_if, Orate0_0) == 148 && offsetof(Qam_fpga_if, Orate0_1) == 150);
static_assert(offsetof(Qam_fpga_if, Orate0_2) == 152 && offsetof(Qam_fpga_if, Orate0_3) == 154);
static_assert(offsetof(Qam_fpga_if, PsiData0) == 156 && offsetof(Qam_fpga_if, PsiRdy0) == 158);
static_assert(offsetof(Qam_fpga_if, reserved) == 160 && offsetof(Qam_fpga_if, pkt_len1) == 162);
static_assert(offsetof(Qam_fpga_if, Orate1_0) == 164 && offsetof(Qam_fpga_if, Orate1_1) == 166);
static_assert(offsetof(Qam_fpga_if, Orate1_2) == 168 && offsetof(Qam_fpga_if, Orate1_3) == 170);
static_assert(offsetof(Qam_fpga_if, PsiData1) == 172 && offsetof(Qam_fpga_if, PsiRdy1) == 174);
static_assert(offsetof(Qam_fpga_if, reserve) == 176 && offsetof(Qam_fpga_if, Test) == 200);
static_assert(offsetof(Qam_fpga_if, qampidmap) == 230 && offsetof(Qam_fpga_if, qampidfilter) == 262);
static_assert(sizeof(__qampidmap) == 16 && offsetof(__qampidmap, newpid_l) == 4);
static_assert(offsetof(__qampidmap, oldpid_h) == 2 && offsetof(__qampidmap, newpid_h) == 6);
static_assert(offsetof(__qampidmap, addr) == 8 && offsetof(__qampidmap, we) == 10);
static_assert(offsetof(__qampidmap, mode) == 12 && offsetof(__qampidmap, reserved0) == 14);
static_assert(sizeof(__qampidfilter) == 8 && offsetof(__qampidfilter, filter_we) == 2);
static_assert(offsetof(__qampidfilter, filter_pid_l) == 4 && offsetof(__qampidfilter, filter_pid_h) == 6);
static_assert(sizeof(Qam_fpga_if) == 278);

// Each slot's window; null until the slot's start-up has set it.
extern Qam_fpga_if* QamFpgaIf[MAX_BOARD_NUM];

struct QamCardPara;

// Filters and bench tests, for the chassis and a debug shell: the rest of the module does not call them.
// Started slots only; tasks only. Two writers of one channel's filter must not overlap.
extern "C" {

// Sets whether packets of `pid` (0 to 0x1FFF) pass on the channel (0, 1); the second sets all 8192 PIDs, the
// third opens them.
void qamPidSetFilter(u8 slotNo, u8 portNo, u16 pid, u8 pass);
void qamPidFilterAllSet(u8 slotNo, u8 Port, u8 pass);
void qamFpgaWFilter(u8 slotNo, u8 port, QamCardPara* ptr);

// Writes Value, Value + 2, ... to the fifteen scratch registers and prints those that read back wrong.
void QamFpgaIfTest(u8 slotNo, u16 Value);
// Toggles the clock generator's clock line five times, slow enough for an oscilloscope.
void QamFpgaTest(u8 slotNo);

// Functions of other card types; for this type they do nothing.
void qamTsPro(u8 slotNo, QamCardPara* pEnc);
void setAencOnePortTsPid(u8 slotNo, u8 portNo, u16 pid);
void setSlotPortNo2FPGA(u8 slotNo);
}
