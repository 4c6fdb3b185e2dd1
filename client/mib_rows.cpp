#include "client/mib_rows.h"

namespace client {
namespace {

// clang-format off
constexpr MibRow kRows[] = {
    {{1, 19, 1, 1}, 52, false, "HardwareVersion", "Version of the card's board."},
    {{1, 19, 1, 2}, 49, false, "SoftwareVersion", "Version of the card's software."},
    {{1, 19, 1, 3}, 50, false, "FpgaVersion", "Version of the card's FPGA."},

    {{2, 51, 1, 3}, 33, true, "Constellation", "Constellation of both channels."},
    {{2, 51, 1, 4}, 30, true, "Frequency", "Carrier of channel 1. That of channel 2 is 8000 kHz above."},
    {{2, 51, 1, 5}, 31, true, "Level", "Output level of both channels."},
    {{2, 51, 1, 6}, 34, true, "RfSwitch", "Modulation of both channels."},
    {{2, 51, 1, 7}, 35, true, "PowerSwitch", "Supplies of the output, for both channels."},
    {{2, 51, 1, 8}, 32, true, "SymbolRate", "Symbol rate of both channels."},

    {{3, 51, 1, 11}, 41, false, "Ch2Constellation", "Constellation of channel 2: that of channel 1."},
    {{3, 51, 1, 12}, 38, false, "Ch2Frequency", "Carrier of channel 2: 8000 kHz above that of channel 1."},
    {{3, 51, 1, 13}, 39, false, "Ch2Level", "Output level of channel 2: that of channel 1."},
    {{3, 51, 1, 14}, 42, false, "Ch2RfSwitch", "Modulation of channel 2: as that of channel 1."},
    {{3, 51, 1, 15}, 43, true, "Ch2PowerSwitch",
     "Supplies of channel 2's output, which are those of channel 1. A value that is written here is accepted "
     "and changes nothing: the switch of channel 1 is the one to write."},
    {{3, 51, 1, 16}, 40, false, "Ch2SymbolRate", "Symbol rate of channel 2: that of channel 1."},
};
// clang-format on

}  // namespace

std::span<const MibRow> mibRows() {
  return kRows;
}

}  // namespace client
