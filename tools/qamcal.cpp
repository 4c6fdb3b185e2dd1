// qamcal: reads and writes the calibration of a card's DAC over the chassis's calibration service. Exit
// codes: 0 done; 1 the request could not be carried out; 2 wrong call.
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <exception>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tools/calibration_report.h"
#include "tools/commands.h"
#include "tools/save_file.h"

namespace {

using client::DacRegisters;
using tools::Json;
using Seconds = std::chrono::duration<double>;

constexpr const char* kFooter =
    "N is the slot of the card, 1 to 6. Bytes are in hex: registers 0x00 to 0x04 of the DAC are common, 0x05 "
    "to\n"
    "0x08 gain and offset of I, 0x09 to 0x0c those of Q. The service asks for no password: whoever reaches "
    "it\n"
    "may calibrate.\n"
    "\n"
    "Examples:\n"
    "  qamcal read 1\n"
    "  qamcal write 1 --i 10 0f 40 00 --q 0c 0f 00 00\n"
    "  qamcal write 1 --common 04 00 00 00 00\n"
    "  qamcal save 1 card.json\n"
    "  qamcal --server 192.0.2.7:49156 restore 1 card.json\n"
    "  qamcal watch 1 --every 5\n"
    "\n"
    "Exit codes: 0 done; 1 the request could not be carried out (no reply, the DAC reads back something "
    "else, "
    "values\n"
    "that need --force, file error); 2 wrong call.";

// Bytes, or their texts, for each of kDacGroups; none for a group that is not given.
template <typename T>
using Groups = std::array<std::vector<T>, client::kDacGroups.size()>;

struct Options {
  std::string server = fmt::format("127.0.0.1:{}", client::kDefaultCalibrationPort);
  double timeout_s = 3;
  bool json = false;
  std::string slotText{};
  Groups<std::string> groups{};
  bool force = false;
  std::string file{};
  double every_s = 1;

  u8 slot() const { return static_cast<u8>(tools::slotOf(slotText)); }
  client::CalibrationClient client() const {
    client::CalibrationOptions options;
    options.timeout = std::chrono::duration_cast<std::chrono::milliseconds>(Seconds(timeout_s));
    return client::CalibrationClient(server, options);
  }
};

// --- read, save ---

void show(const Options& options, const DacRegisters& registers) {
  if (options.json) {
    tools::printJson(tools::calibrationJson(options.slot(), registers));
  } else {
    fmt::print("slot {}\n{}", options.slot() + 1, tools::calibrationText(registers));
  }
  fmt::print(stderr, "{}", tools::doubts(registers));
}

void runRead(const Options& options) {
  show(options, options.client().read(options.slot()));
}

void runSave(const Options& options) {
  const DacRegisters registers = options.client().read(options.slot());
  const std::string text = tools::calibrationJson(options.slot(), registers).dump(2) + "\n";
  tools::saveFile(options.file, base::Bytes(text.begin(), text.end()));
  fmt::print(stderr, "{}", tools::doubts(registers));
}

// --- write, restore ---

void demandSafePort(const Options& options, const DacRegisters& wanted) {
  const std::string risk = client::portRisk(wanted);
  if (risk.empty() || options.force) return;
  throw std::runtime_error(fmt::format(
      "slot {}: nothing was written: {}, and the card may then no longer reach the DAC; give other "
      "common bytes, or --force",
      options.slot() + 1, risk));
}

void demandEqual(const Options& options, const DacRegisters& before, const DacRegisters& wanted,
                 const DacRegisters& after) {
  if (after == wanted) return;
  const char* advice = after == before ? "the DAC has its old values: the request was lost; write again"
                                       : "read again; another client may have written, or the DAC is faulty";
  throw std::runtime_error(fmt::format("slot {}: the DAC reads back other bytes than written:\n{}{}",
                                       options.slot() + 1, tools::differenceText(wanted, after), advice));
}

void reportWrite(const Options& options, const DacRegisters& before, const DacRegisters& wanted,
                 const DacRegisters& after) {
  const int slot = options.slot() + 1;
  if (options.json) {
    tools::printJson({{"before", tools::calibrationJson(options.slot(), before)},
                      {"written", tools::calibrationJson(options.slot(), wanted)},
                      {"read_back", tools::calibrationJson(options.slot(), after)},
                      {"equal", after == wanted}});
  }
  demandEqual(options, before, wanted, after);
  if (!options.json) {
    fmt::print("slot {}: 13 bytes written, and the DAC reads back the same.\n{}", slot,
               tools::differenceText(before, wanted));
  }
  if (before == wanted) {
    fmt::print(stderr,
               "note: the DAC had these values before, so the read-back does not show that the request came "
               "through\n");
  }
  fmt::print(
      stderr,
      "note: this proves the DAC, not the EEPROM: restart the card and 'qamcal read {}' to see that the "
      "EEPROM kept them\n",
      slot);
}

// Writes the groups that are given; the others keep the DAC's values, so nothing is sent unless those can be
// read.
void writeGroups(const Options& options, const Groups<u8>& groups) {
  const client::CalibrationClient client = options.client();
  const DacRegisters before = client.read(options.slot());
  DacRegisters wanted = before;
  for (std::size_t n = 0; n < groups.size(); ++n) {
    std::ranges::copy(groups.at(n), bytesOf(wanted, client::kDacGroups.at(n)).begin());
  }
  demandSafePort(options, wanted);
  client.write(options.slot(), wanted);
  try {
    reportWrite(options, before, wanted, client.read(options.slot()));
  } catch (const client::Error& e) {
    throw std::runtime_error(fmt::format("written, but it could not be read back: {}", e.what()));
  }
}

void runWrite(const Options& options) {
  Groups<u8> groups;
  bool any = false;
  for (std::size_t n = 0; n < groups.size(); ++n) {
    for (const std::string& byte : options.groups.at(n)) groups.at(n).push_back(tools::parseHexByte(byte));
    any = any || !groups.at(n).empty();
  }
  if (!any) throw CLI::ValidationError("write wants at least one of --common, --i and --q");
  writeGroups(options, groups);
}

void runRestore(const Options& options) {
  const tools::SavedCalibration saved = tools::loadCalibration(options.file);
  if (saved.slot != options.slot() + 1) {
    fmt::print(stderr, "note: {} was not saved from slot {}\n", options.file, options.slot() + 1);
  }
  Groups<u8> groups;
  for (std::size_t n = 0; n < groups.size(); ++n) {
    const auto bytes = bytesOf(saved.registers, client::kDacGroups.at(n));
    groups.at(n).assign(bytes.begin(), bytes.end());
  }
  writeGroups(options, groups);
}

// --- watch ---

std::string timeNow() {
  return fmt::format("{:%H:%M:%S}", fmt::localtime(std::time(nullptr)));
}

void showChange(const Options& options, const DacRegisters& from, const DacRegisters& to) {
  if (options.json) {
    Json line = tools::calibrationJson(options.slot(), to);
    line["time"] = timeNow();
    fmt::print("{}\n", line.dump());
  } else {
    fmt::print("{}\n{}", timeNow(), tools::differenceText(from, to));
  }
  if (std::fflush(stdout) != 0) throw std::runtime_error("the output could not be written");
}

// Every change is printed whole and flushed, so Ctrl-C may end the program anywhere.
void runWatch(const Options& options) {
  const auto end = [](int) { _exit(0); };
  std::signal(SIGINT, end);
  std::signal(SIGTERM, end);
  const client::CalibrationClient client = options.client();
  DacRegisters last = client.read(options.slot());
  show(options, last);
  std::fflush(stdout);
  for (bool answered = true;;) {
    std::this_thread::sleep_for(Seconds(options.every_s));
    try {
      const DacRegisters now = client.read(options.slot());
      if (!answered) fmt::print(stderr, "{} the service answers again\n", timeNow());
      if (now != last) showChange(options, last, now);
      last = now;
      answered = true;
    } catch (const client::Error& e) {
      if (answered) fmt::print(stderr, "{} {}\n", timeNow(), e.what());
      answered = false;
    }
  }
}

// --- The command line ---

std::string checkByte(const std::string& text) {
  try {
    tools::parseHexByte(text);
    return "";
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
}

void addGroups(CLI::App* app, Options& options) {
  for (std::size_t n = 0; n < client::kDacGroups.size(); ++n) {
    const client::DacGroup& group = client::kDacGroups.at(n);
    app->add_option(fmt::format("--{}", group.name), options.groups.at(n),
                    fmt::format("registers 0x{:02x} to 0x{:02x}; without it they keep their values",
                                group.first, group.first + group.count - 1))
        ->expected(static_cast<int>(group.count))
        ->check(checkByte)
        ->multi_option_policy(CLI::MultiOptionPolicy::Throw)
        ->type_name("BYTE");
  }
}

// CLI::Range takes what is no number for one in its range.
CLI::Validator secondsBetween(double least, double most) {
  const std::string range = fmt::format("{} to {}", least, most);
  return {[=](const std::string& text) {
            double value = 0;
            const bool isNumber = CLI::detail::lexical_cast(text, value);
            return isNumber && value >= least && value <= most
                       ? ""
                       : fmt::format("'{}' is not from {}", text, range);
          },
          range};
}

void addCommands(CLI::App& app, Options& options) {
  const auto command = [&](const char* name, const char* text, void (*run)(const Options&)) {
    CLI::App* added = tools::addCommand(app, name, text, [&options, run] { run(options); });
    tools::addSlot(added, options.slotText)->required();
    return added;
  };
  const auto addFile = [&](CLI::App* to, const char* text) {
    to->add_option("file", options.file, text)->required()->type_name("FILE.json");
  };
  const auto addForce = [&](CLI::App* to) {
    to->add_flag("--force", options.force,
                 "write also what puts the DAC's serial port at risk: bits 7 to 5 of register 0x00 (data "
                 "direction, bit order, software reset)");
  };
  command("read", "Show what the DAC holds", runRead);
  CLI::App* write = command("write", "Write the DAC and the EEPROM, and read the DAC back", runWrite);
  addGroups(write, options);
  addForce(write);
  addFile(command("save", "Save what the DAC holds to a file", runSave), "the file to write");
  CLI::App* restore = command("restore", "Write what a file holds, as write does", runRestore);
  addFile(restore, "a file that save wrote");
  addForce(restore);
  command("watch", "Show what the DAC holds, then each change until Ctrl-C", runWatch)
      ->add_option("--every", options.every_s, "seconds between two looks")
      ->check(secondsBetween(0.1, 3600))  // the service takes a request every 100 ms
      ->capture_default_str()
      ->type_name("S");
}

int run(int argc, char** argv) {
  Options options;
  CLI::App app("Calibrates the DAC of a modulator card over its chassis's calibration service.", "qamcal");
  app.footer(kFooter);
  app.require_subcommand(1);
  tools::addServer(app, options.server, "the chassis's calibration service");
  app.add_option("--timeout", options.timeout_s, "seconds to wait for a reply; asked again each second")
      ->check(secondsBetween(0.05, 600))
      ->capture_default_str()
      ->type_name("S");
  tools::addJson(&app, options.json);
  addCommands(app, options);
  return tools::runCommandLine(app, argc, argv);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& e) {  // out of memory, or a fault in this program
    std::fprintf(stderr, "qamcal: %s\n", e.what());
    return 1;
  }
}
