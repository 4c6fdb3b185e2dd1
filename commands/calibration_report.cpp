#include "commands/calibration_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <stdexcept>

#include "base/files.h"
#include "base/numbers.h"

namespace commands {
namespace {

using client::DacField;
using client::DacGroup;
using client::DacRegisters;

constexpr auto kVersionKey = "dac_calibration";
constexpr int kVersion = 1;

std::string keyOf(const DacField& field) {
  std::string key;
  for (const char c : std::string_view(field.name)) {
    const auto byte = static_cast<unsigned char>(c);
    key += std::isalnum(byte) != 0 ? static_cast<char>(std::tolower(byte)) : '_';
  }
  return key;
}

Json fieldJson(const DacRegisters& registers, const DacField& field) {
  const unsigned value = client::fieldValue(registers, field);
  return field.names[0].empty() ? Json(value) : Json(client::fieldText(registers, field));
}

}  // namespace

std::string hexByte(u8 byte) {
  return fmt::format("0x{:02x}", byte);
}

u8 parseHexByte(const std::string& text) {
  const bool isMarked = text.starts_with("0x") || text.starts_with("0X");
  const std::string_view digits = std::string_view(text).substr(isMarked ? 2 : 0);
  const auto byte = base::parseDigits<u8>(digits, 16, 0xFF);
  if (!byte || digits.size() > 2)
    throw std::invalid_argument(fmt::format("'{}' is no byte in hex, 00 to ff", text));
  return *byte;
}

// --- Text ---

std::string calibrationText(const DacRegisters& registers) {
  std::string text;
  for (const DacGroup& group : client::kDacGroups) {
    text += fmt::format("  {:<6}  {:02x}\n", group.name, fmt::join(bytesOf(registers, group), " "));
  }
  for (std::size_t address = 0; address < registers.size(); ++address) {
    text += fmt::format("  0x{:02x}  {}", address, hexByte(registers.at(address)));
    const char* separator = "  ";
    for (const DacField& field : client::dacFields()) {
      if (field.bits.address != address) continue;  // an offset is listed with its upper bits
      text += fmt::format("{}{}: {}", separator, field.name, client::fieldText(registers, field));
      separator = "; ";
    }
    text += "\n";
  }
  return text;
}

std::string differenceText(const DacRegisters& from, const DacRegisters& to) {
  std::string text;
  const auto fields = client::differingFields(from, to);
  for (std::size_t address = 0; address < from.size(); ++address) {
    if (from.at(address) == to.at(address)) continue;
    text += fmt::format("  0x{:02x}  {} -> {}", address, hexByte(from.at(address)), hexByte(to.at(address)));
    std::string meaning;
    for (const DacField* field : fields) {
      const bool here =
          field->bits.address == address || (field->below.count != 0 && field->below.address == address);
      if (!here) continue;
      meaning += fmt::format("{}{}: {} -> {}", meaning.empty() ? "" : "; ", field->name,
                             client::fieldText(from, *field), client::fieldText(to, *field));
    }
    text += "  " + (meaning.empty() ? "reserved bits" : meaning) + "\n";
  }
  return text;
}

std::string doubts(const DacRegisters& registers) {
  if (std::ranges::all_of(registers, [](u8 byte) { return byte == 0xFF; })) {
    return "all registers are 0xff: the EEPROM is blank or does not answer";
  }
  return client::portRisk(registers);
}

// --- JSON ---

Json calibrationJson(u8 slot, const DacRegisters& registers) {
  Json json = {{kVersionKey, kVersion}, {"slot", slot + 1}};
  for (const DacGroup& group : client::kDacGroups) {
    Json bytes = Json::array();
    for (const u8 byte : bytesOf(registers, group)) bytes.push_back(hexByte(byte));
    json[group.name] = std::move(bytes);
  }
  for (const DacField& field : client::dacFields())
    json["fields"][keyOf(field)] = fieldJson(registers, field);
  return json;
}

namespace {

void parseGroup(const Json& json, const DacGroup& group, DacRegisters& registers) {
  const Json bytes = json.value(group.name, Json());
  if (!bytes.is_array() || bytes.size() != group.count) {
    throw std::runtime_error(fmt::format("\"{}\" must have {} bytes", group.name, group.count));
  }
  for (std::size_t n = 0; n < group.count; ++n) {
    if (!bytes[n].is_string()) {
      throw std::runtime_error(fmt::format(R"("{}" must hold texts such as "0x1f")", group.name));
    }
    bytesOf(registers, group)[n] = parseHexByte(bytes[n].get<std::string>());
  }
}

SavedCalibration parseCalibration(const std::string& text) {
  const Json json = Json::parse(text, nullptr, false);
  if (json.is_discarded()) throw std::runtime_error("is not JSON");
  if (!json.is_object() || json.value(kVersionKey, Json()) != kVersion) {
    throw std::runtime_error(fmt::format("is no calibration: \"{}\": {} is missing", kVersionKey, kVersion));
  }
  SavedCalibration saved{.slot = json.value("slot", Json())};
  for (const DacGroup& group : client::kDacGroups) parseGroup(json, group, saved.registers);
  const Json fields = json.value("fields", Json());
  for (const DacField& field : client::dacFields()) {
    const std::string key = keyOf(field);
    const Json meant = fieldJson(saved.registers, field);
    if (!fields.is_object() || !fields.contains(key) || fields[key] == meant) continue;
    throw std::runtime_error(
        fmt::format(R"("{}" is not what the bytes say ({}); change the bytes and leave "fields" out)", key,
                    meant.dump()));
  }
  return saved;
}

}  // namespace

SavedCalibration loadCalibration(const std::filesystem::path& file) {
  constexpr std::size_t kLongest = 65536;
  try {
    return parseCalibration(base::readFile(file, kLongest));
  } catch (const std::system_error& e) {
    throw std::runtime_error(fmt::format("{}: cannot be read: {}", file.string(), e.what()));
  } catch (const std::exception& e) {
    throw std::runtime_error(fmt::format("{}: {}", file.string(), e.what()));
  }
}

}  // namespace commands
