#include "headend/hardware/card_fpga.h"

#include <utility>

namespace headend {
namespace {

constexpr u16 kBlank = 0xFFFF;
constexpr u16 kVersion = 5;

constexpr u32 kReset = offsetOf("nrst");
constexpr u32 kConstellation = offsetOf("qam_mode");
constexpr u32 kSymbolRateFirst = offsetOf("rf_off_hh");
constexpr u32 kSymbolRateLast = offsetOf("rf_off_ll");
constexpr u32 kPower = offsetOf("power");
constexpr u32 kRateGate = offsetOf("rate_ctrl_rst");
constexpr u32 kRatesFirst = offsetOf("Valid_0_rateL");
constexpr u32 kRatesLast = offsetOf("Sys_1_rateH");
constexpr u32 kRatesOfChannel = offsetOf("Valid_1_rateL") - kRatesFirst;
constexpr std::array kPsiData = {offsetOf("PsiData0"), offsetOf("PsiData1")};
constexpr std::array kPsiReady = {offsetOf("PsiRdy0"), offsetOf("PsiRdy1")};
constexpr std::array kPacketLength = {offsetOf("pkt_len0"), offsetOf("pkt_len1")};
constexpr std::array kFilterPass = {offsetOf("qampidfilter0_filter_onoff"),
                                    offsetOf("qampidfilter1_filter_onoff")};
constexpr std::array kFilterStrobe = {offsetOf("qampidfilter0_filter_we"),
                                      offsetOf("qampidfilter1_filter_we")};
constexpr std::array kFilterPidLow = {offsetOf("qampidfilter0_filter_pid_l"),
                                      offsetOf("qampidfilter1_filter_pid_l")};
constexpr std::array kFilterPidHigh = {offsetOf("qampidfilter0_filter_pid_h"),
                                       offsetOf("qampidfilter1_filter_pid_h")};
constexpr std::array kPort = {offsetOf("oport_num0"), offsetOf("oport_num1")};

}  // namespace

CardFpga::CardFpga(const FpgaConfiguration::Settings& settings, Violations& violations)
    : configuration_(settings, violations),
      violations_(violations),
      board_(violations, settings.seed),
      psiPorts_{PsiPort(outputs_[0], violations), PsiPort(outputs_[1], violations)} {
  configuration_.onChange([this](bool configured, Nanos now) {
    if (configured) startUp(now);
    for (Multiplexer& output : outputs_) configured ? output.start(now, modulator_.rate()) : output.stop(now);
    if (onConfiguration_) onConfiguration_(configured, now);
  });
}

// Every register is 0 and every line low.
void CardFpga::startUp(Nanos now) {
  cells_.fill(0);
  board_.pullAllLow(now);
  rateCounters_ = {};
  modulator_.powerUp();
  for (PsiPort& port : psiPorts_) port.reset();
}

u16 CardFpga::read(u32 offset, Nanos now) {
  const u16 value = configuration_.done() ? level(offset, now) : kBlank;
  if (onRegister_) onRegister_(offset, value, now);
  return value;
}

u16 CardFpga::level(u32 offset, Nanos now) {
  if (const std::optional<bool> line = board_.sense(offset, now)) return *line ? 1 : 0;
  if (offset >= kRatesFirst && offset <= kRatesLast) return rateCount(offset - kRatesFirst, now);
  switch (offset) {
    case kPsiReady[0]:
      return outputs_[0].psiHasRoom(now) ? 1 : 0;
    case kPsiReady[1]:
      return outputs_[1].psiHasRoom(now) ? 1 : 0;
    case offsetOf("version"):
      return kVersion;
    case offsetOf("plllock"):
      return static_cast<u16>((board_.firstOscillator.muxout(now) ? 1 : 0) |
                              (board_.secondOscillator.muxout(now) ? 2 : 0));
    case offsetOf("tslock"):
      return lostInputs(now);
    default:
      return cell(offset);
  }
}

u16 CardFpga::lostInputs(Nanos now) const {
  if (!onInputLost_) return 0;
  return static_cast<u16>((onInputLost_(0, now) ? 1 : 0) | (onInputLost_(1, now) ? 2 : 0));
}

// A byte per register: three of the count of bytes from the lowest on, then two of the count of null packets.
u16 CardFpga::rateCount(u32 offset, Nanos now) {
  const std::size_t channel = offset / kRatesOfChannel;
  outputs_[channel].advance(now);
  const auto& [open, begin, end] = rateCounters_[channel];
  const Multiplexer::Counts& counts = open ? outputs_[channel].counts() : end;
  const u32 index = offset % kRatesOfChannel / 2;
  return (index < 3 ? (counts.total() - begin.total()) * kTsPacketSize >> 8 * index
                    : (counts.null - begin.null) >> 8 * (index - 3)) &
         0xFF;
}

void CardFpga::openRateGate(bool open, Nanos now) {
  advanceOutputs(now);
  for (std::size_t channel = 0; channel < MAX_QAM_OUT_NUM; ++channel) {
    RateCounter& counter = rateCounters_[channel];
    if (std::exchange(counter.open, open) != open)
      (open ? counter.begin : counter.end) = outputs_[channel].counts();
  }
}

void CardFpga::write(u32 offset, u16 value, Nanos now) {
  if (!configuration_.done()) {
    if (onRegister_) onRegister_(offset, kBlank, now);
    return;
  }
  const CardRegister& reg = cardRegister(offset);
  if (!reg.isDrivers()) {
    violations_.count("write_to_register_of_the_card");
    return;
  }
  const u16 before = std::exchange(cells_[offset / 2], value);
  if (reg.isLine()) board_.drive(offset, (value & 1) != 0, now);
  act(offset, before, value, now);
  if (!onRegister_) return;
  onRegister_(offset, level(offset, now), now);
  if (const auto other = board_.companion(offset)) onRegister_(*other, level(*other, now), now);
}

void CardFpga::act(u32 offset, u16 before, u16 value, Nanos now) {
  switch (offset) {
    case kReset:
      if (!modulator_.reset(value)) return;
      for (Multiplexer& output : outputs_) output.setRate(now, modulator_.rate());
      return;
    case kConstellation:
      return modulator_.constellationCode(value);
    case kPower:
      if (before == 0 && value != 0) board_.takeIntoUse();
      return;
    case kRateGate:
      return openRateGate((value & 1) != 0, now);
    case kPsiData[0]:
      return psiPorts_[0].write(value, now);
    case kPsiData[1]:
      return psiPorts_[1].write(value, now);
    case kFilterStrobe[0]:
    case kFilterStrobe[1]:
      if ((~before & value & 1) != 0) setFilter(offset == kFilterStrobe[0] ? 0 : 1, now);
      return;
    default:
      if (offset >= kSymbolRateFirst && offset <= kSymbolRateLast) {
        modulator_.symbolRateByte((offset - kSymbolRateFirst) / 2, value);
      }
  }
}

void CardFpga::setFilter(std::size_t channel, Nanos now) {
  const u32 pid = (cell(kFilterPidHigh[channel]) & 0x1FU) << 8 | (cell(kFilterPidLow[channel]) & 0xFFU);
  outputs_[channel].setPass(now, static_cast<u16>(pid), (cell(kFilterPass[channel]) & 1) != 0);
}

void CardFpga::advanceOutputs(Nanos now) {
  for (Multiplexer& output : outputs_) output.advance(now);
}

RfOutput CardFpga::rf(std::size_t channel, Nanos now) const {
  const RfSwitches switches{.configured = configuration_.done(),
                            .power = cell(kPower),
                            .rfDisabled = (cell(offsetOf("rf0_en")) & 1) != 0,
                            .lowerBand = (cell(offsetOf("q1_12v_ctrl")) & 1) != 0,
                            .packetLength = cell(kPacketLength[channel]),
                            .port = cell(kPort[channel])};
  return rfOutput(channel, switches, modulator_, board_, now);
}

}  // namespace headend
