// qamctl psi: loads, shows and clears the tables of a channel, and sets their intervals.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <memory>
#include <stdexcept>
#include <vector>

#include "client/carry_out.h"
#include "client/psi_capture.h"
#include "client/psi_change.h"
#include "client/udp_link.h"
#include "protocol/channel.h"
#include "tools/commands.h"
#include "tools/psi_report.h"
#include "tools/save_file.h"
#include "tools/status_report.h"

namespace tools {
namespace {

using protocol::Channel;

struct Options {
  const std::string& server;
  std::string channel{};
  std::string file{};
  std::vector<std::string> intervals{};
  bool force = false;
  bool json = false;
};

// Rewrites one line of a terminal; silent where stderr is none.
class Progress {
 public:
  Progress() = default;
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  ~Progress() {
    if (shown_) fmt::print(stderr, "\r\x1B[K");
  }

  void show(const std::string& text) {
    if (!terminal_) return;
    fmt::print(stderr, "\r{}\x1B[K", text);
    std::fflush(stderr);
    shown_ = true;
  }

 private:
  bool terminal_ = isatty(STDERR_FILENO) == 1;
  bool shown_ = false;
};

Channel channelOf(const Options& options) {
  return protocol::parseChannel(options.channel).value();
}

protocol::Intervals intervalsOf(const Options& options) {
  protocol::Intervals intervals;
  for (const std::string& text : options.intervals) {
    const auto [type, ticks] = protocol::parseInterval(text);
    if (!intervals.emplace(type, ticks).second) {
      throw CLI::ValidationError(fmt::format("{} has two intervals", mpeg::tableName(type)));
    }
  }
  return intervals;
}

void loadTables(const Options& options) {
  const Channel channel = channelOf(options);
  const protocol::Intervals intervals = intervalsOf(options);
  const client::Capture capture = client::readCapture(std::filesystem::path(options.file));
  for (const client::Note& note : capture.notes) fmt::print(stderr, "note: {}\n", note.text);
  const client::Tables tables = client::packTables(capture.sections);
  client::UdpLink link(options.server);
  {
    Progress progress;
    client::ChangeOptions how{.force = options.force};
    how.progress = [&](std::size_t sent, std::size_t total) {
      progress.show(fmt::format("{} of {} packets sent", sent, total));
    };
    client::carryOut(link, client::planLoad(link, channel, tables, intervals, how));
  }
  fmt::print("Channel {}: {} packets loaded", protocol::channelName(channel), client::packetsIn(tables));
  for (const PsiType type : mpeg::kAllTables) {
    const auto sections = std::ranges::count(capture.sections, mpeg::tableId(type), &mpeg::Section::tableId);
    if (sections > 0) fmt::print(", {} {}", mpeg::tableName(type), sections);
  }
  fmt::print(" (sections)\n");
}

void save(const client::PsiStore& tables, const std::string& file) {
  if (tables.locked) {
    throw client::Error(
        fmt::format("{} is not written: the channel is locked, so its tables may be incomplete", file));
  }
  if (tables.outOfReach() > 0) {
    throw client::Error(fmt::format("{} is not written: {} packets cannot be read back from the card", file,
                                    tables.outOfReach()));
  }
  if (tables.readable().empty())
    throw client::Error(fmt::format("{} is not written: the channel stores no packets", file));
  saveFile(file, client::transportStream(tables.readable()));
}

void showTables(const Options& options) {
  const Channel channel = channelOf(options);
  client::UdpLink link(options.server);
  client::PsiStore tables;
  {
    Progress progress;
    tables = client::readPsi(link, channel,
                             [&](std::size_t read) { progress.show(fmt::format("{} packets read", read)); });
  }
  const auto status = statusOf(link);
  const Json report = psiReport(tables, channel, status ? auxHzOf(*status) : std::nullopt);
  // Saved first: the reader of the output may stop reading.
  std::exception_ptr failure;
  try {
    if (!options.file.empty()) save(tables, options.file);
  } catch (const std::exception&) {
    failure = std::current_exception();
  }
  fmt::print("{}", options.json ? report.dump(2) + "\n" : psiText(report));
  if (failure) std::rethrow_exception(failure);
}

void setIntervals(const Options& options) {
  const protocol::Intervals intervals = intervalsOf(options);
  client::UdpLink link(options.server);
  client::carryOut(link, client::planIntervals(link, channelOf(options), intervals));
}

void clearTables(const Options& options) {
  client::UdpLink link(options.server);
  client::carryOut(link, client::planClear(link, channelOf(options), {.force = options.force}));
}

std::string checkInterval(const std::string& text) {
  try {
    protocol::parseInterval(text);
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
  return "";
}

}  // namespace

void addPsiCommands(CLI::App& app, const std::string& server) {
  const auto shared = std::make_shared<Options>(Options{.server = server});
  Options& options = *shared;
  CLI::App* psi = app.add_subcommand("psi", "The tables that a channel sends");
  psi->require_subcommand(1);
  psi->fallthrough();
  const auto command = [&](const char* name, const char* text, void (*run)(const Options&)) {
    return addCommand(*psi, name, text, [shared, run] { run(*shared); });
  };

  CLI::App* load = command("load", "Replace the tables by those of a capture", loadTables);
  addChannel(load, options.channel);
  load->add_option("file", options.file,
                   "a capture; its PAT, PMT, SDT, NIT, BAT and CAT are loaded, and what is left out is named")
      ->required()
      ->type_name("FILE.ts");
  load->add_option("--interval", options.intervals, "set an interval with the tables (repeatable)")
      ->check(checkInterval)
      ->allow_extra_args(false)
      ->type_name("TABLE=TICKS");
  load->add_flag("--force", options.force,
                 "load a locked channel too: what another client left half loaded is gone");

  CLI::App* show = command("show", "Read the tables back from the card and decode them", showTables);
  addChannel(show, options.channel);
  show->add_option(
          "--save", options.file,
          "write the packets to a file as well, whole or not at all: nothing is written when the channel is "
          "locked or packets lie beyond the 262 positions that can be read")
      ->type_name("FILE.ts");
  addJson(show, options.json);
  show->footer(
      "A table of several sections takes its interval once a section, so both are shown: the interval, and "
      "the time within which the whole table has come.");

  CLI::App* interval = command("interval", "Set intervals and have the card save them", setIntervals);
  addChannel(interval, options.channel);
  interval
      ->add_option("intervals", options.intervals,
                   "ticks from one section to the next, 0 to 65535; 0 stops the table")
      ->required()
      ->check(checkInterval)
      ->type_name("TABLE=TICKS");
  interval->footer(
      "A countdown that runs is not cut short: the new interval counts from the next section on.\n"
      "An interval of 0 that comes in the middle of a section leaves that PID to the section: the other "
      "tables of the "
      "PID (SDT_C, SDT_O and BAT; NIT_C and NIT_O) stay held until the table goes on or the next load or "
      "clear.");

  CLI::App* clear = command("clear", "Remove all tables", clearTables);
  addChannel(clear, options.channel);
  clear->add_flag("--force", options.force, "clear a locked channel too");

  addSearchCommand(*psi, server);
}

}  // namespace tools
