// psi: loads, shows and clears the tables of a channel, and sets their intervals.
#include <fmt/format.h>

#include <exception>
#include <stdexcept>
#include <vector>

#include "client/channel_change.h"
#include "client/psi_capture.h"
#include "commands/change.h"
#include "commands/families.h"
#include "commands/psi_report.h"
#include "commands/status_report.h"

namespace commands {
namespace {

using Interval = std::pair<PsiType, u32>;

protocol::Intervals together(const std::vector<Interval>& texts) {
  protocol::Intervals intervals;
  for (const auto& [type, ticks] : texts) {
    if (!intervals.emplace(type, ticks).second)
      throw WrongCall(fmt::format("{} has two intervals", mpeg::tableName(type)));
  }
  return intervals;
}

class Load final : public ChangeCommand {
 public:
  void describe(Form& form) override {
    takeChannel(form);
    takeFile(
        form,
        Option("file", "FILE.ts",
               "a capture; its PAT, PMT, SDT, NIT, BAT and CAT are loaded, and what is left out is named")
            .required(),
        file_, false);
    form.values(
        Option("--interval", "TABLE=TICKS", "set an interval with the tables (repeatable)").repeatable(),
        intervals_, protocol::parseInterval);
    form.flag("--force", "load a locked channel too: what another client left half loaded is gone", force_);
    takeDryRun(form);
  }

  void prepare(Surroundings& surroundings) override {
    together(intervals_);
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
    client::ChangeOptions options = optionsFor(session);
    options.force = force_;
    if (!apply(session, client::planLoad(session.link(), channel(), tables_, together(intervals_), options)))
      return;
    std::string text = fmt::format("Channel {}: {} packets loaded", protocol::channelName(channel()),
                                   client::packetsIn(tables_));
    for (const PsiType type : mpeg::kAllTables) {
      const std::size_t sections = client::sectionsOf(tables_, type).size();
      if (sections > 0) text += fmt::format(", {} {}", mpeg::tableName(type), sections);
    }
    session.print(text + " (sections)\n");
  }

 private:
  std::string file_;
  std::vector<Interval> intervals_;
  bool force_ = false;
  client::Tables tables_;
};

class Show final : public Command {
 public:
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
        "the time within which the whole table has come.");
  }

  // Saved first: the reader of the output may stop reading.
  void carryOut(Session& session) override {
    const client::PsiStore tables = client::readPsi(session.link(), channel(), [&](std::size_t read) {
      session.progress(fmt::format("{} packets read", read));
    });
    session.progress("");
    const auto status = statusOf(session.link());
    const Json report = psiReport(tables, channel(), status ? auxHzOf(*status) : std::nullopt);
    std::exception_ptr failure;
    try {
      if (!file_.empty()) save(tables);
    } catch (const std::exception&) {
      failure = std::current_exception();
    }
    session.print(json ? report.dump(2) + "\n" : psiText(report));
    if (failure) std::rethrow_exception(failure);
  }

 private:
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

class SetIntervals final : public ChangeCommand {
 public:
  void describe(Form& form) override {
    takeChannel(form);
    form.values(Option("intervals", "TABLE=TICKS",
                       "ticks from one section to the next, 0 to 65535; 0 stops the table")
                    .required()
                    .count(1, kAny),
                intervals_, protocol::parseInterval);
    takeDryRun(form);
    form.footer(
        "A countdown that runs is not cut short: the new interval counts from the next section on.\n"
        "An interval of 0 that comes in the middle of a section leaves that PID to the section: the other "
        "tables of the PID (SDT_C, SDT_O and BAT; NIT_C and NIT_O) stay held until the table goes on or the "
        "next load or clear.");
  }

  void prepare(Surroundings& /*surroundings*/) override { together(intervals_); }
  void carryOut(Session& session) override {
    apply(session, client::planIntervals(session.link(), channel(), together(intervals_)));
  }

 private:
  std::vector<Interval> intervals_;
};

class Clear final : public ChangeCommand {
 public:
  void describe(Form& form) override {
    takeChannel(form);
    form.flag("--force", "clear a locked channel too", force_);
    takeDryRun(form);
  }
  void carryOut(Session& session) override {
    client::ChangeOptions options = optionsFor(session);
    options.force = force_;
    apply(session, client::planClear(session.link(), channel(), options));
  }

 private:
  bool force_ = false;
};

}  // namespace

Group psiCommands() {
  return {
      .name = "psi",
      .text = "The tables that a channel sends",
      .footer = "",
      .commands = {
          {"load", "Replace the tables by those of a capture", Needs::kChassis, make<Load>},
          {"show", "Read the tables back from the card and decode them", Needs::kChassis, make<Show>},
          {"interval", "Set intervals and have the card save them", Needs::kChassis, make<SetIntervals>},
          {"clear", "Remove all tables", Needs::kChassis, make<Clear>},
          {"search", "Look for a table on a PID of what the channel sends", Needs::kChassis, makeSearch}}};
}

}  // namespace commands
