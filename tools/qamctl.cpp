// qamctl: loads, shows and clears the tables of a channel and sets their intervals, over the management
// socket of a chassis. Exit codes: 0 done; 1 the request could not be carried out; 2 wrong call.
#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "client/channel.h"
#include "client/psi_capture.h"
#include "client/psi_read_back.h"
#include "client/psi_upload.h"
#include "client/udp_link.h"
#include "tools/psi_report.h"
#include "tools/save_file.h"
#include "tools/status_report.h"

namespace {

using client::Channel;
using tools::Json;

constexpr int kFailed = 1;
constexpr int kWrongCall = 2;

struct Options {
  std::string server = fmt::format("127.0.0.1:{}", client::kDefaultManagementPort);
  std::string channel;
  std::string file;
  std::vector<std::string> intervals;
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
  return client::parseChannel(options.channel).value();
}

client::Intervals intervalsOf(const Options& options) {
  client::Intervals intervals;
  for (const std::string& text : options.intervals) {
    const auto [type, ticks] = client::parseInterval(text);
    if (!intervals.emplace(type, ticks).second) {
      throw CLI::ValidationError(fmt::format("{} has two intervals", client::tableName(type)));
    }
  }
  return intervals;
}

void load(const Options& options) {
  const Channel channel = channelOf(options);
  const client::Intervals intervals = intervalsOf(options);
  const client::Capture capture = client::readCapture(std::filesystem::path(options.file));
  for (const client::Note& note : capture.notes) fmt::print(stderr, "note: {}\n", note.text);
  const client::UploadPlan plan = client::planUpload(capture.sections);
  client::UdpLink link(options.server);
  {
    Progress progress;
    client::upload(link, channel, plan, intervals,
                   {.force = options.force, .progress = [&](std::size_t sent, std::size_t total) {
                      progress.show(fmt::format("{} of {} packets sent", sent, total));
                    }});
  }
  fmt::print("Channel {}: {} packets loaded", client::channelName(channel), plan.packets);
  for (const client::TableType type : client::kAllTables) {
    const auto& table = plan.tables[client::indexOf(type)];
    if (table.sections > 0) fmt::print(", {} {}", client::tableName(type), table.sections);
  }
  fmt::print(" (sections)\n");
}

// Nothing when the server does not tell; a read-back is worth showing without it.
std::optional<Json> statusOf(client::Link& link) {
  client::Request request;
  request.operation = client::Operation::kStatus;
  const client::Reply reply = link.call(std::move(request));
  if (reply.result != client::kDone) return std::nullopt;
  constexpr int kMaxDepth = 16;  // deeper than any status; what lies below is not worth a full stack
  const auto shallow = [](int depth, Json::parse_event_t, Json&) { return depth < kMaxDepth; };
  Json status = Json::parse(reply.data.begin(), reply.data.end(), shallow, false);
  return status.is_object() ? std::optional(std::move(status)) : std::nullopt;
}

void save(const client::ReadBack& tables, const std::string& file) {
  if (tables.locked) {
    throw client::PsiError(
        fmt::format("{} is not written: the channel is locked, so its tables may be incomplete", file));
  }
  if (tables.outOfReach() > 0) {
    throw client::PsiError(fmt::format("{} is not written: {} packets cannot be read back from the card",
                                       file, tables.outOfReach()));
  }
  if (tables.read() == 0)
    throw client::PsiError(fmt::format("{} is not written: the channel stores no packets", file));
  tools::saveFile(file, tools::transportStream(tables));
}

void show(const Options& options) {
  const Channel channel = channelOf(options);
  client::UdpLink link(options.server);
  client::ReadBack tables;
  {
    Progress progress;
    tables = client::readBack(link, channel,
                              [&](std::size_t read) { progress.show(fmt::format("{} packets read", read)); });
  }
  const auto status = statusOf(link);
  const Json report = tools::psiReport(tables, channel, status ? tools::auxHzOf(*status) : std::nullopt);
  // Saved first: whoever reads the output may stop reading.
  std::exception_ptr failure;
  try {
    if (!options.file.empty()) save(tables, options.file);
  } catch (const std::exception&) {
    failure = std::current_exception();
  }
  fmt::print("{}", options.json ? report.dump(2) + "\n" : tools::psiText(report));
  if (failure) std::rethrow_exception(failure);
}

void setIntervals(const Options& options) {
  const client::Intervals intervals = intervalsOf(options);
  client::UdpLink link(options.server);
  client::setIntervals(link, channelOf(options), intervals);
}

void clear(const Options& options) {
  client::UdpLink link(options.server);
  client::clear(link, channelOf(options), options.force);
}

void status(const Options& options) {
  client::UdpLink link(options.server);
  const auto status = statusOf(link);
  if (!status) throw std::runtime_error(fmt::format("{}: the server tells no status", options.server));
  // Escaped beyond ASCII, so that nothing the chassis sends acts on a terminal.
  fmt::print("{}", options.json ? status->dump(2, ' ', true, Json::error_handler_t::replace) + "\n"
                                : tools::statusText(*status));
}

// --- The command line
// -----------------------------------------------------------------------------------------

std::string checkChannel(const std::string& text) {
  return client::parseChannel(text) ? "" : fmt::format("'{}' is no SLOT.CHANNEL from 1.1 to 6.2", text);
}

std::string checkInterval(const std::string& text) {
  try {
    client::parseInterval(text);
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
  return "";
}

std::string checkServer(const std::string& text) {
  return client::isServer(text) ? "" : fmt::format("'{}' is no ADDR:PORT", text);
}

CLI::App* command(CLI::App& parent, const char* name, const char* text, void (*run)(const Options&),
                  const Options& options) {
  CLI::App* app = parent.add_subcommand(name, text);
  app->fallthrough();
  app->callback([run, &options] { run(options); });
  return app;
}

void addChannel(CLI::App* app, Options& options) {
  app->add_option("channel", options.channel, "slot (1 to 6) and channel (1 or 2), such as 1.2")
      ->required()
      ->check(checkChannel)
      ->type_name("N.P");
}

void addPsi(CLI::App& app, Options& options) {
  CLI::App* psi = app.add_subcommand("psi", "The tables that a channel sends");
  psi->require_subcommand(1);
  psi->fallthrough();

  CLI::App* load = command(*psi, "load", "Replace the tables by those of a capture", ::load, options);
  addChannel(load, options);
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

  CLI::App* show =
      command(*psi, "show", "Read the tables back from the card and decode them", ::show, options);
  addChannel(show, options);
  show->add_option(
          "--save", options.file,
          "write the packets to a file as well, whole or not at all: nothing is written when the channel is "
          "locked or packets lie beyond the 262 positions that can be read")
      ->type_name("FILE.ts");
  show->add_flag("--json", options.json, "as JSON");
  show->footer(
      "A table of several sections takes its interval once a section, so both are shown: the interval, and "
      "the time within which the whole table has come.");

  CLI::App* interval =
      command(*psi, "interval", "Set intervals and have the card save them", ::setIntervals, options);
  addChannel(interval, options);
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

  CLI::App* clear = command(*psi, "clear", "Remove all tables", ::clear, options);
  addChannel(clear, options);
  clear->add_flag("--force", options.force, "clear a locked channel too");
}

constexpr const char* kFooter =
    "TABLE is PAT, PMT, SDT_C, SDT_O, NIT_C, NIT_O, BAT or CAT: C is the actual stream or network, O "
    "another.\n"
    "TICKS are ticks of the chassis's auxiliary clock.\n"
    "\n"
    "Examples:\n"
    "  qamctl psi load 1.1 capture.ts --interval PAT=100 --interval SDT_C=500\n"
    "  qamctl psi show 1.1 --save backup.ts\n"
    "  qamctl psi interval 1.2 NIT_C=1000 BAT=0\n"
    "  qamctl --server 192.0.2.7:49160 status\n"
    "\n"
    "Exit codes: 0 done; 1 the request could not be carried out (refused, card error, no reply, file error); "
    "2 wrong "
    "call.";

int run(int argc, char** argv) {
  Options options;
  CLI::App app("Manages the modulator cards of a chassis over its management socket.", "qamctl");
  app.footer(kFooter);
  app.require_subcommand(1);
  app.add_option("--server", options.server, "the chassis's management socket")
      ->check(checkServer)
      ->capture_default_str()
      ->type_name("ADDR:PORT");
  addPsi(app, options);
  command(app, "status", "Show the cards of the chassis and what they send", ::status, options)
      ->add_flag("--json", options.json, "as JSON");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : kWrongCall;
  } catch (const std::exception& e) {
    fmt::print(stderr, "qamctl: {}\n", e.what());
    return kFailed;
  }
  std::cout.flush();
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return 0;
  fmt::print(stderr, "qamctl: the output could not be written\n");
  return kFailed;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& e) {  // out of memory, or a fault in this program
    std::fprintf(stderr, "qamctl: %s\n", e.what());
    return kFailed;
  }
}
