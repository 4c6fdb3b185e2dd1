#include "protocol/mib_rows.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <stdexcept>

#include "base/numbers.h"

namespace protocol {
namespace {

constexpr const char* kTextSyntax = "DisplayString (SIZE (0..15))";  // large enough for the card's texts

// clang-format off
constexpr MibText kTexts[] = {
    {kVarHardwareVersion, "HardwareVersion", kTextSyntax, "Version of the card's board."},
    {kVarSoftwareVersion, "SoftwareVersion", kTextSyntax, "Version of the card's software."},
    {kVarFpgaVersion, "FpgaVersion", kTextSyntax, "Version of the card's FPGA."},

    {kVarConstellation, "Constellation", "QamConstellation", "Constellation of both channels."},
    {kVarFrequency, "Frequency", "Integer32", "Carrier of channel 1. That of channel 2 is 8000 kHz above."},
    {kVarLevel, "Level", "QamTenthDBuV", "Output level of both channels."},
    {kVarQamSwitch, "RfSwitch", "QamRfSwitch", "Modulation of both channels."},
    {kVarPower, "PowerSwitch", "QamPowerSwitch", "Supplies of the output, for both channels."},
    {kVarSymbolRate, "SymbolRate", "Integer32", "Symbol rate of both channels."},

    {kVarConstellation2, "Ch2Constellation", "QamConstellation", "Constellation of channel 2: that of channel 1."},
    {kVarFrequency2, "Ch2Frequency", "Integer32", "Carrier of channel 2: 8000 kHz above that of channel 1."},
    {kVarLevel2, "Ch2Level", "QamTenthDBuV", "Output level of channel 2: that of channel 1."},
    {kVarQamSwitch2, "Ch2RfSwitch", "QamRfSwitch", "Modulation of channel 2: as that of channel 1."},
    {kVarPower2, "Ch2PowerSwitch", "QamPowerSwitch",
     "Supplies of channel 2's output, which are those of channel 1. A value that is written here is accepted "
     "and changes nothing: the switch of channel 1 is the one to write."},
    {kVarSymbolRate2, "Ch2SymbolRate", "Integer32", "Symbol rate of channel 2: that of channel 1."},
};
// clang-format on
static_assert(std::ranges::equal(kTexts, kMibRows, {}, &MibText::variable, &QamMibRow::variable));

}  // namespace

std::span<const MibText> mibTexts() {
  return kTexts;
}

std::string mibBaseText(std::span<const u32> base) {
  return fmt::format("{}", fmt::join(base, "."));
}

std::vector<u32> parseMibBase(std::string_view text) {
  const auto refuse = [&](const std::string& why) {
    throw std::invalid_argument(
        fmt::format("'{}' is no base: {}; right are ten numbers with dots between them, such as {}", text,
                    why, mibBaseText(kDefaultMibBase)));
  };
  std::vector<u32> base;
  for (std::size_t at = text.starts_with('.') ? 1 : 0; at <= text.size();) {
    const std::string_view component = text.substr(at, text.find('.', at) - at);
    const auto number = base::parseDecimal(component);
    const bool hasDigits =
        !component.empty() && component.find_first_not_of("0123456789") == std::string_view::npos;
    if (!number) refuse(hasDigits ? "a component is above 4294967295" : "a component is no number");
    base.push_back(*number);
    at += component.size() + 1;
  }
  if (base.size() != kMibBaseLength) refuse(fmt::format("it has {} components", base.size()));
  if (base[0] > 2) refuse("the first component is above 2");
  if (base[0] < 2 && base[1] > 39) refuse("the second component is above 39, behind a first of 0 or 1");
  // The first two are encoded as one 32-bit number.
  if (base[0] == 2 && base[1] > 0xFFFFFFFF - 80)
    refuse("the second component is above 4294967215, behind a first of 2");
  return base;
}

}  // namespace protocol
