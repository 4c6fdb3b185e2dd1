// qamctl psi search: has a card look for a table on a PID of what a channel sends, and shows the sections.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <exception>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <vector>

#include "base/numbers.h"
#include "client/chassis_services.h"
#include "client/udp_link.h"
#include "mpeg/section_gatherer.h"
#include "protocol/records.h"
#include "tools/commands.h"
#include "tools/psi_decode.h"

namespace tools {
namespace {

constexpr std::chrono::milliseconds kPoll{100};

struct Options {
  const std::string& server;
  std::string channel{};
  std::string pid{};
  std::string table{};
  double seconds = 5;
  bool json = false;
};

std::optional<u8> tableOf(const std::string& text) {
  if (const auto type = mpeg::tableOfName(text)) return mpeg::tableId(*type);
  return base::parseNumber<u8>(text);
}

// Keeps an interrupt waiting meanwhile, so that the search is ended first. The signal acts when this ends.
class HeldSignals {
 public:
  HeldSignals() {
    sigemptyset(&signals_);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals_, signal);
    sigprocmask(SIG_BLOCK, &signals_, &before_);
  }
  HeldSignals(const HeldSignals&) = delete;
  HeldSignals& operator=(const HeldSignals&) = delete;
  ~HeldSignals() { sigprocmask(SIG_SETMASK, &before_, nullptr); }

  static bool came() {
    sigset_t pending;
    sigpending(&pending);
    return std::ranges::any_of(std::initializer_list<int>{SIGINT, SIGTERM, SIGHUP},
                               [&](int signal) { return sigismember(&pending, signal) == 1; });
  }

 private:
  sigset_t signals_{};
  sigset_t before_{};
};

// Sections in order of arrival, each once, with how often it came.
class Found {
 public:
  explicit Found(u8 tableId) : tableId_(tableId) {}

  void add(std::span<const u8> bytes) {
    if (bytes[0] != tableId_) return;
    base::Bytes section(bytes.begin(), bytes.end());
    const auto known = std::ranges::find(sections_, section, &Row::bytes);
    if (known != sections_.end())
      ++known->count;
    else
      sections_.push_back({.bytes = std::move(section), .count = 1});
  }

  Json report(u16 pid) const {
    Json list = Json::array();
    for (const Row& row : sections_) list.push_back(report(pid, row));
    return list;
  }

 private:
  struct Row {
    base::Bytes bytes;
    std::size_t count;
  };

  static Json report(u16 pid, const Row& row) {
    const auto& b = row.bytes;
    const bool isLong = (b[1] & 0x80) != 0 && b.size() >= mpeg::kSectionHeaderSize + mpeg::kCrcSize;
    Json report = {{"pid", pid}, {"table_id", b[0]}, {"table", mpeg::nameOfTableId(b[0])}};
    const mpeg::Section section{.pid = pid, .bytes = b};
    if (isLong) {
      report["extension"] = section.extension();
      report["version"] = section.version();
      report["section"] = section.number();
      report["last_section"] = section.lastNumber();
      report["crc_good"] = mpeg::crc32(b) == 0;
    }
    report["seen"] = row.count;
    report["bytes"] = fmt::format("{:02x}", fmt::join(b, ""));
    const bool decodes = isLong && mpeg::tableOfId(b[0]) && report["crc_good"].get<bool>();
    report["content"] = decodes ? decodeSection(section) : Json();
    return report;
  }

  u8 tableId_;
  std::vector<Row> sections_;
};

Json searchFor(client::Link& link, const protocol::Channel& channel, u16 pid, u8 table,
               std::chrono::duration<double> time) {
  Found found(table);
  mpeg::SectionGatherer gatherer([&](std::span<const u8> section) { found.add(section); },
                                 [](mpeg::SectionGatherer::Loss, std::optional<u8>) {});
  const HeldSignals signals;
  client::search(link, channel, pid, table, true);
  std::exception_ptr failure;
  try {
    for (std::chrono::duration<double> waited(0); waited < time && !HeldSignals::came(); waited += kPoll) {
      for (auto packets = client::searched(link, channel); !packets.empty() && !HeldSignals::came();
           packets = client::searched(link, channel)) {
        for (const mpeg::Packet& packet : packets) gatherer.push(packet);
      }
      link.wait(kPoll);
    }
  } catch (const std::exception&) {
    failure = std::current_exception();
  }
  client::search(link, channel, pid, table, false);
  if (failure) std::rethrow_exception(failure);
  return found.report(pid);
}

std::string sectionText(const Json& section) {
  std::string text =
      fmt::format("{} on PID {:#06x}", section["table"].get<std::string>(), section["pid"].get<int>());
  if (section.contains("extension")) {
    text +=
        fmt::format(", extension {}, version {}, section {} of {}{}", section["extension"].get<int>(),
                    section["version"].get<int>(), section["section"].get<int>(),
                    section["last_section"].get<int>(), section["crc_good"].get<bool>() ? "" : ", CRC WRONG");
  }
  text += fmt::format(", seen {} time{}\n", section["seen"].get<int>(), section["seen"] == 1 ? "" : "s");
  const std::string bytes = section["bytes"].get<std::string>();
  constexpr std::size_t kLine = 64;
  for (std::size_t at = 0; at < bytes.size(); at += kLine) text += "  " + bytes.substr(at, kLine) + "\n";
  if (!section["content"].is_null()) text += "  " + section["content"].dump() + "\n";
  return text;
}

void run(const Options& options) {
  const auto pid = base::parseNumber<u16>(options.pid, kNullPid).value();
  client::UdpLink link(options.server);
  const Json found =
      searchFor(link, protocol::parseChannel(options.channel).value(), pid, tableOf(options.table).value(),
                std::chrono::duration<double>(options.seconds));
  if (options.json) {
    printJson(found);
    return;
  }
  for (const Json& section : found) fmt::print("{}", sectionText(section));
  if (found.empty()) {
    fmt::print("nothing of {} on PID {} within {:g} s\n", options.table, options.pid, options.seconds);
  }
}

}  // namespace

void addSearchCommand(CLI::App& psi, const std::string& server) {
  const auto options = std::make_shared<Options>(Options{.server = server});
  CLI::App* search = addCommand(psi, "search", "Look for a table on a PID of what the channel sends",
                                [options] { run(*options); });
  addChannel(search, options->channel);
  search->add_option("pid", options->pid, "0 to 0x1FFF")
      ->required()
      ->check([](const std::string& text) {
        return base::parseNumber<u16>(text, kNullPid) ? "" : fmt::format("'{}' is no PID", text);
      })
      ->type_name("PID");
  search->add_option("table", options->table, "PAT, PMT, SDT_C, ..., or a table_id such as 0x4E")
      ->required()
      ->check([](const std::string& text) {
        return tableOf(text) ? "" : fmt::format("'{}' is no table's name, nor a table_id", text);
      })
      ->type_name("TABLE");
  search->add_option("--seconds", options->seconds, "how long to look")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  addJson(search, options->json);
  search->footer(
      "Each section is shown once, with how often it came. A card has one search: another one on it, of "
      "either "
      "channel, takes over. The search is ended at the end, and by an interrupt too.\n"
      "\nExample: qamctl psi search 1.1 0x12 0x4E --seconds 10");
}

}  // namespace tools
