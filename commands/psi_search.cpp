// psi search: has a card look for a table on a PID of what a channel sends, and shows the sections.
#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <optional>
#include <vector>

#include "client/chassis_services.h"
#include "commands/families.h"
#include "commands/psi_decode.h"
#include "commands/values.h"
#include "mpeg/section.h"
#include "protocol/records.h"

namespace commands {
namespace {

constexpr std::chrono::milliseconds kPoll{100};

u8 tableIdOf(const std::string& text) {
  if (const auto type = mpeg::tableOfName(text)) return mpeg::tableId(*type);
  const auto id = base::parseNumber<u8>(text);
  if (!id) throw std::invalid_argument(fmt::format("'{}' is no table's name, nor a table_id", text));
  return *id;
}

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

class Search final : public Command {
 public:
  void describe(Form& form) override {
    takeChannel(form);
    form.value(Option("pid", "PID", "0 to 0x1FFF").required(), pid_, pidOf);
    form.take(Option("table", "TABLE", "PAT, PMT, SDT_C, ..., or a table_id such as 0x4E").required(),
              [this](const std::string& text) {
                tableId_ = tableIdOf(text);
                table_ = text;
              });
    form.number(Option("--seconds", "S", "how long to look"), seconds_, 0.001, 1e6);
    takeJson(form);
    form.footer(
        "Each section is shown once, with how often it came. A card has one search: another one on it, of "
        "either channel, takes over. The search is ended at the end, and by an interrupt too.\n"
        "\nExample: qamctl psi search 1.1 0x12 0x4E --seconds 10");
  }

  // The card's search is ended in any case: signals wait until then.
  void carryOut(Session& session) override {
    session.holdSignals(true);
    client::search(session.link(), channel(), pid_, tableId_, true);
    Found found(tableId_);
    std::exception_ptr failure;
    try {
      gather(session, found);
    } catch (const std::exception&) {
      failure = std::current_exception();
    }
    client::search(session.link(), channel(), pid_, tableId_, false);
    session.holdSignals(false);
    if (failure) std::rethrow_exception(failure);
    show(session, found.report(pid_));
  }

 private:
  void gather(Session& session, Found& found) const {
    mpeg::SectionGatherer gatherer([&](std::span<const u8> section) { found.add(section); });
    const std::chrono::duration<double> time(seconds_);
    for (std::chrono::duration<double> waited(0); waited < time; waited += kPoll) {
      for (auto packets = client::searched(session.link(), channel()); !packets.empty();
           packets = client::searched(session.link(), channel())) {
        for (const mpeg::Packet& packet : packets) gatherer.push(packet);
      }
      if (!session.pause(kPoll)) return;
    }
  }

  void show(Session& session, const Json& found) const {
    if (json) return session.print(jsonText(found));
    for (const Json& section : found) session.print(sectionText(section));
    if (found.empty())
      session.print(fmt::format("nothing of {} on PID {:#06x} within {:g} s\n", table_, pid_, seconds_));
  }

  u16 pid_ = 0;
  u8 tableId_ = 0;
  std::string table_;
  double seconds_ = 5;
};

}  // namespace

std::unique_ptr<Command> makeSearch() {
  return std::make_unique<Search>();
}

}  // namespace commands
