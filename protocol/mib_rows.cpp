#include "protocol/mib_rows.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <charconv>
#include <stdexcept>

#include "card/qamVariables.h"

namespace protocol {
namespace {

// clang-format off
constexpr MibRow kRows[] = {
    {{1, 19, 1, 1}, kVarHardwareVersion, false, "HardwareVersion", "Version of the card's board."},
    {{1, 19, 1, 2}, kVarSoftwareVersion, false, "SoftwareVersion", "Version of the card's software."},
    {{1, 19, 1, 3}, kVarFpgaVersion, false, "FpgaVersion", "Version of the card's FPGA."},

    {{2, 51, 1, 3}, kVarConstellation, true, "Constellation", "Constellation of both channels."},
    {{2, 51, 1, 4}, kVarFrequency, true, "Frequency", "Carrier of channel 1. That of channel 2 is 8000 kHz above."},
    {{2, 51, 1, 5}, kVarLevel, true, "Level", "Output level of both channels."},
    {{2, 51, 1, 6}, kVarQamSwitch, true, "RfSwitch", "Modulation of both channels."},
    {{2, 51, 1, 7}, kVarPower, true, "PowerSwitch", "Supplies of the output, for both channels."},
    {{2, 51, 1, 8}, kVarSymbolRate, true, "SymbolRate", "Symbol rate of both channels."},

    {{3, 51, 1, 11}, kVarConstellation2, false, "Ch2Constellation", "Constellation of channel 2: that of channel 1."},
    {{3, 51, 1, 12}, kVarFrequency2, false, "Ch2Frequency", "Carrier of channel 2: 8000 kHz above that of channel 1."},
    {{3, 51, 1, 13}, kVarLevel2, false, "Ch2Level", "Output level of channel 2: that of channel 1."},
    {{3, 51, 1, 14}, kVarQamSwitch2, false, "Ch2RfSwitch", "Modulation of channel 2: as that of channel 1."},
    {{3, 51, 1, 15}, kVarPower2, true, "Ch2PowerSwitch",
     "Supplies of channel 2's output, which are those of channel 1. A value that is written here is accepted "
     "and changes nothing: the switch of channel 1 is the one to write."},
    {{3, 51, 1, 16}, kVarSymbolRate2, false, "Ch2SymbolRate", "Symbol rate of channel 2: that of channel 1."},
};
// clang-format on

}  // namespace

std::span<const MibRow> mibRows() {
  return kRows;
}

std::string mibBaseText(std::span<const u32> base) {
  return fmt::format("{}", fmt::join(base, "."));
}

std::vector<u32> parseMibBase(std::string_view text) {
  const auto wrong = [&](const std::string& why) {
    return std::invalid_argument(
        fmt::format("'{}' is no base: {}; right are ten numbers with dots between them, such as {}", text,
                    why, mibBaseText(kDefaultMibBase)));
  };
  std::vector<u32> base;
  const char* at = text.data();
  const char* const end = at + text.size();
  if (text.starts_with('.')) ++at;
  for (;;) {
    u32 component = 0;
    const auto [stop, error] = std::from_chars(at, end, component);
    if (error == std::errc::result_out_of_range) throw wrong("a component is above 4294967295");
    if (error != std::errc() || (stop != end && *stop != '.')) throw wrong("a component is no number");
    base.push_back(component);
    if (stop == end) break;
    at = stop + 1;
  }
  if (base.size() != kMibBaseLength) throw wrong(fmt::format("it has {} components", base.size()));
  if (base[0] > 2) throw wrong("the first component is above 2");
  if (base[0] < 2 && base[1] > 39) throw wrong("the second component is above 39, behind a first of 0 or 1");
  // The first two are encoded as one 32-bit number.
  if (base[0] == 2 && base[1] > 0xFFFFFFFF - 80)
    throw wrong("the second component is above 4294967215, behind a first of 2");
  return base;
}

}  // namespace protocol
