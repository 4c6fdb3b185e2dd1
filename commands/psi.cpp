// psi: loads, shows and clears the tables of a channel, sets their intervals, and has a card search for a
// table in what a channel sends.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <exception>
#include <limits>
#include <optional>
#include <set>
#include <stdexcept>
#include <vector>

#include "client/channel_change.h"
#include "client/chassis_services.h"
#include "client/programme_draft.h"
#include "client/psi_capture.h"
#include "commands/command.h"
#include "commands/psi_report.h"
#include "commands/status.h"
#include "commands/stream_counts.h"
#include "mpeg/section.h"

namespace commands {
namespace {

void takeIntervals(Form& form, const Option& option, protocol::Intervals& intervals) {
  form.take(option, [&intervals](const std::string& text) {
    const auto [type, ticks] = protocol::parseInterval(text);
    if (!intervals.emplace(type, ticks).second)
      throw std::invalid_argument(fmt::format("{} has two intervals", mpeg::tableName(type)));
  });
}

// Does `work`, then `end` in any case.
template <typename Work, typename End>
void inAnyCase(const Work& work, const End& end) {
  std::exception_ptr failure;
  try {
    work();
  } catch (const std::exception&) {
    failure = std::current_exception();
  }
  end();
  if (failure) std::rethrow_exception(failure);
}

struct PsiLoad final : ChangeCommand {
  void describeMore(Form& form) override {
    takeFile(
        form,
        Option("file", "FILE.ts",
               "a capture; its PAT, PMT, SDT, NIT, BAT and CAT are loaded, and what is left out is named")
            .required(),
        file_, false);
    takeIntervals(
        form,
        Option("--interval", "TABLE=TICKS", "set an interval with the tables (repeatable)").repeatable(),
        intervals_);
    form.flag("--force", "load a locked channel too: what another client left half loaded is gone", force);
  }

  void prepare(Surroundings& surroundings) override {
    const client::Capture capture = client::readCapture(std::filesystem::path(file_));
    for (const std::string& note : capture.notes)
      surroundings.notes.push_back(fmt::format("{}: {}", file_, note));
    try {
      tables_ = client::packTables(capture.sections);
      client::checkStorable(tables_);
    } catch (const client::Error& e) {
      throw std::runtime_error(fmt::format("cannot upload {}: {}", file_, e.what()));
    }
  }

  void carryOut(Session& session) override {
    const bool isDone =
        apply(session, client::planLoad(session.link(), channel(), tables_, intervals_, optionsFor(session)));
    noteMap(session);
    if (!isDone) return;
    std::string text = fmt::format("Channel {}: {} packets loaded", protocol::channelName(channel()),
                                   client::packetsIn(tables_));
    for (const PsiType type : mpeg::kAllTables) {
      const std::size_t sections = client::sectionsOf(tables_, type).size();
      if (sections > 0) text += fmt::format(", {} {}", mpeg::tableName(type), sections);
    }
    session.print(text + " (sections)\n");
  }

  // The tables are loaded, so a map that cannot be read is no failure.
  std::optional<client::PidMap> mapOf(Session& session) const {
    try {
      return client::readMapOnce(session.link(), channel());
    } catch (const client::Error&) {
      return std::nullopt;
    }
  }

  // The PIDs of the channel's programmes go on being sent.
  void noteMap(Session& session) const {
    const auto map = mapOf(session);
    if (!map || map->entries.empty()) return;
    std::set<u16> named;
    for (const mpeg::Section& pmt : client::sectionsOf(tables_, PMT)) named.merge(client::pidSetOf(pmt));
    const auto unnamed = std::ranges::count_if(
        map->entries, [&](const client::MapEntry& entry) { return !named.contains(entry.pid); });
    session.note(fmt::format(
        "the PID map of channel {0} stays: {1} of its {2} entries send PIDs that no loaded PMT names "
        "('pidmap show {0}' lists them, 'pidmap clear {0}' removes all)",
        protocol::channelName(channel()), unnamed, map->entries.size()));
  }

  std::string file_;
  protocol::Intervals intervals_;
  client::Tables tables_;
};

struct PsiShow final : Command {
  void describe(Form& form) override {
    takeChannel(form);
    takeFile(form,
             Option("--save", "FILE.ts",
                    "write the packets to a file as well, whole or not at all: nothing is written when the "
                    "channel is locked or packets lie beyond the 262 positions that can be read"),
             file_, true);
    takeJson(form);
    form.footer(
        "A table of several sections takes its interval once a section, so both are shown: the interval, and "
        "the time within which the whole table has come.\n"
        "\nExample: qamctl psi show 1.1 --save backup.ts");
  }

  // Saved first: the reader of the output may stop reading.
  void carryOut(Session& session) override {
    const client::PsiStore tables = client::readPsi(session.link(), channel(), [&](std::size_t read) {
      session.progress(fmt::format("{} packets read", read));
    });
    session.progress("");
    const auto status = statusOf(session.link());
    const Json report = psiReport(tables, channel(), status ? auxHzOf(*status) : std::nullopt);
    inAnyCase(
        [&] {
          if (!file_.empty()) save(tables);
        },
        [&] { session.print(json ? report.dump(2) + "\n" : psiText(report)); });
  }

  void save(const client::PsiStore& tables) const {
    const auto refuse = [&](const std::string& why) {
      throw client::Error(fmt::format("{} is not written: {}", file_, why));
    };
    if (tables.locked) refuse("the channel is locked, so its tables may be incomplete");
    if (tables.outOfReach() > 0)
      refuse(fmt::format("{} packets cannot be read back from the card", tables.outOfReach()));
    if (tables.readable().empty()) refuse("the channel stores no packets");
    saveFile(file_, client::transportStream(tables.readable()));
  }

  std::string file_;
};

struct PsiInterval final : ChangeCommand {
  void describeMore(Form& form) override {
    takeIntervals(form,
                  Option("intervals", "TABLE=TICKS",
                         "ticks from one section to the next, 0 to 65535; 0 stops the table")
                      .required()
                      .count(1, kAny),
                  intervals_);
    form.footer(
        "A countdown that runs is not cut short: the new interval counts from the next section on.\n"
        "An interval of 0 that comes in the middle of a section leaves that PID to the section: the other "
        "tables of the PID (SDT_C, SDT_O and BAT; NIT_C and NIT_O) stay held until the table goes on or the "
        "next load or clear.\n"
        "\nExample: qamctl psi interval 1.2 NIT_C=1000 BAT=0");
  }

  void carryOut(Session& session) override {
    apply(session, client::planIntervals(session.link(), channel(), intervals_));
  }

  protocol::Intervals intervals_;
};

struct PsiClear final : ChangeCommand {
  void describeMore(Form& form) override { form.flag("--force", "clear a locked channel too", force); }
  void carryOut(Session& session) override {
    apply(session, client::planClear(session.link(), channel(), optionsFor(session)));
  }
};

constexpr std::chrono::milliseconds kSearchPoll{100};

u8 tableIdOf(const std::string& text) {
  if (const auto type = mpeg::tableOfName(text)) return mpeg::tableId(*type);
  return valid(base::parseNumber<u8>(text), text, "table's name, nor a table_id");
}

struct Found {
  base::Bytes section;
  std::size_t count = 1;  // how often it came
};

Json foundReport(u16 pid, const Found& found) {
  const mpeg::Section section{.pid = pid, .bytes = found.section};
  const base::Bytes& b = section.bytes;
  const bool isLong = (b[1] & 0x80) != 0 && b.size() >= mpeg::kSectionHeaderSize + mpeg::kCrcSize;
  const bool isGood = isLong && mpeg::crc32(b) == 0;
  Json report = {{"pid", pid}, {"table_id", b[0]}, {"table", mpeg::nameOfTableId(b[0])}};
  if (isLong) {
    report.update({{"extension", section.extension()},
                   {"version", section.version()},
                   {"section", section.number()},
                   {"last_section", section.lastNumber()},
                   {"crc_good", isGood}});
  }
  report.update({{"seen", found.count},
                 {"bytes", fmt::format("{:02x}", fmt::join(b, ""))},
                 {"content", isGood && mpeg::tableOfId(b[0]) ? decodeSection(section) : Json()}});
  return report;
}

std::string foundText(const Json& found) {
  std::string text = filled("{table} on PID {pid:#06x}", found);
  if (found.contains("extension")) {
    text += filled(", extension {extension}, version {version}, section {section} of {last_section}", found) +
            (found["crc_good"].get<bool>() ? "" : ", CRC WRONG");
  }
  text += filled(found["seen"] == 1 ? ", seen {seen} time\n" : ", seen {seen} times\n", found);
  if (const Json& content = found["content"]; !content.is_null()) {
    const std::string table = found["table"];
    return text + "  " + contentTitle(table, content) + "\n" + contentLines(table, content);
  }
  const std::string bytes = found["bytes"];
  constexpr std::size_t kLine = 64;
  for (std::size_t at = 0; at < bytes.size(); at += kLine) text += "  " + bytes.substr(at, kLine) + "\n";
  return text;
}

struct PsiSearch final : Command {
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
    inAnyCase([&] { gather(session); },
              [&] {
                client::search(session.link(), channel(), pid_, tableId_, false);
                session.holdSignals(false);
              });
    Json report = Json::array();
    for (const Found& each : found_) report.push_back(foundReport(pid_, each));
    if (json) return session.print(jsonText(report));
    for (const Json& each : report) session.print(foundText(each));
    if (found_.empty())
      session.print(fmt::format("nothing of {} on PID {:#06x} within {:g} s\n", table_, pid_, seconds_));
  }

  void gather(Session& session) {
    mpeg::SectionGatherer gatherer([this](std::span<const u8> section) { add(section); });
    const std::chrono::duration<double> time(seconds_);
    for (std::chrono::duration<double> waited(0); waited < time; waited += kSearchPoll) {
      for (auto packets = client::searched(session.link(), channel()); !packets.empty();
           packets = client::searched(session.link(), channel())) {
        for (const mpeg::Packet& packet : packets) gatherer.push(packet);
      }
      if (!session.pause(kSearchPoll)) return;
    }
  }

  void add(std::span<const u8> bytes) {
    if (bytes[0] != tableId_) return;
    base::Bytes section(bytes.begin(), bytes.end());
    const auto known = std::ranges::find(found_, section, &Found::section);
    if (known != found_.end())
      ++known->count;
    else
      found_.push_back({.section = std::move(section)});
  }

  u16 pid_ = 0;
  u8 tableId_ = 0;
  std::string table_;
  double seconds_ = 5;
  std::vector<Found> found_;  // in order of arrival
};

struct PsiTicks final : Command {
  void describe(Form& form) override {
    takeChannel(form);
    form.number(Option("--seconds", "S", "how far to look back").byDefault("5"), seconds_, 0.001, 3600);
    form.integer(Option("--from", "NUMBER", "only groups from this number on, for --json"), from_, 0,
                 std::numeric_limits<u64>::max());
    takeJson(form);
    form.footer(
        "A group is a section, or all packets of PMT. It is late if it began more than a tick after the "
        "interval, or "
        "after the packets of the group before it if these are more, and no section of another table had its "
        "PID. "
        "The chassis keeps the last 64 groups of each table. They are numbered, so that a reader misses "
        "none.\n"
        "\nExample: qamctl psi ticks 1.1");
  }

  void carryOut(Session& session) override {
    const auto status = statusOf(session.link());
    const auto hz = status ? auxHzOf(*status) : std::nullopt;
    if (!hz) client::fail("{}: the server does not give its auxiliary clock", session.chassis());
    const Json report =
        ticksReport(client::readGroupStarts(session.link(), channel(), from_), channel(), *hz, seconds_);
    session.print(json ? report.dump(2) + "\n" : ticksText(report, seconds_));
  }

  double seconds_ = 5;
  u64 from_ = 0;
};

}  // namespace

Group psiCommands() {
  return {.name = "psi",
          .text = "The tables that a channel sends",
          .commands = {{"load", "Replace the tables by those of a capture", make<PsiLoad>},
                       {"show", "Read the tables back from the card and decode them", make<PsiShow>},
                       {"interval", "Set intervals and have the card save them", make<PsiInterval>},
                       {"clear", "Remove all tables", make<PsiClear>},
                       {"ticks", "Show when the groups of each table began", make<PsiTicks>},
                       {"search", "Look for a table on a PID of what the channel sends", make<PsiSearch>}}};
}

}  // namespace commands
