#include "headend/jobs.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <stdexcept>

#include "headend/flag_text.h"

namespace headend {
namespace {

using commands::kAny;
using commands::Option;
using Words = std::vector<std::string>;

std::string quoted(const std::string& word) {
  return word.empty() || word.find(' ') != std::string::npos ? "'" + word + "'" : word;
}

std::string lineOf(const Words& words) {
  std::string line;
  for (const std::string& word : words) {
    if (word != "--") line += (line.empty() ? "" : " ") + quoted(word);
  }
  return line;
}

Job makeJob(commands::LineParser& parser, const std::string& flag, Nanos at, const Words& words) {
  Job job{.flag = flag,
          .text = lineOf(words),
          .at = at,
          .isDo = flag.starts_with("--do"),
          .call = {},
          .notes = {}};
  try {
    job.call = std::make_shared<commands::Call>(parser.parse(words));
  } catch (const commands::WrongCall& e) {
    throw commands::WrongCall(fmt::format("{}: {}", flag, e.what()));
  }
  return job;
}

// What follows "--" is no option, even if it begins with a hyphen.
Words loadPsi(const std::string& channel, const std::string& file) {
  return {"psi", "load", "--", channel, file};
}
Words loadPidMap(const std::string& channel, const std::string& file) {
  return {"pidmap", "load", "--", channel, file};
}
Words addProgramme(const std::string& channel, const std::string& from) {
  const std::size_t colon = from.find(':');
  if (colon == std::string::npos || colon + 1 == from.size()) return {};
  return {"programme", "add", channel, "--from=" + from.substr(0, colon),
          "--service=" + from.substr(colon + 1)};
}
Words setVariable(const std::string& name, const std::string& value) {
  const std::size_t dot = name.find('.');
  if (dot == std::string::npos) return {};
  return {"var", "set", "--", name.substr(0, dot), name.substr(dot + 1), value};
}

}  // namespace

int Job::slot() const {
  return target().channel ? target().channel->slot : target().slot.value_or(-1);
}

void Job::prepare(const client::InputCounts& inputs) {
  const auto refuse = [this](const std::string& why) {
    throw commands::WrongCall(fmt::format("{}: {}", flag, why));
  };
  if (call->entry->needsTerminal) refuse("this command needs a user at a terminal");
  commands::Surroundings surroundings{.inputs = inputs, .attended = false};
  try {
    call->command->prepare(surroundings);
  } catch (const commands::WrongCall& e) {
    refuse(e.what());
  } catch (const std::exception& e) {
    if (isDo) refuse(e.what());
    throw;
  }
  notes = surroundings.notes;
}

Job jobOf(const std::string& line) {
  commands::LineParser parser;
  Job job = makeJob(parser, line, 0, commands::Form::wordsOf(line));
  job.prepare({});
  return job;
}

void JobFlags::take(const std::string& flag, const std::string& text, const std::string& want,
                    Words (*rewrite)(const std::string& name, const std::string& value)) {
  auto [name, value] = splitAssignment(text, want);
  const Nanos at = takeTimeIfAny(value);
  const Words words = value.empty() ? Words() : rewrite(name, value);
  if (words.empty()) refuse(text, want);
  lines_.push_back({.flag = flag + " " + text, .at = at, .words = words});
}

void JobFlags::set(const std::string& text) {
  take("--set", text, kWantSetting, setVariable);
}

void JobFlags::takeDo(const std::string& text) {
  Line line{.flag = "--do " + text, .at = 0, .words = commands::Form::wordsOf(text)};
  if (!line.words.empty() && line.words.front().starts_with('@')) {
    const auto at = parseSeconds(line.words.front().substr(1));
    if (!at) refuse(text, "what follows the @ must be a number of seconds");
    line.at = *at;
    line.words.erase(line.words.begin());
  }
  lines_.push_back(std::move(line));
}

void JobFlags::takeInterval(const std::string& text) {
  const char* want = "want N.P.TABLE=TICKS, as 1.2.PAT=100";
  const auto [name, ticks] = splitAssignment(text, want);
  const std::size_t dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0) refuse(text, want);
  intervals_[name.substr(0, dot)][name.substr(dot + 1)] = ticks;
}

void JobFlags::takeKeys(const std::string& text) {
  std::string names = text;
  Line line{.flag = "--key " + text, .at = takeTimeIfAny(names), .words = {"key"}};
  for (std::size_t from = 0; from <= names.size();) {
    const std::size_t end = std::min(names.find(',', from), names.size());
    line.words.push_back(names.substr(from, end - from));
    from = end + 1;
  }
  lines_.push_back(std::move(line));
}

void JobFlags::describe(commands::Form& form) {
  const auto flag = [&form](const char* name, const char* text, auto take) {
    form.take(Option(name, "TEXT", text).repeatable(kAny), take);
  };
  flag("--psi",
       "N.P=FILE.ts[@SECONDS]: upload the PSI of a capture once the card runs, or at that time; a file whose "
       "name ends in @NUMBER takes @0 behind it (repeatable)",
       [this](const std::string& text) {
         take("--psi", text, "want N.P=FILE.ts, or N.P=FILE.ts@SECONDS", loadPsi);
       });
  flag("--interval",
       "N.P.TABLE=TICKS: repetition interval in auxiliary-clock ticks, 0 to 65535, of PAT, PMT, SDT_C, "
       "SDT_O, NIT_C, NIT_O, BAT or CAT (repeatable). It goes with the first --psi of the channel; alone it "
       "is set while the tables are on the air. 0 stops a table; set in the middle of a section it leaves "
       "the tables on the same PID waiting until the next upload",
       [this](const std::string& text) { takeInterval(text); });
  flag("--pidmap", "N.P=FILE.csv[@SECONDS]: load a PID map, as qamctl pidmap load does (repeatable)",
       [this](const std::string& text) {
         take("--pidmap", text, "want N.P=FILE.csv or N.P=FILE.csv@SECONDS", loadPidMap);
       });
  flag("--programme",
       "N.P=SLOT.INPUT:SERVICE[@SECONDS]: put a programme of an input on the channel, by service name or "
       "number, as qamctl programme add does (repeatable)",
       [this](const std::string& text) {
         take("--programme", text,
              "want N.P=SLOT.INPUT:SERVICE or N.P=SLOT.INPUT:SERVICE@SECONDS, as 1.1=6.1:Four", addProgramme);
       });
  flag("--key",
       "NAME[,NAME...][@SECONDS]: press keys of the front panel: up, down, left, right, ok, cancel "
       "(repeatable)",
       [this](const std::string& text) { takeKeys(text); });
  flag("--do",
       "'[@SECONDS] COMMAND ...': carry out a command of qamctl once the card runs, or at that time, as '@5 "
       "var set 1 rfreq 474000' (repeatable; qamctl --help lists the commands). A wrong command is refused "
       "before the start",
       [this](const std::string& text) { takeDo(text); });
}

// With the first upload of their channel, else on their own.
void JobFlags::placeIntervals() {
  for (const auto& [channel, tables] : intervals_) {
    Line* first = nullptr;
    for (Line& line : lines_) {
      const bool isUpload = line.flag.starts_with("--psi ") && line.words[3] == channel;
      if (isUpload && (first == nullptr || line.at < first->at)) first = &line;
    }
    Words words;
    for (const auto& [table, ticks] : tables) words.push_back(fmt::format("{}={}", table, ticks));
    if (first == nullptr) {
      Line line{.flag = fmt::format("--interval {}.{}", channel, words.front()),
                .at = 0,
                .words = {"psi", "interval", "--", channel}};
      line.words.insert(line.words.end(), words.begin(), words.end());
      lines_.push_back(std::move(line));
      continue;
    }
    for (const std::string& word : words) first->words.insert(first->words.begin() + 2, "--interval=" + word);
  }
}

std::vector<Job> JobFlags::jobs() {
  placeIntervals();
  commands::LineParser parser;
  std::vector<Job> jobs;
  for (const Line& line : lines_) jobs.push_back(makeJob(parser, line.flag, line.at, line.words));
  return jobs;
}

}  // namespace headend
