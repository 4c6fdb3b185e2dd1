// programme: adds a programme of an input to a channel, lists the programmes there, removes one.
#include <fmt/format.h>

#include <vector>

#include "client/programme.h"
#include "commands/command.h"
#include "commands/json_fields.h"
#include "commands/psi_report.h"

namespace commands {
namespace {

// ---- The report of programmes

Json sourceOf(const client::ProgrammePid& pid) {
  if (!pid.source) return {};
  return {{"slot", pid.source->sourceSlot + 1},
          {"input", pid.source->sourcePort + 1},
          {"pid", pid.source->sourcePid},
          {"programme", pid.source->sourceProgramme}};
}

// `streams` are those of the programme's PMT, as decodeSection names them.
Json pidReport(const client::ProgrammePid& pid, const Json& streams) {
  using Use = client::PidField::Use;
  Json report = {{"pid", pid.pid}};
  if (pid.field.use == Use::kStream)
    report.update({{"use", "stream"}, {"stream_type", pid.field.streamType}});
  else if (pid.field.use == Use::kCa)
    report.update({{"use", "ca"}, {"ca_system", pid.field.caSystem}});
  else
    report["use"] = "pcr";
  for (const Json& stream : streams) {
    if (report["use"] != "stream" || stream["pid"] != pid.pid) continue;
    for (const char* key : {"kind", "language"}) {
      if (stream.contains(key)) report[key] = stream[key];
    }
  }
  report["source"] = sourceOf(pid);
  return report;
}

std::string pidText(const Json& pid) {
  const char* use = pid.contains("stream_type") ? "{use} {stream_type:#04x}"
                    : pid.contains("ca_system") ? "{use} {ca_system:#06x}"
                                                : "{use}";
  const Json& source = pid["source"];
  std::string kind = pid.value("kind", "");
  if (pid.contains("language")) kind += filled(", {language}", pid);
  return filled("    {pid:#06x} ", pid) +
         fmt::format("{:<12} {}{}\n", filled(use, pid),
                     source.is_null() ? "without a source: the PID map has no entry for it"
                                      : filled("from {slot}.{input} PID {pid:#06x}", source),
                     kind.empty() ? "" : "  " + kind);
}

// An object with channel and programmes: a list of objects with number, name, pmt_pid, pcr_pid (null for
// none) and pids: [{pid, use ("stream", "pcr" or "ca"), stream_type, kind, language, ca_system, source}],
// where source is null or {slot, input, pid, programme}, slot and input from 1. stream_type, kind, language
// and ca_system are present where they apply.
Json programmeReport(const protocol::Channel& channel, const std::vector<client::Programme>& programmes) {
  Json list = Json::array();
  for (const client::Programme& programme : programmes) {
    Json pids = Json::array();
    const Json pmt = programme.hasPmt ? decodeSection(programme.pmt) : Json();
    const Json streams = pmt.is_null() ? Json::array() : pmt["streams"];
    for (const client::ProgrammePid& pid : programme.pids) pids.push_back(pidReport(pid, streams));
    list.push_back({{"number", programme.number},
                    {"name", programme.name},
                    {"pmt_pid", programme.pmtPid},
                    {"has_pmt", programme.hasPmt},
                    {"pcr_pid", programme.pcrPid == kNullPid ? Json() : Json(programme.pcrPid)},
                    {"pids", std::move(pids)}});
  }
  return {{"channel", protocol::channelName(channel)}, {"programmes", std::move(list)}};
}

std::string programmeText(const Json& report) {
  std::string text;
  for (const Json& programme : report["programmes"]) {
    text += filled("{number} '{name}': PMT PID {pmt_pid:#06x}", programme) +
            (programme["has_pmt"].get<bool>() ? "" : ", which the channel does not store") +
            filled(programme["pcr_pid"].is_null() ? ", no PCR\n" : ", PCR PID {pcr_pid:#06x}\n", programme);
    for (const Json& pid : programme["pids"]) text += pidText(pid);
  }
  return text.empty() ? filled("channel {channel} has no programmes\n", report) : text;
}

// ---- The commands

u16 baseOf(const std::string& text) {
  auto pid = base::parseNumber<u16>(text, kNullPid);
  if (pid && mpeg::isReservedPid(*pid)) pid.reset();
  return valid(pid, text, "PID from 0x20 to 0x1FFE, which programmes may have");
}

u16 streamIdOf(const std::string& text) {
  return valid(base::parseNumber<u16>(text), text, "transport_stream_id");
}

struct ProgrammeChange : ChangeCommand {
  // `done` is what has been done to the programme.
  void finish(Session& session, const client::ProgrammeChange& programme, const char* done) const {
    if (!apply(session, programme.change)) return;
    const client::ProgrammePlan& plan = programme.plan;
    for (const std::string& note : plan.notes) session.note(note);
    const Json report = {{"channel", protocol::channelName(channel())},
                         {"number", plan.number},
                         {"name", plan.name},
                         {"pmt_pid", plan.pmtPid},
                         {"map_entries", plan.map.size()},
                         {"notes", plan.notes}};
    const bool isSame = !programme.change.tables && !programme.change.map;
    session.print(
        json ? jsonText(report)
             : filled("Channel {channel}: programme {number} '{name}' ", report) +
                   (isSame ? "was there already, nothing has changed" : done) +
                   filled(" (PMT PID {pmt_pid:#06x}); the PID map has {map_entries} entries\n", report));
  }

  std::string service_;
};

struct ProgrammeAdd final : ProgrammeChange {
  void describeMore(Form& form) override {
    takeJson(form);
    form.value(Option("--from", "SLOT.INPUT", "the input that carries the programme").required(),
               target.input, inputOf);
    form.text(
        Option("--service", "NAME|NUMBER", "a programme number, or the service's name, in capitals or not")
            .required(),
        service_);
    form.value(Option("--pid", "BASE", "take free PIDs from here on; else the lowest free block from 0x100"),
               add_.base, baseOf);
    form.values(Option("--pass", "PID",
                       "route a PID of the input as it is, repeatable: 0x12 for the EIT (the SDT's EIT flags "
                       "follow), 0x14 for TDT and TOT, or one from 0x20 on")
                    .repeatable(),
                add_.pass, pidOf);
    form.value(
        Option("--ts-id", "NUMBER", "the transport_stream_id of a channel that has neither PAT nor SDT"),
        add_.transportStreamId, streamIdOf);
    form.number(Option("--seconds", "S", "how long to wait for each table of the input"), seconds_, 0, 600);
    form.footer(
        "The PIDs of the programme are mapped to free ones of the channel, and PAT, PMT, SDT and (for a "
        "scrambled one) CAT are made to match; transport_stream_id and original_network_id stay the "
        "channel's. A programme that is there already is brought up to date.\n"
        "What the channel had is kept, until all of the new is on the air, in pidmap-N.P.rescue.csv and "
        "psi-N.P.rescue.ts where 'pidmap load' keeps its map; an error puts it back.\n"
        "\nExamples:\n"
        "  qamctl programme add 1.1 --from 2.1 --service News --pass 0x12 --pass 0x14\n"
        "  qamctl programme add 1.2 --from 2.2 --service 101 --pid 0x400");
  }

  void carryOut(Session& session) override {
    client::ChangeOptions options = optionsFor(session);
    options.sources = session.inputs();
    finish(session,
           client::planAddProgramme(session.link(), channel(), target.input.value(), service_, add_, options,
                                    milliseconds(seconds_)),
           "added");
  }

  client::AddOptions add_;
  double seconds_ = 5;
};

struct ProgrammeRemove final : ProgrammeChange {
  void describeMore(Form& form) override {
    takeJson(form);
    form.text(Option("service", "NAME|NUMBER", "its number on the channel, or its name").required(),
              service_);
    form.footer("Example: qamctl programme remove 1.1 News");
  }
  void carryOut(Session& session) override {
    finish(session, client::planRemoveProgramme(session.link(), channel(), service_, optionsFor(session)),
           "removed");
  }
};

struct ProgrammeList final : Command {
  void describe(Form& form) override {
    takeJson(form);
    takeChannel(form);
  }
  void carryOut(Session& session) override {
    const Json report =
        programmeReport(channel(), client::programmesOf(client::readOutput(session.link(), channel())));
    session.print(json ? jsonText(report) : programmeText(report));
  }
};

}  // namespace

Group programmeCommands() {
  return {
      .name = "programme",
      .text = "The programmes that a channel carries",
      .commands = {{"add", "Take a programme of an input into the channel", make<ProgrammeAdd>},
                   {"list", "Show the programmes, their PIDs and where these come from", make<ProgrammeList>},
                   {"remove", "Take a programme out, with every PID that no other programme uses",
                    make<ProgrammeRemove>}}};
}

}  // namespace commands
