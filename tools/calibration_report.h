// How qamcal shows the calibration of a DAC, and the file in which it keeps one.
#pragma once

#include <filesystem>
#include <string>

#include "client/calibration.h"
#include "tools/psi_decode.h"

namespace tools {

std::string hexByte(u8 byte);  // "0x1f"

// Throws std::invalid_argument unless the text is one byte in hex, as "1f" or "0x1f".
u8 parseHexByte(const std::string& text);

// The bytes by group, then register by register what they mean.
std::string calibrationText(const client::DacRegisters& registers);

// One line a register that differs, with the fields that do: "0x05  0x10 -> 0x12  I fine gain: 16 -> 18".
std::string differenceText(const client::DacRegisters& from, const client::DacRegisters& to);

// What is doubtful about bytes that a card holds: one line each, or nothing.
std::string doubts(const client::DacRegisters& registers);

// The bytes by group, and what they mean as "fields". The slot is the one they were read from, from 0.
Json calibrationJson(u8 slot, const client::DacRegisters& registers);

// Of calibrationJson. "fields" may be absent, but what it says must be what the bytes mean, for someone may
// have edited it. Throws std::runtime_error with the file's name and what is wrong.
struct SavedCalibration {
  Json slot;  // from 1, if the file says so
  client::DacRegisters registers{};
};
SavedCalibration loadCalibration(const std::filesystem::path& file);

}  // namespace tools
