#include "headend/run_plan.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

#include "client/carry_out.h"
#include "client/pid_map_change.h"
#include "client/pid_map_file.h"
#include "client/programme.h"
#include "client/psi_capture.h"
#include "client/psi_change.h"
#include "protocol/panel.h"
#include "protocol/variables.h"

namespace headend {
namespace {

client::Tables tablesOf(const std::filesystem::path& file, Log& log) {
  const client::Capture capture = client::readCapture(file);
  for (const client::Note& note : capture.notes) {
    log.line(0, "headend", fmt::format("{}: {}", file.string(), note.text));
  }
  try {
    client::Tables tables = client::packTables(capture.sections);
    client::checkStorable(tables);
    return tables;
  } catch (const client::Error& e) {
    throw std::runtime_error(fmt::format("cannot upload {}: {}", file.string(), e.what()));
  }
}

Operator::Job jobOf(const protocol::Channel& channel, std::string name, Nanos at) {
  return {.lane = protocol::channelName(channel),
          .slot = channel.slot,
          .name = std::move(name),
          .at = at,
          .carryOut = {}};
}

// Intervals go with the first upload of their channel, else on their own.
void addPsi(const Options& options, Log& log, std::vector<Operator::Job>& jobs) {
  std::map<protocol::Channel, protocol::Intervals> left = options.intervals;
  std::vector<Options::Psi> uploads = options.psi;
  std::stable_sort(uploads.begin(), uploads.end(), [](const auto& a, const auto& b) { return a.at < b.at; });
  for (const Options::Psi& psi : uploads) {
    protocol::Intervals intervals;
    if (auto node = left.extract(psi.channel)) intervals = std::move(node.mapped());
    Operator::Job& job = jobs.emplace_back(jobOf(psi.channel, psi.file.string(), psi.at));
    job.carryOut = [channel = psi.channel, tables = tablesOf(psi.file, log), intervals](client::Link& link) {
      client::carryOut(link, client::planLoad(link, channel, tables, intervals));
    };
  }
  for (const auto& [channel, intervals] : left) {
    Operator::Job& job = jobs.emplace_back(jobOf(channel, "intervals", 0));
    job.carryOut = [channel = channel, intervals = intervals](client::Link& link) {
      client::carryOut(link, client::planIntervals(link, channel, intervals));
    };
  }
}

void addSettings(const Options& options, Log& log, std::vector<Operator::Job>& jobs) {
  for (const Options::Setting& setting : options.settings) {
    if (!setting.warning.empty()) log.line(0, "headend", setting.warning);
    jobs.push_back({.lane = fmt::format("{}", setting.slot + 1),
                    .slot = setting.slot,
                    .name = setting.name,
                    .at = setting.at,
                    .carryOut = [setting](client::Link& link) {
                      client::setVariable(link, setting.slot, setting.id, setting.value);
                    }});
  }
}

client::InputCounts sourceCards(const Options& options) {
  client::InputCounts cards;
  for (const auto& [slot, inputs] : options.sources) {
    cards[static_cast<u16>(slot)] = static_cast<u32>(inputs.size());
  }
  return cards;
}

void addPidMaps(const Options& options, Log& log, std::vector<Operator::Job>& jobs) {
  for (const Options::PidMap& map : options.pidMaps) {
    const client::MapFile file = client::readMapFile(map.file);
    client::ChangeOptions how;
    how.sources = sourceCards(options);
    how.nameOf = [name = map.file.string(), lines = file.lines](std::size_t entry) {
      return fmt::format("{} line {}", name, lines[entry]);
    };
    how.note = [&log](const std::string& text) { log.line(0, "operator", text); };
    client::checkMap(file.entries, how);
    Operator::Job& job = jobs.emplace_back(jobOf(map.channel, map.file.string(), map.at));
    job.carryOut = [channel = map.channel, entries = file.entries, how](client::Link& link) {
      client::carryOut(link, client::planMap(link, channel, entries, how));
    };
  }
}

void addProgrammes(const Options& options, Log& log, std::vector<Operator::Job>& jobs) {
  for (const Options::Programme& programme : options.programmes) {
    client::ChangeOptions how;
    how.sources = sourceCards(options);
    how.note = [&log](const std::string& text) { log.line(0, "operator", text); };
    Operator::Job& job =
        jobs.emplace_back(jobOf(programme.channel, "programme " + programme.service, programme.at));
    job.carryOut = [programme, how](client::Link& link) {
      client::carryOut(link, client::planAddProgramme(link, programme.channel, programme.source,
                                                      programme.service, {}, how)
                                 .change);
    };
  }
}

constexpr std::chrono::milliseconds kBetweenKeys{20};

void addKeys(const Options& options, std::vector<Operator::Job>& jobs) {
  for (const Options::Keys& keys : options.keys) {
    jobs.push_back({.lane = "keys",
                    .slot = options.slots.front(),
                    .name = keys.names,
                    .at = keys.at,
                    .carryOut = [keys](client::Link& link) {
                      for (const chassis::PanelKey key : keys.keys) {
                        client::pressKey(link, key);
                        link.wait(kBetweenKeys);  // gives the menu time, as for a user's keys
                      }
                    }});
  }
}

}  // namespace

std::vector<Operator::Job> operatorJobs(const Options& options, Log& log) {
  std::vector<Operator::Job> jobs;
  addPsi(options, log, jobs);
  addPidMaps(options, log, jobs);
  addProgrammes(options, log, jobs);
  addSettings(options, log, jobs);
  addKeys(options, jobs);
  return jobs;
}

}  // namespace headend
