// The reports of qamcal about the calibration of a DAC, and its calibration file.
#pragma once

#include <filesystem>
#include <string>

#include "client/calibration.h"
#include "commands/json_fields.h"

namespace commands {

std::string hexByte(u8 byte);  // "0x1f"

// Throws std::invalid_argument unless the text is one byte in hex, as "1f" or "0x1f".
u8 parseHexByte(const std::string& text);

// The bytes by group, then the meaning of each register.
std::string calibrationText(const client::DacRegisters& registers);

// One line per different register, with the different fields: "0x05  0x10 -> 0x12  I fine gain: 16 -> 18".
std::string differenceText(const client::DacRegisters& from, const client::DacRegisters& to);

// Warnings about the bytes of a card: one line each, or none.
std::string doubts(const client::DacRegisters& registers);

// The bytes by group, and their meaning as "fields". The slot is the one they were read from, from 0.
Json calibrationJson(u8 slot, const client::DacRegisters& registers);

// Reads the output of calibrationJson. "fields" may be absent, but if present must match the bytes, because a
// user may have edited it. Throws std::runtime_error with the file's name and the error.
struct SavedCalibration {
  Json slot;  // from 1, if the file gives it
  client::DacRegisters registers{};
};
SavedCalibration loadCalibration(const std::filesystem::path& file);

}  // namespace commands
