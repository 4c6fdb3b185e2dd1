// The calibration of a card's DAC: its thirteen register bytes, the meaning of their fields, and the
// procedures of a client of the chassis's calibration service. docs/calibration.md describes the datagram for
// authors of other clients.
#pragma once

#include <array>
#include <chrono>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "client/link.h"
#include "platform/types.h"

namespace client {

// --- The registers, as in the AD9775's data sheet ---

inline constexpr std::size_t kDacRegisters = 13;

// By register address, 0x00 to 0x0C. The EEPROM keeps them in the same order.
using DacRegisters = std::array<u8, kDacRegisters>;

struct DacGroup {
  const char* name;
  std::size_t first;  // register address
  std::size_t count;
};
inline constexpr std::array<DacGroup, 3> kDacGroups = {{
    {.name = "common", .first = 0x00, .count = 5},  // serial port, filters, data format, PLL
    {.name = "i", .first = 0x05, .count = 4},       // gain and offset of the I converter
    {.name = "q", .first = 0x09, .count = 4},
}};

// Of DacRegisters; const if they are.
template <typename Registers>
auto bytesOf(Registers& registers, const DacGroup& group) {
  return std::span(registers).subspan(group.first, group.count);
}

struct DacBits {
  std::size_t address = 0;
  unsigned low = 0;  // the lowest bit
  unsigned count = 0;
};

struct DacField {
  const char* name;
  DacBits bits;
  DacBits below{};                          // the bits under those, when the field spans two registers
  std::array<std::string_view, 8> names{};  // names of the values; none for a plain number
};

std::span<const DacField> dacFields();  // by address
unsigned fieldValue(const DacRegisters& registers, const DacField& field);
std::string fieldText(const DacRegisters& registers, const DacField& field);  // "8x", "512"

// The fields that have different values in the two sets.
std::vector<const DacField*> differingFields(const DacRegisters& a, const DacRegisters& b);

// Why the DAC could no longer communicate with its driver after these bytes, or empty. The driver sends MSB
// first over separate data lines, a software reset discards the bytes just loaded, and a data output with a
// clock on it has no data to read.
std::string portRisk(const DacRegisters& registers);

// --- The service ---

inline constexpr u16 kDefaultCalibrationPort = 49156;

// The way of datagrams to the service and back.
struct CalibrationLink : base::Interface {
  // A reply has no number, so one that comes late could pass for the answer to a later question: from here on
  // only replies to requests sent from here on are received. Throws Error.
  virtual void begin() = 0;
  virtual void send(std::span<const u8> datagram) = 0;  // throws Error
  // The next datagram; nullopt if none arrives within that time. Throws Error.
  virtual std::optional<Bytes> receive(std::chrono::nanoseconds time) = 0;
  virtual void wait(std::chrono::milliseconds time) = 0;
  virtual std::chrono::nanoseconds now() const = 0;
  virtual Error failure(const std::string& what) const = 0;  // with the service and advice
};

// Reads the DAC in this slot (from 0). A request without a reply is sent again each second, until `timeout`.
// Throws Error if no reply arrives.
DacRegisters readCalibration(CalibrationLink& link, u8 slot, std::chrono::milliseconds timeout);

// Sends the bytes to the DAC and the EEPROM, and returns when the card must have finished. The service does
// not confirm the write: read the values back. Throws Error if nothing can be sent.
void writeCalibration(CalibrationLink& link, u8 slot, const DacRegisters& registers);

}  // namespace client
