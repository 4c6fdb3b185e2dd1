#include "headend/jobs.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

#include "headend/flag_values.h"

namespace headend {
namespace {

using Words = std::vector<std::string>;

std::string lineOf(const Words& words) {
  std::string line;
  for (const std::string& word : words) {
    if (word == "--") continue;
    const char* quote = word.empty() || word.find(' ') != std::string::npos ? "'" : "";
    line += fmt::format("{0}{1}{2}{1}", line.empty() ? "" : " ", quote, word);
  }
  return line;
}

std::shared_ptr<commands::Call> callOf(commands::LineParser& parser, const std::string& flag,
                                       const Words& words) try {
  return std::make_shared<commands::Call>(parser.parse(words));
} catch (const commands::WrongCall& e) {
  throw commands::WrongCall(fmt::format("{}: {}", flag, e.what()));
}

}  // namespace

void prepare(Job& job, const client::InputCounts& inputs) {
  const auto refuseJob = [&job](const std::string& why) {
    throw commands::WrongCall(fmt::format("{}: {}", job.flag, why));
  };
  if (job.call->entry->needsTerminal) refuseJob("this command needs a user at a terminal");
  commands::Surroundings surroundings{.inputs = inputs, .attended = false};
  try {
    job.call->command->prepare(surroundings);
  } catch (const commands::WrongCall& e) {
    refuseJob(e.what());
  } catch (const std::exception& e) {
    if (job.isDo) refuseJob(e.what());
    throw;
  }
  job.notes = surroundings.notes;
}

Job jobOf(const std::string& line, const client::InputCounts& inputs) {
  commands::LineParser parser;
  const Words words = commands::Form::wordsOf(line);
  Job job{.flag = line, .text = lineOf(words), .call = callOf(parser, line, words)};
  prepare(job, inputs);
  return job;
}

// What follows "--" is no option, even if it begins with a hyphen.
void JobFlags::set(const std::string& text) {
  const auto [name, value, at] = parseAssignment(text, kWantSetting);
  const std::size_t dot = name.find('.');
  if (dot == std::string::npos) refuse(text, kWantSetting);
  lines_.push_back({.flag = "--set " + text,
                    .at = at,
                    .words = {"var", "set", "--", name.substr(0, dot), name.substr(dot + 1), value}});
}

void JobFlags::flag(commands::Form& form, const std::string& name, const char* text,
                    Line (*lineOfText)(const std::string& text)) {
  form.take(commands::Option(name, "TEXT", text).repeatable(commands::kAny),
            [this, name, lineOfText](const std::string& value) {
              Line line = lineOfText(value);
              line.flag = name + ' ' + value;
              lines_.push_back(std::move(line));
            });
}

void JobFlags::describeUploads(commands::Form& form) {
  flag(form, "--psi",
       "N.P=FILE.ts[@SECONDS]: upload the PSI of a capture once the card runs, or at that time; a file whose "
       "name ends in @NUMBER takes @0 behind it (repeatable)",
       [](const std::string& text) -> Line {
         const auto [channel, file, at] = parseAssignment(text, "want N.P=FILE.ts, or N.P=FILE.ts@SECONDS");
         return {.at = at, .words = {"psi", "load", "--", channel, file}, .uploadTo = channel};
       });
  const std::string interval = fmt::format(
      "N.P.TABLE=TICKS: repetition interval in auxiliary-clock ticks, 0 to 65535, of {} (repeatable). It "
      "goes with the first --psi of the channel; alone it is set while the tables are on the air. 0 stops a "
      "table; set in the middle of a section it leaves the tables on the same PID waiting until the next "
      "upload",
      mpeg::tableNames("or"));
  form.take(commands::Option("--interval", "TEXT", interval).repeatable(commands::kAny),
            [this](const std::string& text) {
              constexpr auto kWant = "want N.P.TABLE=TICKS, as 1.2.PAT=100";
              const auto [name, ticks] = splitAssignment(text, kWant);
              const std::size_t dot = name.rfind('.');
              if (dot == std::string::npos || dot == 0) refuse(text, kWant);
              intervals_[name.substr(0, dot)][name.substr(dot + 1)] = ticks;
            });
  flag(form, "--pidmap", "N.P=FILE.csv[@SECONDS]: load a PID map, as qamctl pidmap load does (repeatable)",
       [](const std::string& text) -> Line {
         const auto [channel, file, at] = parseAssignment(text, "want N.P=FILE.csv or N.P=FILE.csv@SECONDS");
         return {.at = at, .words = {"pidmap", "load", "--", channel, file}};
       });
  flag(form, "--programme",
       "N.P=SLOT.INPUT:SERVICE[@SECONDS]: put a programme of an input on the channel, by service name or "
       "number, as qamctl programme add does (repeatable)",
       [](const std::string& text) -> Line {
         constexpr auto kWant =
             "want N.P=SLOT.INPUT:SERVICE or N.P=SLOT.INPUT:SERVICE@SECONDS, as 1.1=6.1:Four";
         const auto [channel, from, at] = parseAssignment(text, kWant);
         const std::size_t colon = from.find(':');
         if (colon == std::string::npos || colon + 1 == from.size()) refuse(text, kWant);
         const std::string input = "--from=" + from.substr(0, colon);
         return {.at = at,
                 .words = {"programme", "add", channel, input, "--service=" + from.substr(colon + 1)}};
       });
}

void JobFlags::describeCommands(commands::Form& form) {
  flag(form, "--key",
       "NAME[,NAME...][@SECONDS]: press keys of the front panel: up, down, left, right, ok, cancel "
       "(repeatable)",
       [](const std::string& text) -> Line {
         std::string names = text;
         const Nanos at = takeTime(names);
         Words words = partsOf(names);
         words.insert(words.begin(), "key");
         return {.at = at, .words = words};
       });
  flag(form, "--do",
       "'[@SECONDS] COMMAND ...': carry out a command of qamctl once the card runs, or at that time, as '@5 "
       "var set 1 rfreq 474000' (repeatable; qamctl --help lists the commands). A wrong command is refused "
       "before the start",
       [](const std::string& text) -> Line {
         Line line{.words = commands::Form::wordsOf(text), .isDo = true};
         if (!line.words.empty() && line.words.front().starts_with('@')) {
           line.at = parseSeconds(line.words.front().substr(1));
           line.words.erase(line.words.begin());
         }
         return line;
       });
}

// With the first upload of their channel, else on their own.
void JobFlags::placeIntervals() {
  for (const auto& [channel, tables] : intervals_) {
    Words texts;
    for (const auto& [table, ticks] : tables) texts.push_back(fmt::format("{}={}", table, ticks));
    Line* first = nullptr;
    for (Line& line : lines_) {
      if (line.uploadTo == channel && (first == nullptr || line.at < first->at)) first = &line;
    }
    if (first == nullptr) {
      texts.insert(texts.begin(), {"psi", "interval", "--", channel});
      lines_.push_back({.flag = fmt::format("--interval {}.{}", channel, texts[4]), .words = texts});
    } else {
      for (const std::string& text : texts)
        first->words.insert(first->words.begin() + 2, "--interval=" + text);
    }
  }
}

std::vector<Job> JobFlags::jobs() {
  placeIntervals();
  commands::LineParser parser;
  std::vector<Job> jobs;
  for (const auto& [flag, at, words, uploadTo, isDo] : lines_)
    jobs.push_back({flag, lineOf(words), at, isDo, callOf(parser, flag, words)});
  return jobs;
}

}  // namespace headend
