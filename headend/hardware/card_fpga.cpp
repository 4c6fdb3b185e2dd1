#include "headend/hardware/card_fpga.h"

namespace headend {
namespace {

// Byte offsets of the registers that do something here.
enum Register : u32 {
  kQamMode = 2,
  kSymbolRateFirst = 4,
  kSymbolRateLast = 10,
  kPsiData0 = 156,
  kPsiReady0 = 158,
  kPsiData1 = 172,
  kPsiReady1 = 174,
};

constexpr u16 kBlank = 0xFFFF;

// At reset the modulator runs with 6875 kBd and 64-QAM.
constexpr std::uint32_t kResetSymbolRate_kBd = 6875;
constexpr unsigned kResetBitsPerSymbol = 6;

constexpr std::array kNames = {
    "nrst",         "qam_mode",       "rf_off_hh",      "rf_off_hl",      "rf_off_lh",     "rf_off_ll",
    "att_q1_dat",   "att_q1_clk",     "att_q1_le",      "att_q2_dat",     "att_q2_clk",    "att_q2_le",
    "cdce925_scl",  "cdce925_sda",    "cdce925_s0",     "ad7414_sda",     "ad7414_scl",    "ad7414_alt",
    "ad9775_1_sdo", "ad9775_1_rst",   "ad9775_1_clk",   "ad9775_1_cs",    "ad9775_1_sdio", "ad9775_2_sdo",
    "ad9775_2_rst", "ad9775_2_clk",   "ad9775_2_cs",    "ad9775_2_sdio",  "q1_12v_ctrl",   "q1_5v_ctrl",
    "q2_12v_ctrl",  "q2_5v_ctrl",     "lo1_dat",        "lo1_clk",        "lo1_ref",       "lo1_mo",
    "lo1_le",       "lo2_q1_dat",     "lo2_q1_clk",     "lo2_q1_ref",     "lo2_q1_mo",     "lo2_q1_le",
    "lo2_q2_dat",   "lo2_q2_clk",     "lo2_q2_ref",     "lo2_q2_mo",      "lo2_q2_le",     "rf0_en",
    "rf1_en",       "X24C16SDA",      "X24C16SCL",      "power",          "qamen",         "version",
    "plllock",      "tslock",         "rate_ctrl_rst",  "Valid_0_rateL",  "Valid_0_rateM", "Valid_0_rateH",
    "Sys_0_rateL",  "Sys_0_rateH",    "Valid_1_rateL",  "Valid_1_rateM",  "Valid_1_rateH", "Sys_1_rateL",
    "Sys_1_rateH",  "ext_ad7414_sda", "ext_ad7414_scl", "ext_ad7414_alt", "Card_No",       "oport_num0",
    "oport_num1",   "pkt_len0",       "Orate0_0",       "Orate0_1",       "Orate0_2",      "Orate0_3",
    "PsiData0",     "PsiRdy0",        "reserved",       "pkt_len1",       "Orate1_0",      "Orate1_1",
    "Orate1_2",     "Orate1_3",       "PsiData1",       "PsiRdy1",
};
constexpr std::array kMapNames = {"oldpid_l", "oldpid_h", "newpid_l", "newpid_h",
                                  "addr",     "we",       "mode",     "reserved0"};
constexpr std::array kFilterNames = {"filter_onoff", "filter_we", "filter_pid_l", "filter_pid_h"};
constexpr u32 kReserveFirst = 176;
constexpr u32 kTestFirst = 200;
constexpr u32 kMapFirst = 230;
constexpr u32 kFilterFirst = 262;
static_assert(kNames.size() * 2 == kReserveFirst);

unsigned bitsPerSymbol(u16 code) {
  switch (code) {
    case 6:
      return 7;  // 128-QAM
    case 7:
      return 8;  // 256-QAM
    default:
      return kResetBitsPerSymbol;
  }
}

}  // namespace

CardFpga::CardFpga(const FpgaConfiguration::Settings& settings, Violations& violations)
    : configuration_(settings, violations),
      psiPorts_{PsiPort(outputs_[0], violations), PsiPort(outputs_[1], violations)} {
  configuration_.onChange([this](bool configured, Nanos now) {
    if (configured) {
      startUp(now);
    } else {
      becomeBlank(now);
    }
    if (onConfiguration_) onConfiguration_(configured, now);
  });
}

void CardFpga::becomeBlank(Nanos now) {
  for (Multiplexer& output : outputs_) output.stop(now);
}

void CardFpga::startUp(Nanos now) {
  cells_.fill(0);
  for (PsiPort& port : psiPorts_) port.reset();
  for (Multiplexer& output : outputs_) output.start(now, programmedRate());
}

u16 CardFpga::read(u32 offset, Nanos now) {
  if (!configuration_.done()) return kBlank;
  switch (offset) {
    case kPsiReady0:
      return outputs_[0].psiHasRoom(now) ? 1 : 0;
    case kPsiReady1:
      return outputs_[1].psiHasRoom(now) ? 1 : 0;
    default:
      return cells_[offset / 2];
  }
}

void CardFpga::write(u32 offset, u16 value, Nanos now) {
  if (!configuration_.done()) return;
  switch (offset) {
    case kPsiData0:
      psiPorts_[0].write(value, now);
      return;
    case kPsiData1:
      psiPorts_[1].write(value, now);
      return;
    default:
      break;
  }
  cells_[offset / 2] = value;
  if (offset >= kQamMode && offset <= kSymbolRateLast) applyModulation(now);
}

void CardFpga::applyModulation(Nanos now) {
  for (Multiplexer& output : outputs_) output.setRate(now, programmedRate());
}

// The symbol-rate word is 2^26 * 1000 over the rate in kBd, a byte a register; the rate is a whole number of
// kBd.
BitRate CardFpga::programmedRate() const {
  std::uint32_t word = 0;
  for (u32 offset = kSymbolRateFirst; offset <= kSymbolRateLast; offset += 2) {
    word = word << 8 | (cells_[offset / 2] & 0xFFU);
  }
  std::uint32_t rate_kBd = kResetSymbolRate_kBd;
  if (word != 0) {
    constexpr std::uint64_t kScale = (std::uint64_t{1} << 26) * 1000;
    rate_kBd = static_cast<std::uint32_t>((kScale + word / 2) / word);
  }
  return BitRate::ofModulation(rate_kBd, bitsPerSymbol(cells_[kQamMode / 2]));
}

void CardFpga::advanceOutputs(Nanos now) {
  for (Multiplexer& output : outputs_) output.advance(now);
}

const char* CardFpga::registerName(u32 offset) const {
  if (offset < kReserveFirst) return kNames[offset / 2];
  if (offset < kTestFirst) return "reserve";
  if (offset < kMapFirst) return "Test";
  if (offset < kFilterFirst) return kMapNames[(offset - kMapFirst) / 2 % kMapNames.size()];
  return kFilterNames[(offset - kFilterFirst) / 2 % kFilterNames.size()];
}

}  // namespace headend
