// cal: reads and writes the calibration of a card's DAC over the chassis's calibration service.
#include <fmt/chrono.h>
#include <fmt/format.h>

#include <fmt/ranges.h>

#include <algorithm>
#include <ctime>
#include <stdexcept>
#include <vector>

#include "client/calibration.h"
#include "commands/command.h"
#include "commands/json_fields.h"

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

std::string hexByte(u8 byte) {
  return fmt::format("0x{:02x}", byte);
}

// One byte in hex, as "1f" or "0x1f".
u8 parseHexByte(const std::string& text) {
  const bool isMarked = text.starts_with("0x") || text.starts_with("0X");
  const std::string_view digits = std::string_view(text).substr(isMarked ? 2 : 0);
  const auto byte = base::parseDigits<u8>(digits, 16, 0xFF);
  return valid(digits.size() > 2 ? std::nullopt : byte, text, "byte in hex, 00 to ff");
}

// --- The report

// The bytes by group, then the meaning of each register.
std::string calibrationText(const DacRegisters& registers) {
  std::string text;
  for (const DacGroup& group : client::kDacGroups)
    text += fmt::format("  {:<6}  {:02x}\n", group.name, fmt::join(bytesOf(registers, group), " "));
  for (std::size_t address = 0; address < registers.size(); ++address) {
    std::vector<std::string> meaning;
    for (const DacField& field : client::dacFields()) {
      if (field.bits.address == address)  // an offset is listed with its upper bits
        meaning.push_back(fmt::format("{}: {}", field.name, client::fieldText(registers, field)));
    }
    text += fmt::format("  0x{:02x}  {}{}{}\n", address, hexByte(registers.at(address)),
                        meaning.empty() ? "" : "  ", fmt::join(meaning, "; "));
  }
  return text;
}

// One line per different register, with the different fields: "0x05  0x10 -> 0x12  I fine gain: 16 -> 18".
std::string differenceText(const DacRegisters& from, const DacRegisters& to) {
  std::string text;
  for (std::size_t address = 0; address < from.size(); ++address) {
    if (from.at(address) == to.at(address)) continue;
    std::vector<std::string> meaning;
    for (const DacField* field : client::differingFields(from, to)) {
      if (field->bits.address == address || (field->below.count != 0 && field->below.address == address))
        meaning.push_back(fmt::format("{}: {} -> {}", field->name, client::fieldText(from, *field),
                                      client::fieldText(to, *field)));
    }
    if (meaning.empty()) meaning.emplace_back("reserved bits");
    text += fmt::format("  0x{:02x}  {} -> {}  {}\n", address, hexByte(from.at(address)),
                        hexByte(to.at(address)), fmt::join(meaning, "; "));
  }
  return text;
}

void noteDoubts(Session& session, const DacRegisters& registers) {
  if (std::ranges::all_of(registers, [](u8 byte) { return byte == 0xFF; }))
    session.note("all registers are 0xff: the EEPROM is blank or does not answer");
  else if (const std::string risk = client::portRisk(registers); !risk.empty())
    session.note(risk);
}

// The bytes by group, and their meaning as "fields". The slot is the one they were read from, from 0.
Json calibrationJson(u8 slot, const DacRegisters& registers) {
  Json json = {{kVersionKey, kVersion}, {"slot", slot + 1}};
  for (const DacGroup& group : client::kDacGroups) {
    for (const u8 byte : bytesOf(registers, group)) json[group.name].push_back(hexByte(byte));
  }
  for (const DacField& field : client::dacFields())
    json["fields"][keyOf(field)] = fieldJson(registers, field);
  return json;
}

// --- The file, which is the output of calibrationJson

void parseGroup(const Json& bytes, const DacGroup& group, DacRegisters& registers) {
  if (!bytes.is_array() || bytes.size() != group.count)
    throw std::runtime_error(fmt::format("\"{}\" must have {} bytes", group.name, group.count));
  for (std::size_t n = 0; n < group.count; ++n) {
    if (!bytes[n].is_string())
      throw std::runtime_error(fmt::format(R"("{}" must hold texts such as "0x1f")", group.name));
    bytesOf(registers, group)[n] = parseHexByte(bytes[n]);
  }
}

struct SavedCalibration {
  Json slot;  // from 1, if the file gives it
  DacRegisters registers{};
};

// "fields" may be absent, but if present must match the bytes, because a user may have edited it.
SavedCalibration parseCalibration(const Json& json) {
  if (member(json, kVersionKey) != kVersion) {
    throw std::runtime_error(fmt::format("is no calibration: \"{}\": {} is missing", kVersionKey, kVersion));
  }
  SavedCalibration saved{.slot = member(json, "slot")};
  for (const DacGroup& group : client::kDacGroups)
    parseGroup(member(json, group.name), group, saved.registers);
  const Json fields = member(json, "fields");
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

// --- The commands

std::string timeNow() {
  return fmt::format("{:%H:%M:%S}", fmt::localtime(std::time(nullptr)));
}

struct Calibrate : Command {
  void describe(Form& form) final {
    takeSlot(form);
    describeMore(form);
  }
  virtual void describeMore(Form& /*form*/) {}  // behind the slot

  DacRegisters read(Session& session) const {
    return client::readCalibration(session.calibration(), card(), milliseconds(timeout_s));
  }

  void show(Session& session, const DacRegisters& registers) const {
    session.print(json ? jsonText(calibrationJson(card(), registers))
                       : fmt::format("slot {}\n{}", slot() + 1, calibrationText(registers)));
    noteDoubts(session, registers);
  }

  u8 card() const { return static_cast<u8>(slot()); }
};

struct CalRead final : Calibrate {
  void carryOut(Session& session) override { show(session, read(session)); }
};

struct CalSave final : Calibrate {
  void describeMore(Form& form) override {
    takeFile(form, Option("file", "FILE.json", "the file to write").required(), file_, true);
  }
  void carryOut(Session& session) override {
    const DacRegisters registers = read(session);
    const std::string text = calibrationJson(card(), registers).dump(2) + "\n";
    saveFile(file_, base::Bytes(text.begin(), text.end()));
    noteDoubts(session, registers);
  }

  std::string file_;
};

// Write and restore. Nothing is sent unless the DAC's values can be read: registers that are not given keep
// them.
struct CalChange : Calibrate {
  void carryOut(Session& session) override {
    const DacRegisters before = read(session);
    const DacRegisters wanted = changed(before);
    const std::string risk = client::portRisk(wanted);
    if (!risk.empty() && !force_) {
      throw std::runtime_error(
          fmt::format("slot {}: nothing was written: {}, and the card may then no longer reach the DAC; give "
                      "other common bytes, or --force",
                      slot() + 1, risk));
    }
    client::writeCalibration(session.calibration(), card(), wanted);
    try {
      reportWrite(session, before, wanted, read(session));
    } catch (const client::Error& e) {
      throw std::runtime_error(fmt::format("written, but it could not be read back: {}", e.what()));
    }
  }

  void describeMore(Form& form) override {
    form.flag("--force",
              "write also what puts the DAC's serial port at risk: bits 7 to 5 of register 0x00 (data "
              "direction, bit order, software reset), bit 7 of register 0x03 (a clock at the data output)",
              force_);
  }

  virtual DacRegisters changed(DacRegisters registers) const = 0;

  void reportWrite(Session& session, const DacRegisters& before, const DacRegisters& wanted,
                   const DacRegisters& after) const {
    if (json) {
      session.print(jsonText({{"before", calibrationJson(card(), before)},
                              {"written", calibrationJson(card(), wanted)},
                              {"read_back", calibrationJson(card(), after)},
                              {"equal", after == wanted}}));
    }
    if (after != wanted) {
      throw std::runtime_error(
          fmt::format("slot {}: the DAC reads back other bytes than written:\n{}{}", slot() + 1,
                      differenceText(wanted, after),
                      after == before ? "the DAC has its old values: the request was lost; write again"
                                      : "read again; another client may have written, or the DAC is faulty"));
    }
    if (!json) {
      session.print(fmt::format("slot {}: 13 bytes written, and the DAC reads back the same.\n{}", slot() + 1,
                                differenceText(before, wanted)));
    }
    if (before == wanted) {
      session.note(
          "the DAC had these values before, so the read-back does not show that the request came through");
    }
    session.note(
        fmt::format("this proves the DAC, not the EEPROM: restart the card and 'qamcal read {}' to see that "
                    "the EEPROM kept them",
                    slot() + 1));
  }

  bool force_ = false;
};

struct CalWrite final : CalChange {
  void describeMore(Form& form) override {
    for (std::size_t n = 0; n < client::kDacGroups.size(); ++n) {
      const client::DacGroup& group = client::kDacGroups.at(n);
      const int count = static_cast<int>(group.count);
      form.values(Option(fmt::format("--{}", group.name), "BYTE",
                         fmt::format("registers 0x{:02x} to 0x{:02x}; without it they keep their values",
                                     group.first, group.first + group.count - 1))
                      .count(count, count),
                  groups_.at(n), parseHexByte);
    }
    CalChange::describeMore(form);
  }

  void prepare(Surroundings& /*surroundings*/) override {
    if (std::ranges::all_of(groups_, [](const auto& bytes) { return bytes.empty(); }))
      throw WrongCall("write needs at least one of --common, --i and --q");
  }

  DacRegisters changed(DacRegisters registers) const override {
    for (std::size_t n = 0; n < groups_.size(); ++n)
      std::ranges::copy(groups_.at(n), bytesOf(registers, client::kDacGroups.at(n)).begin());
    return registers;
  }

  std::array<std::vector<u8>, client::kDacGroups.size()> groups_;  // empty for a group that is not given
};

struct CalRestore final : CalChange {
  void describeMore(Form& form) override {
    takeFile(form, Option("file", "FILE.json", "a file that save wrote").required(), file_, false);
    CalChange::describeMore(form);
  }

  void prepare(Surroundings& surroundings) override {
    saved_ = fromJsonFile(file_, parseCalibration);
    if (saved_.slot != slot() + 1)
      surroundings.notes.push_back(fmt::format("{} was not saved from slot {}", file_, slot() + 1));
  }

  DacRegisters changed(DacRegisters /*registers*/) const override { return saved_.registers; }

  std::string file_;
  SavedCalibration saved_;
};

struct CalWatch final : Calibrate {
  void describeMore(Form& form) override {
    // The service takes a request every 100 ms.
    form.number(Option("--every", "S", "seconds between two looks"), every_s_, 0.1, 3600);
  }

  void carryOut(Session& session) override {
    session.holdSignals(true);
    DacRegisters last = read(session);
    show(session, last);
    for (bool answered = true; session.pause(milliseconds(every_s_));) {
      try {
        const DacRegisters now = read(session);
        if (!answered) session.note(timeNow() + " the service answers again");
        if (now != last) showChange(session, last, now);
        last = now;
        answered = true;
      } catch (const client::Error& e) {
        if (answered) session.note(fmt::format("{} {}", timeNow(), e.what()));
        answered = false;
      }
    }
  }

  void showChange(Session& session, const DacRegisters& from, const DacRegisters& to) const {
    Json line = calibrationJson(card(), to);
    line["time"] = timeNow();
    session.print(json ? line.dump() + "\n" : fmt::format("{}\n{}", timeNow(), differenceText(from, to)));
  }

  double every_s_ = 1;
};

void describeShared(Form& form, Shared& shared) {
  form.number(Option("--timeout", "S", "seconds to wait for a reply; asked again each second"),
              shared.timeout_s, 0.05, 600);
  form.flag("--json", "as JSON", shared.json);
}

}  // namespace

Group calibrationCommands() {
  return {
      .name = "cal",
      .text = "The calibration of a card's DAC (qamcal is another name for it)",
      .footer =
          "N is the slot of the card, 1 to 6. Bytes are in hex: registers 0x00 to 0x04 of the DAC are "
          "common, 0x05 to\n"
          "0x08 gain and offset of I, 0x09 to 0x0c those of Q. The service asks for no password: every user "
          "who reaches it\n"
          "may calibrate.\n"
          "\n"
          "Examples:\n"
          "  qamcal read 1\n"
          "  qamcal write 1 --i 10 0f 40 00 --q 0c 0f 00 00\n"
          "  qamcal write 1 --common 00 04 00 00 00\n"
          "  qamcal save 1 card.json\n"
          "  qamcal --server 192.0.2.7:49156 restore 1 card.json\n"
          "  qamcal watch 1 --every 5\n"
          "\n"
          "Exit codes: 0 done; 1 the request could not be carried out (no reply, the DAC reads back "
          "something else, values\n"
          "that need --force, file error); 2 wrong call.",
      .commands = {{"read", "Show what the DAC holds", make<CalRead>, Needs::kCalibration},
                   {"write", "Write the DAC and the EEPROM, and read the DAC back", make<CalWrite>,
                    Needs::kCalibration},
                   {"save", "Save what the DAC holds to a file", make<CalSave>, Needs::kCalibration},
                   {"restore", "Write what a file holds, as write does", make<CalRestore>,
                    Needs::kCalibration},
                   {"watch", "Show what the DAC holds, then each change until Ctrl-C", make<CalWatch>,
                    Needs::kCalibration, true}},
      .describe = describeShared};
}

}  // namespace commands
