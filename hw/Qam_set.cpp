#include "hw/Qam_set.h"

#include <iterator>

#include "card/QamFpga.h"
#include "hw/Cdce925.h"
#include "hw/X24cxx.h"
#include "hw/ad9775.h"
#include "hw/adf4113.h"
#include "platform/chassis.h"
#include "platform/kernel.h"

namespace {

// The level is corrected by frequency band.
constexpr u32 freq_tbl[] = {100000, 200000, 300000, 400000, 500000, 600000, 700000, 800000, 900000};  // kHz
constexpr u8 rflev_adj_tbl[] = {30, 40, 30, 30, 20, 10, 0, 0, 0};  // 0.1 dB

constexpr u32 kFullLevel = 1150;    // 0.1 dBuV, without attenuation
constexpr u32 kAttenuatorStep = 5;  // 0.1 dB
constexpr int kAttenuatorBits = 6;

constexpr u16 kResetReleased = 3;
constexpr u16 kResetFirst = 2;   // bit 0 low
constexpr u16 kResetSecond = 1;  // bit 1 low

u16 levelCorrection(u32 rf_kHz) {
  for (std::size_t band = 0; band < std::size(freq_tbl); ++band) {
    if (freq_tbl[band] >= rf_kHz) return rflev_adj_tbl[band];
  }
  return 0;
}

struct ClockRegister {
  u16 reg;
  u8 value;
};
// CDCE925 data sheet, register maps: the input is an external clock; Y1, Y4 and Y5 are off, Y2 and Y3 follow
// S0; the second set of PLL1 stays as at power-up.
constexpr ClockRegister kClockSetUp[] = {
    {.reg = 0x01, .value = 0x08}, {.reg = 0x02, .value = 0x14}, {.reg = 0x24, .value = 0xE5},
    {.reg = 0x15, .value = 0x02}, {.reg = 0x1C, .value = 0x00}, {.reg = 0x1D, .value = 0x40},
    {.reg = 0x1E, .value = 0x02}, {.reg = 0x1F, .value = 0x08},
};

// DAC register n is stored in byte n of the EEPROM.
void loadDac(u8 slotNo, u8 first, u8 end) {
  for (u8 addr = first; addr < end; ++addr) {
    const u8 data = at24cxx_rd_byte(addr, slotNo);
    ad9775_reg_write(slotNo, addr, &data, 1);
  }
  chassis::Dog();
}

}  // namespace

void Qam_ResetAll(u8 slotNo) {
  Qam_fpga_if* window = QamFpgaIf[slotNo];
  window->nrst = kResetReleased;
  delay();
  window->nrst = kResetFirst;
  os::sleepMilliseconds(10);
  window->nrst = kResetReleased;
  delay();
  // Repeated on purpose: both lines are released for two pauses before the second one falls.
  window->nrst = kResetReleased;
  delay();
  window->nrst = kResetSecond;
  os::sleepMilliseconds(10);
  window->nrst = kResetReleased;
  delay();
}

void Qam_para_set(u8 slotNo, QamCardPara* pQam) {
  Qam_fpga_if* window = QamFpgaIf[slotNo];
  const QamParaS& settings = pQam->qam_para;
  os::taskLock();
  window->qam_mode = settings.qammode;
  cdce925set(slotNo, settings.symbolrate, pQam->Cd925_para);
  symbolrateinfpga(static_cast<i32>(settings.symbolrate), slotNo);
  window->pkt_len0 = 1;
  window->pkt_len1 = 1;
  window->oport_num0 = 0;
  window->oport_num1 = 1;
  Qam_ResetAll(slotNo);  // again, with packet lengths and ports set
  window->power = settings.power;
  window->rf0_en = settings.rfswitch;
  SetLO1Freq(slotNo);
  SetFreq(slotNo, settings.rfreq);
  window->X24C16SDA = 1;  // the EEPROM's bus idles high
  window->X24C16SCL = 1;
  SetRfLevel(slotNo, static_cast<u16>(settings.rflevel));
  os::taskUnlock();
}

void symbolrateinfpga(i32 freq, u8 slotNo) {
  if (freq == 0) {
    chassis::DebugPrint("slot %d symbol rate 0 cannot be set, the modulator keeps its own\r\n", slotNo);
    return;
  }
  constexpr std::int64_t kScale = (std::int64_t{1} << 26) * 1000;
  const auto word = static_cast<u32>(kScale / freq);
  Qam_fpga_if* window = QamFpgaIf[slotNo];
  window->rf_off_hh = static_cast<u16>(word >> 24);
  window->rf_off_hl = (word >> 16) & 0xFF;
  window->rf_off_lh = (word >> 8) & 0xFF;
  window->rf_off_ll = word & 0xFF;
  Qam_ResetAll(slotNo);
}

void SetRfLevel(u8 slotNo, u16 level) {
  const QamCardPara* record = GetQamCardParaFromList(slotNo);
  if (record == nullptr) return;
  const u16 correction = levelCorrection(record->qam_para.rfreq);
  const auto attenuation = static_cast<u16>(kFullLevel - level + correction);
  hrf_set(slotNo, attenuation / kAttenuatorStep);
}

// Channel 1's attenuator. Channel 2's lines in the window are never driven.
void hrf_set(u8 slotNo, u16 data) {
  Qam_fpga_if* window = QamFpgaIf[slotNo];
  delay();
  for (int bit = kAttenuatorBits - 1; bit >= 0; --bit) {
    window->att_q1_clk = 0;
    delay();
    window->att_q1_dat = static_cast<u16>(data >> bit);  // the line uses only bit 0: no mask is needed
    delay();
    window->att_q1_clk = 1;
    delay();
  }
  window->att_q1_le = 0;
  delay();
  window->att_q1_le = 1;
  delay();
  window->att_q1_le = 0;
  delay();
}

void FpgaGetRate(u8 slotNo, u8 Port, u32* pSysRate, u32* pVldRate) {
  Qam_fpga_if* window = QamFpgaIf[slotNo];
  window->rate_ctrl_rst = 0;
  os::sleepMilliseconds(10);
  window->rate_ctrl_rst = 1;
  os::sleepMilliseconds(500);

  // The names of the registers are misleading: "valid" counts all bytes of the output, "system" its null
  // packets.
  u32 bytes = 0;
  u16 nullPackets = 0;
  if (Port == 0) {
    const u32 middle = window->Valid_0_rateM;
    const u32 high = window->Valid_0_rateH;
    const u32 low = window->Valid_0_rateL;
    bytes = high << 16 | middle << 8 | low;
    const u16 nullLow = window->Sys_0_rateL;
    nullPackets = static_cast<u16>(window->Sys_0_rateH << 8 | nullLow);
  } else if (Port == 1) {
    const u32 middle = window->Valid_1_rateM;
    const u32 high = window->Valid_1_rateH;
    const u32 low = window->Valid_1_rateL;
    bytes = high << 16 | middle << 8 | low;
    const u16 nullLow = window->Sys_1_rateL;
    nullPackets = static_cast<u16>(window->Sys_1_rateH << 8 | nullLow);
  } else {
    return;
  }
  const u32 total = RateConvert(1, bytes * 2);
  *pSysRate = total;
  *pVldRate = total - RateConvert(2, nullPackets * 2U);
}

u32 RateConvert(u8 Index, u32 Rate) {
  switch (Index) {
    case 1:
      return Rate * 8;
    case 2:
      return Rate * static_cast<u32>(kTsPacketSize) * 8;
    default:
      return 0;
  }
}

void cdce925_init(u8 slotNo) {
  WsdaCdce(slotNo, 1);
  WsclCdce(slotNo, 1);
  QamFpgaIf[slotNo]->cdce925_s0 = 1;
  for (const ClockRegister& entry : kClockSetUp) CdceRegWrite(slotNo, entry.reg, entry.value);
  chassis::Dog();
}

void Ad9775Init(u8 slotNo) {
  ad9775_init(slotNo);
  chassis::Dog();
  Ad9775Set(slotNo);
}

void Ad9775Set(u8 slotNo) {
  loadDac(slotNo, 0, 5);              // common
  loadDac(slotNo, 5, 9);              // I
  loadDac(slotNo, 9, kDacRegisters);  // Q
}

void cdce925set(u8 slotNo, u32 freq, cdce925_para* pPara) {
  os::sleepMilliseconds(10);
  const cdce925_para* row = pPara;
  while (row != pPara + kClockRows && row->freq != freq) ++row;
  if (row == pPara + kClockRows) return;

  CdceRegWrite(slotNo, 0x14, static_cast<u8>(row->h20));
  CdceRegRead(slotNo, 0x14, 1);  // for a bus analyser only; the value is not used
  CdceRegWrite(slotNo, 0x16, static_cast<u8>(row->h22));
  CdceRegWrite(slotNo, 0x17, static_cast<u8>(row->h23));
  CdceRegWrite(slotNo, 0x18, static_cast<u8>(row->h24));
  CdceRegWrite(slotNo, 0x19, static_cast<u8>(row->h25));
  CdceRegWrite(slotNo, 0x1A, static_cast<u8>(row->h26));
  CdceRegWrite(slotNo, 0x1B, static_cast<u8>(row->h27));
}
