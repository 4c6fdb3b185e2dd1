#include "client/calibration.h"

#include <fmt/format.h>

#include <algorithm>

namespace client {
namespace {

constexpr std::chrono::milliseconds kRepeat{1000};
// A write ends after thirteen EEPROM write cycles of at most 10 ms and the 100 ms until the service takes its
// next request.
constexpr std::chrono::milliseconds kSettle{500};

// clang-format off
constexpr std::array kFields = {
    DacField{"data direction",      {0x00, 7, 1}, {}, {"SDIO in only", "SDIO in and out"}},
    DacField{"bit order",           {0x00, 6, 1}, {}, {"MSB first", "LSB first"}},
    DacField{"software reset",      {0x00, 5, 1}, {}, {"off", "on"}},
    DacField{"sleep",               {0x00, 4, 1}, {}, {"off", "on"}},
    DacField{"power-down",          {0x00, 3, 1}, {}, {"off", "on"}},
    DacField{"reference resistors", {0x00, 2, 1}, {}, {"two", "one"}},
    DacField{"PLL lock",            {0x00, 1, 1}, {}, {"not locked", "locked"}},
    DacField{"interpolation",       {0x01, 6, 2}, {}, {"1x", "2x", "4x", "8x"}},
    DacField{"modulation",          {0x01, 4, 2}, {}, {"none", "fs/2", "fs/4", "fs/8"}},
    DacField{"zero stuffing",       {0x01, 3, 1}, {}, {"off", "on"}},
    DacField{"mixing",              {0x01, 2, 1}, {}, {"complex", "real"}},
    DacField{"modulation form",     {0x01, 1, 1}, {}, {"e^-jwt", "e^+jwt"}},
    DacField{"clock pin",           {0x01, 0, 1}, {}, {"PLL_LOCK", "DATACLK"}},
    DacField{"data format",         {0x02, 7, 1}, {}, {"two's complement", "straight binary"}},
    DacField{"data ports",          {0x02, 6, 1}, {}, {"two", "one"}},
    DacField{"DATACLK driver",      {0x02, 5, 1}, {}, {"weak", "strong"}},
    DacField{"DATACLK",             {0x02, 4, 1}, {}, {"plain", "inverted"}},
    DacField{"ONEPORTCLK",          {0x02, 2, 1}, {}, {"plain", "inverted"}},
    DacField{"IQSEL",               {0x02, 1, 1}, {}, {"plain", "inverted"}},
    DacField{"one-port order",      {0x02, 0, 1}, {}, {"I first", "Q first"}},
    DacField{"data rate clock at",  {0x03, 7, 1}, {}, {"DATACLK", "SPI_SDO"}},
    DacField{"PLL divider",         {0x03, 0, 2}, {}, {"1", "2", "4", "8"}},
    DacField{"PLL",                 {0x04, 7, 1}, {}, {"off", "on"}},
    DacField{"charge pump",         {0x04, 6, 1}, {}, {"automatic", "manual"}},
    DacField{"charge pump current", {0x04, 0, 3}, {},
             {"50 uA", "100 uA", "200 uA", "400 uA", "", "", "", "800 uA"}},
    DacField{"I fine gain",         {0x05, 0, 8}},
    DacField{"I coarse gain",       {0x06, 0, 4}},
    DacField{"I offset",            {0x07, 0, 8}, {0x08, 0, 2}},
    DacField{"I offset adds to",    {0x08, 7, 1}, {}, {"IOUTA", "IOUTB"}},
    DacField{"Q fine gain",         {0x09, 0, 8}},
    DacField{"Q coarse gain",       {0x0A, 0, 4}},
    DacField{"Q offset",            {0x0B, 0, 8}, {0x0C, 0, 2}},
    DacField{"Q offset adds to",    {0x0C, 7, 1}, {}, {"IOUTA", "IOUTB"}},
};
// clang-format on

unsigned bitsOf(const DacRegisters& registers, const DacBits& bits) {
  return (unsigned{registers.at(bits.address)} >> bits.low) & ((1U << bits.count) - 1);
}

}  // namespace

// --- The registers ---

std::span<const DacField> dacFields() {
  return kFields;
}

unsigned fieldValue(const DacRegisters& registers, const DacField& field) {
  return bitsOf(registers, field.bits) << field.below.count | bitsOf(registers, field.below);
}

std::string fieldText(const DacRegisters& registers, const DacField& field) {
  const unsigned value = fieldValue(registers, field);
  if (value < field.names.size() && !field.names.at(value).empty()) return std::string(field.names.at(value));
  return std::to_string(value);
}

std::vector<const DacField*> differingFields(const DacRegisters& a, const DacRegisters& b) {
  std::vector<const DacField*> differing;
  for (const DacField& field : kFields) {
    if (fieldValue(a, field) != fieldValue(b, field)) differing.push_back(&field);
  }
  return differing;
}

std::string portRisk(const DacRegisters& registers) {
  std::vector<std::string> risks;
  std::vector<std::string_view> set;
  for (const DacField& field : std::span(kFields).first(3)) {
    if (fieldValue(registers, field) != 0) set.emplace_back(field.name);
  }
  if (!set.empty()) {
    risks.push_back(fmt::format("0x{:02x} in register 0x00 changes the DAC's serial port ({})", registers[0],
                                fmt::join(set, ", ")));
  }
  constexpr u8 kClockAtOutput = 0x80;
  if ((registers[3] & kClockAtOutput) != 0) {
    risks.push_back(fmt::format("0x{:02x} in register 0x03 puts the data rate clock at the DAC's data output",
                                registers[3]));
  }
  return fmt::format("{}", fmt::join(risks, ", and "));
}

// --- The service ---

namespace {

constexpr std::size_t kHeaderSize = 2;  // command and slot

enum Command : u8 { kRead = 1, kWrite = 2 };

Bytes datagramOf(Command command, u8 slot, const DacRegisters& registers = {}) {
  Bytes datagram(kHeaderSize + registers.size());
  datagram[0] = command;
  datagram[1] = slot;
  std::ranges::copy(registers, datagram.begin() + kHeaderSize);
  return datagram;
}

}  // namespace

DacRegisters readCalibration(CalibrationLink& link, u8 slot, std::chrono::milliseconds timeout) {
  link.begin();
  const Bytes request = datagramOf(kRead, slot);
  const std::chrono::nanoseconds end = link.now() + timeout;
  int foreign = 0;
  do {
    link.send(request);
    const auto deadline = std::min<std::chrono::nanoseconds>(link.now() + kRepeat, end);
    while (const auto reply = link.receive(deadline - link.now())) {
      if (reply->size() == request.size() &&
          std::equal(request.begin(), request.begin() + kHeaderSize, reply->begin()))
        return base::recordOf<DacRegisters>(std::span(*reply).subspan(kHeaderSize));
      ++foreign;
    }
  } while (link.now() < end);
  const std::string other = foreign == 0 ? "" : fmt::format(" (but {} other datagrams)", foreign);
  throw link.failure(fmt::format("no reply for slot {} within {} ms{}", slot + 1, timeout.count(), other));
}

void writeCalibration(CalibrationLink& link, u8 slot, const DacRegisters& registers) {
  link.begin();
  link.send(datagramOf(kWrite, slot, registers));
  link.wait(kSettle);
}

}  // namespace client
